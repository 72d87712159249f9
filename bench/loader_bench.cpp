// Loading speed of oaisql beside the server's own COPY FROM of the same rows,
// measured in the same run on a throwaway server: a backup server's media
// table, 100,000, 1,000,000 and 5,000,000 rows, once without errors and once with 0.1%
// duplicate keys, each without and with a position file (-p). Not a test:
// run by hand, prints rows per second and ratios.
// The server is durable as in production (see bench_server.hpp).
//
//   bench_loader [ROWS ...] [-b STATEMENTS_PER_COMMIT] [-g ROWS_PER_INSERT]
#include <libpq-fe.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_server.hpp"
#include "loader/loader.hpp"
#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

using rvbench::connect;
using rvbench::Connection;
using rvbench::query;
using rvbench::Result;
using rvbench::seconds_since;

struct Row {
    long id;
    std::string label;
    std::string pool;
    long size;
    std::string expires;
    std::optional<std::string> note;
};

// Deterministic rows that look like a media table of a backup server.
std::vector<Row> make_rows(long count) {
    static const char* const kPools[] = {"Default", "Daily",   "Weekly",
                                         "Monthly", "Archive", "Offsite"};
    static const char* const kNotes[] = {"operator's tape", "moved to safe, shelf 3 (left)",
                                         "Prüfung ok ✓", "label damaged", "returned from vault"};
    std::vector<Row> rows;
    rows.reserve(static_cast<std::size_t>(count));
    unsigned long seed = 12345;
    for (long i = 1; i <= count; ++i) {
        seed = seed * 6364136223846793005UL + 1442695040888963407UL;
        std::array<char, 32> expires{};
        std::snprintf(expires.data(), expires.size(), "20%02lu-%02lu-%02lu %02lu:%02lu:00",
                      26 + (seed >> 60), 1 + (seed >> 20) % 12, 1 + (seed >> 30) % 28,
                      (seed >> 40) % 24, (seed >> 50) % 60);
        Row row{i,
                std::string("A").append(std::to_string(100000 + i)),
                kPools[(seed >> 33) % 6],
                static_cast<long>((seed >> 16) % 800000000000UL),
                expires.data(),
                std::nullopt};
        if (i % 7 != 0) {
            row.note = kNotes[(seed >> 24) % 5];
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string quoted(const std::string& value) {
    std::string out = "'";
    for (const char c : value) {
        out += c;
        if (c == '\'') {
            out += '\'';
        }
    }
    return out + "'";
}

// The script as the table change step writes it; every `dup_every`-th line
// line on average (0: none) repeats the key of the line before and fails.
long write_script(const std::string& file, const std::vector<Row>& rows, long dup_every) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(file.c_str(), "w"), std::fclose);
    if (!out) {
        throw std::runtime_error("cannot write " + file);
    }
    std::fputs("connect ravik_db\n", out.get());
    long dups = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Row& r = rows[i];
        // Scattered, not evenly spaced: a failure may fall anywhere in a commit group.
        const unsigned long mix = (i + 1) * 2654435761UL % 4294967296UL;
        const bool dup = dup_every > 0 && i > 0 && mix % static_cast<unsigned long>(dup_every) == 0;
        dups += dup ? 1 : 0;
        const long id = dup ? r.id - 1 : r.id;
        std::fprintf(out.get(),
                     "INSERT INTO media (id,label,pool,size,expires,note) VALUES "
                     "('%ld',%s,%s,'%ld',%s,%s);\n",
                     id, quoted(r.label).c_str(), quoted(r.pool).c_str(), r.size,
                     quoted(r.expires).c_str(), r.note ? quoted(*r.note).c_str() : "NULL");
    }
    return dups;
}

std::string copy_text(const std::vector<Row>& rows) {
    std::string text;
    for (const Row& r : rows) {
        text += std::to_string(r.id) + '\t' + r.label + '\t' + r.pool + '\t' +
                std::to_string(r.size) + '\t' + r.expires + '\t' + (r.note ? *r.note : "\\N") +
                '\n';
    }
    return text;
}

void fresh_table() {
    query("ravik_db", "drop table if exists media");
    query("ravik_db",
          "create table media (id bigint primary key, label text not null, pool text, size bigint, "
          "expires text, note text)");
    query("ravik_db", "checkpoint");
}

double run_copy(const std::string& text) {
    fresh_table();
    const Connection conn = connect("ravik_db");
    const auto start = std::chrono::steady_clock::now();
    Result begin(PQexec(conn.get(), "COPY media FROM STDIN"));
    if (PQresultStatus(begin.get()) != PGRES_COPY_IN) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    constexpr std::size_t kChunk = 1 << 16;
    for (std::size_t at = 0; at < text.size(); at += kChunk) {
        const std::size_t n = std::min(kChunk, text.size() - at);
        if (PQputCopyData(conn.get(), text.data() + at, static_cast<int>(n)) != 1) {
            throw std::runtime_error(PQerrorMessage(conn.get()));
        }
    }
    if (PQputCopyEnd(conn.get(), nullptr) != 1) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    Result end(PQgetResult(conn.get()));
    if (PQresultStatus(end.get()) != PGRES_COMMAND_OK) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    return seconds_since(start);
}

double run_oaisql(const std::string& file, const std::vector<std::string>& tuning, long expect_rows,
                  long expect_errors, const rvbench::PeakLog& peaks) {
    fresh_table();
    std::vector<std::string> argv{rvtest::bin("oaisql"), "-c", file, "-e"};
    argv.insert(argv.end(), tuning.begin(), tuning.end());
    const auto start = std::chrono::steady_clock::now();
    const rvtest::RunResult result = rvtest::run(peaks.command(argv));
    const double took = seconds_since(start);
    long errors = 0;
    for (std::size_t at = result.out.find("Error"); at != std::string::npos;
         at = result.out.find("Error", at + 1)) {
        ++errors;
    }
    const std::string rows = query("ravik_db", "select count(*) from media");
    if (errors != expect_errors || rows != std::to_string(expect_rows) ||
        result.status != (errors ? 1 : 0)) {
        throw std::runtime_error("oaisql loaded " + rows + " rows with " + std::to_string(errors) +
                                 " errors and status " + std::to_string(result.status) + ": " +
                                 result.err);
    }
    return took;
}

void line(const char* what, long rows, double secs, double copy_secs, const std::string& memory = "") {
    std::printf("%-37s %9ld rows %8.2f s %10.0f rows/s %6.2fx COPY  %s\n", what, rows, secs,
                rows / secs, secs / copy_secs, memory.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<long> sizes;
    std::vector<std::string> tuning;
    std::string batch = std::to_string(rv::kLoaderBatch);
    std::string group = std::to_string(rv::kLoaderGroup);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "-b" || arg == "-g") && i + 1 < argc) {
            tuning.insert(tuning.end(), {arg, argv[++i]});
            (arg == "-b" ? batch : group) = argv[i];
        } else {
            sizes.push_back(std::atol(argv[i]));
        }
    }
    if (sizes.empty()) {
        sizes = {100000, 1000000, 5000000};
    }
    try {
        const rvbench::DurableServer server;
        query("postgres", "create database ravik_db");
        std::printf("server: fsync %s, synchronous_commit %s\n",
                    query("ravik_db", "show fsync").c_str(),
                    query("ravik_db", "show synchronous_commit").c_str());
        std::printf("oaisql: %s statements per commit, %s rows per INSERT\n", batch.c_str(),
                    group.c_str());
        rvtest::Sandbox box;
        rvbench::PeakLog peaks(box.path("peak"));
        const std::string clean = box.dir("gv_rw_work") + "db_media.tmp";
        const std::string failing = box.dir("gv_rw_work") + "db_media_dups.tmp";
        std::vector<std::string> recorded = tuning;
        recorded.insert(recorded.end(), {"-p", box.dir("gv_rw_work") + "db_media.pos"});
        for (const long n : sizes) {
            const std::vector<Row> rows = make_rows(n);
            write_script(clean, rows, 0);
            const long dups = write_script(failing, rows, 1000);
            const std::string text = copy_text(rows);
            const double copy = run_copy(text);
            line("COPY FROM (PQputCopyData)", n, copy, copy);
            // Each run's time, ratio and the loader's peak resident memory.
            const auto measured = [&](const char* what, const std::string& file,
                                      const std::vector<std::string>& options, long dup_rows) {
                const double secs = run_oaisql(file, options, n - dup_rows, dup_rows, peaks);
                line(what, n, secs, copy, "peak " + peaks.take());
            };
            measured("oaisql, no errors", clean, tuning, 0);
            measured("oaisql -p, no errors", clean, recorded, 0);
            measured("oaisql, 0.1% duplicate keys", failing, tuning, dups);
            measured("oaisql -p, 0.1% duplicate keys", failing, recorded, dups);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_loader: %s\n", e.what());
        return 1;
    }
    return 0;
}
