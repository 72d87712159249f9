// A table's round trip through the update tool beside the server's own bulk
// paths, measured in the same run on a throwaway durable server: the dump,
// change and import steps of an update script run by
// `rv_db_update update 1.6.3.20 1.6.4.71` on a backup server's media table,
// and COPY TO (out) and COPY FROM (in) of the same table. Not a test: run by
// hand, prints seconds, rows per second and the ratio to COPY for each step.
//
//   bench_update [ROWS ...] [-r REPEATS]     (default: 100000 1000000 5000000, -r 1)
//
// The update script marks the boundaries of its steps with `cmd` steps that
// append a time stamp to a file in the work directory, so one ordinary run of
// the tool yields the time of every step; the marks cost a few milliseconds.
// Between the dump and the change, `sql` steps empty the table, change its
// schema (drop column slot, add column status) and write a checkpoint, so the
// import starts from clean buffers as the COPY FROM does. Every run is
// checked: row count, sum of ids, number of NULL notes and a digest of all
// kept values must come back unchanged, every row must carry the added value
// and the dropped column must be gone.
#include <libpq-fe.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_server.hpp"
#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;

using rvbench::Connection;
using rvbench::query;
using rvbench::query_row;
using rvbench::Result;
using rvbench::seconds_since;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File open_file(const std::string& name, const char* mode) {
    File fp(std::fopen(name.c_str(), mode), std::fclose);
    if (!fp) {
        throw std::runtime_error("cannot open " + name);
    }
    return fp;
}

const char* const kUpdateScript = R"(# Update script of the benchmark: a table's round trip.
[Update 1.6.4.]
last_step_nr=13
step_1=cmd date +%s.%N >> gv_rw_work:bench_marks.txt
step_2=[ $old_version < "1.6.4." ] && dump ravik_db media
step_3=cmd date +%s.%N >> gv_rw_work:bench_marks.txt
step_4=[ $old_version < "1.6.4." ] && sql ravik_db truncate media
step_5=sql ravik_db alter table media drop column slot
step_6=sql ravik_db alter table media add column status varchar(16)
step_7=sql ravik_db checkpoint
step_8=cmd date +%s.%N >> gv_rw_work:bench_marks.txt
step_9=change media
step_10=cmd date +%s.%N >> gv_rw_work:bench_marks.txt
step_11=import ravik_db media
step_12=cmd date +%s.%N >> gv_rw_work:bench_marks.txt
step_13=exit

[1.6.4.media]
ADD_COLUMNS=status
ADD_VALUES='Full'
DEL_COLUMNS=slot
)";

const char* const kCreateTable =
    "create table media (id int primary key, label text not null, pool text, size_mb int, "
    "expires text, slot int, note text)";

// What must survive the round trip: the columns the update keeps.
const char* const kChecksum =
    "select count(*), coalesce(sum(id), 0), count(*) - count(note), "
    "md5(coalesce(string_agg(md5(concat_ws(chr(9), id, label, pool, size_mb, expires, "
    "coalesce(note, '<NULL>'))), '' order by id), '')) from media";

// Deterministic rows of a backup server's media table in COPY text format:
// NULL notes, apostrophes, commas, parentheses and non-ASCII letters.
std::string make_copy_text(long count) {
    static const char* const kPools[] = {"Default", "Daily", "Weekly", "Monthly", "Archive", "Offsite"};
    static const char* const kNotes[] = {"operator's tape", "moved to safe, shelf 3 (left)", "Prüfung ok ✓",
                                         "label damaged", "returned from vault",
                                         "don't reuse: 'worn' (2x)"};
    std::string text;
    text.reserve(static_cast<std::size_t>(count) * 80);
    unsigned long seed = 12345;
    std::array<char, 160> line{};
    for (long i = 1; i <= count; ++i) {
        seed = seed * 6364136223846793005UL + 1442695040888963407UL;
        const char* note = i % 7 == 0 ? "\\N" : kNotes[(seed >> 24) % 6];
        const int n = std::snprintf(line.data(), line.size(),
                                    "%ld\tA%06ldL6\t%s\t%lu\t20%02lu-%02lu-%02lu %02lu:%02lu:00\t%lu\t%s\n", i,
                                    i % 1000000, kPools[(seed >> 33) % 6], (seed >> 16) % 800000,
                                    26 + (seed >> 60), 1 + (seed >> 20) % 12, 1 + (seed >> 30) % 28,
                                    (seed >> 40) % 24, (seed >> 50) % 60, 1 + (seed >> 8) % 500, note);
        text.append(line.data(), static_cast<std::size_t>(n));
    }
    return text;
}

void exec_ok(PGconn* conn, const char* sql, ExecStatusType expected) {
    const Result result(PQexec(conn, sql));
    if (PQresultStatus(result.get()) != expected) {
        throw std::runtime_error(std::string(sql) + ": " + PQerrorMessage(conn));
    }
}

void finish_copy_in(PGconn* conn) {
    if (PQputCopyEnd(conn, nullptr) != 1) {
        throw std::runtime_error(PQerrorMessage(conn));
    }
    const Result end(PQgetResult(conn));
    if (PQresultStatus(end.get()) != PGRES_COMMAND_OK) {
        throw std::runtime_error(PQerrorMessage(conn));
    }
}

// A fresh table of the old release with the rows of `text`, vacuumed (so
// that no reader pays for setting hint bits) and checkpointed.
void fill_table(const std::string& text) {
    query("ravik_db", "drop table if exists media");
    query("ravik_db", kCreateTable);
    const Connection conn = rvbench::connect("ravik_db");
    exec_ok(conn.get(), "COPY media FROM STDIN", PGRES_COPY_IN);
    if (PQputCopyData(conn.get(), text.data(), static_cast<int>(text.size())) != 1) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    finish_copy_in(conn.get());
}

void settle() {
    query("ravik_db", "vacuum analyze media");
    query("ravik_db", "checkpoint");
}

// COPY media TO STDOUT into `file`; returns the seconds taken.
double copy_out(const std::string& file) {
    const Connection conn = rvbench::connect("ravik_db");
    File out = open_file(file, "w");
    const auto start = std::chrono::steady_clock::now();
    exec_ok(conn.get(), "COPY media TO STDOUT", PGRES_COPY_OUT);
    char* buffer = nullptr;
    int n;
    while ((n = PQgetCopyData(conn.get(), &buffer, 0)) > 0) {
        const std::size_t size = static_cast<std::size_t>(n);
        const bool written = std::fwrite(buffer, 1, size, out.get()) == size;
        PQfreemem(buffer);
        if (!written) {
            throw std::runtime_error("cannot write " + file);
        }
    }
    if (n != -1) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    const Result end(PQgetResult(conn.get()));
    if (PQresultStatus(end.get()) != PGRES_COMMAND_OK) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    if (std::fclose(out.release()) != 0) {
        throw std::runtime_error("cannot write " + file);
    }
    return seconds_since(start);
}

// COPY media FROM STDIN out of `file` into the emptied table.
double copy_in(const std::string& file) {
    query("ravik_db", "truncate media");
    query("ravik_db", "checkpoint");
    const Connection conn = rvbench::connect("ravik_db");
    File in = open_file(file, "r");
    std::vector<char> chunk(1 << 16);
    const auto start = std::chrono::steady_clock::now();
    exec_ok(conn.get(), "COPY media FROM STDIN", PGRES_COPY_IN);
    std::size_t n;
    while ((n = std::fread(chunk.data(), 1, chunk.size(), in.get())) > 0) {
        if (PQputCopyData(conn.get(), chunk.data(), static_cast<int>(n)) != 1) {
            throw std::runtime_error(PQerrorMessage(conn.get()));
        }
    }
    finish_copy_in(conn.get());
    return seconds_since(start);
}

void expect_same(const std::vector<std::string>& want, const std::string& after) {
    const std::vector<std::string> got = query_row("ravik_db", kChecksum);
    if (got != want) {
        std::string msg = "the table differs after " + after + ": rows, sum of ids, NULL notes, digest";
        for (std::size_t i = 0; i < want.size(); ++i) {
            msg += "\n  expected " + want[i] + ", got " + (i < got.size() ? got[i] : std::string("(none)"));
        }
        throw std::runtime_error(msg);
    }
}

// The program `name` as the shell finds it in PATH.
std::string in_path(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "";
    for (std::size_t at = 0; at <= dirs.size();) {
        const std::size_t end = std::min(dirs.find(':', at), dirs.size());
        const std::string dir = dirs.substr(at, end - at);
        if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0) {
            return dir + "/" + name;
        }
        at = end + 1;
    }
    throw std::runtime_error(name + " is not in PATH");
}

// A product installation in a sandbox for the tool, with the update script;
// psql and oaisql run under `peaks`.
void prepare_installation(rvtest::Sandbox& box, const rvbench::PeakLog& peaks) {
    box.make_installation();
    box.extra_sections = "[SERVER]\ngv_port_db=" + std::to_string(rvbench::DurableServer::kPort) + "\n";
    box.write_rv_ini();
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini", kUpdateScript);
    fs::create_symlink(rvtest::bin("rv_db"), box.dir("gv_ro_bin") + "rv_db");
    peaks.wrap(box.dir("gv_ro_db") + "oaisql", rvtest::bin("oaisql"));
    peaks.wrap(peaks.bin() + "/psql", in_path("psql"));
    rvtest::write_file(box.dir("gv_rw_glbv") + "gv_prot.rgv", box.path("rw/protocol.log"));
    rvtest::write_file(box.dir("gv_rw_glbv") + "gv_db_type.rgv", "POSTGRESQL");
}

struct Figures {
    double copy_out = 0;
    double copy_in = 0;
    double dump = 0;
    double schema = 0;  // the sql steps between dump and change
    double change = 0;
    double import = 0;
    double tool = 0;  // the whole rv_db_update run
    std::string memory;  // peak resident memory of each program of the run
};

double round_trip(const Figures& f) { return f.dump + f.change + f.import; }
double copy_round_trip(const Figures& f) { return f.copy_out + f.copy_in; }

void require(bool ok, const std::string& what, const rvtest::RunResult& run) {
    if (!ok) {
        throw std::runtime_error(what + "\n--- exit status " + std::to_string(run.status) + ", output:\n" + run.out +
                                 "--- error output:\n" + run.err);
    }
}

// One run of the tool on the filled table, it and its psql and oaisql under
// `peaks`; fills in the step times.
void run_update(rvtest::Sandbox& box, long rows, rvbench::PeakLog& peaks, Figures& f) {
    const std::string marks = box.dir("gv_rw_work") + "bench_marks.txt";
    fs::remove(marks);
    const auto start = std::chrono::steady_clock::now();
    const rvtest::RunResult run =
        rvtest::run(peaks.command({rvtest::bin("rv_db_update"), "update", "1.6.3.20", "1.6.4.71"}),
                    {{"OS", ""}, {"PATH", peaks.bin() + ":" + std::getenv("PATH")}});
    f.memory = peaks.take();
    f.tool = seconds_since(start);
    require(run.status == 0, "rv_db_update failed", run);
    const std::string dumped = "select " + std::to_string(rows) + " rows from media\n";
    require(run.out.find(dumped) != std::string::npos, "the dump did not report " + dumped, run);
    const std::string loaded = "import media returned exit state 0 with 0 errors\n";
    require(run.out.find(loaded) != std::string::npos, "the import did not report " + loaded, run);

    std::vector<double> at;
    for (const std::string& line : rvtest::read_lines(marks)) {
        at.push_back(std::strtod(line.c_str(), nullptr));
    }
    require(at.size() == 5, "expected 5 time marks in " + marks + ", found " + std::to_string(at.size()), run);
    f.dump = at[1] - at[0];
    f.schema = at[2] - at[1];
    f.change = at[3] - at[2];
    f.import = at[4] - at[3];
}

// The load averages over 1, 5 and 15 minutes: other work on the machine.
std::string load_average() {
    const std::string text = rvtest::read_file("/proc/loadavg");
    std::size_t end = 0;
    for (int field = 0; field < 3 && end != std::string::npos; ++field) {
        end = text.find(' ', end + (field > 0 ? 1 : 0));
    }
    return text.substr(0, end);
}

void print_line(const char* what, long rows, double secs, double reference, const char* reference_name) {
    std::printf("  %-32s %8.2f s %10.0f rows/s", what, secs, static_cast<double>(rows) / secs);
    if (reference > 0) {
        std::printf(" %6.2fx %s", secs / reference, reference_name);
    }
    std::printf("\n");
    std::fflush(stdout);
}

Figures measure(rvtest::Sandbox& box, rvbench::PeakLog& peaks, long rows, const std::string& text) {
    Figures f;
    const std::string copy_file = box.dir("gv_rw_tmp") + "media.copy";
    fill_table(text);
    settle();
    const std::vector<std::string> want = query_row("ravik_db", kChecksum);
    if (want.empty() || want[0] != std::to_string(rows)) {
        throw std::runtime_error("the table was not filled with " + std::to_string(rows) + " rows");
    }

    f.copy_out = copy_out(copy_file);
    f.copy_in = copy_in(copy_file);
    expect_same(want, "COPY TO and COPY FROM");
    fs::remove(copy_file);
    settle();

    run_update(box, rows, peaks, f);
    expect_same(want, "the update");
    const std::string full = query("ravik_db", "select count(*) from media where status = 'Full'");
    const std::string slot =
        query("ravik_db", "select count(*) from information_schema.columns where table_name = 'media' and "
                          "column_name = 'slot'");
    if (full != std::to_string(rows) || slot != "0") {
        throw std::runtime_error("the change was not applied: " + full + " rows with status Full, column slot " +
                                 (slot == "0" ? "gone" : "still there"));
    }
    fs::remove(box.dir("gv_rw_work") + "db_media.tmp");

    print_line("COPY TO (out)", rows, f.copy_out, 0, "");
    print_line("COPY FROM (in)", rows, f.copy_in, 0, "");
    print_line("dump", rows, f.dump, f.copy_out, "COPY TO");
    print_line("change", rows, f.change, 0, "");
    print_line("import", rows, f.import, f.copy_in, "COPY FROM");
    print_line("dump + change + import", rows, round_trip(f), copy_round_trip(f), "COPY out + in");
    std::printf("  %-32s %8.2f s\n", "(truncate, alter, checkpoint)", f.schema);
    std::printf("  %-32s %8.2f s\n", "(whole rv_db_update run)", f.tool);
    std::printf("  %-32s %s\n", "peak resident memory", f.memory.c_str());
    std::fflush(stdout);
    return f;
}

// Smallest, median and largest of each figure over the repeats, and the
// ratio of the medians to the server's own path.
void summary(long rows, const std::vector<Figures>& runs) {
    const auto min_median_max = [&](double (*field)(const Figures&)) {
        std::vector<double> v;
        for (const Figures& f : runs) {
            v.push_back(field(f));
        }
        std::sort(v.begin(), v.end());
        return std::array<double, 3>{v.front(), v[v.size() / 2], v.back()};
    };
    const auto spread = [&](const char* what, double (*field)(const Figures&), double (*reference)(const Figures&),
                            const char* reference_name) {
        const std::array<double, 3> v = min_median_max(field);
        std::printf("  %-24s %6.2f %6.2f %6.2f s %10.0f rows/s  spread %5.1f%%", what, v[0], v[1], v[2],
                    static_cast<double>(rows) / v[1], 100.0 * (v[2] - v[0]) / v[1]);
        if (reference != nullptr) {
            std::printf("  %5.2fx %s", v[1] / min_median_max(reference)[1], reference_name);
        }
        std::printf("\n");
    };
    using F = const Figures&;
    const auto copy_out_of = [](F f) { return f.copy_out; };
    const auto copy_in_of = [](F f) { return f.copy_in; };
    std::printf("%ld rows over %zu runs: min, median, max; rows per second and ratio of the medians\n", rows,
                runs.size());
    spread("COPY TO (out)", copy_out_of, nullptr, "");
    spread("COPY FROM (in)", copy_in_of, nullptr, "");
    spread("dump", [](F f) { return f.dump; }, copy_out_of, "COPY TO");
    spread("change", [](F f) { return f.change; }, nullptr, "");
    spread("import", [](F f) { return f.import; }, copy_in_of, "COPY FROM");
    spread("dump + change + import", round_trip, copy_round_trip, "COPY out + in");
    spread("whole rv_db_update run", [](F f) { return f.tool; }, nullptr, "");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<long> sizes;
    int repeats = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-r" && i + 1 < argc) {
            repeats = std::max(1, std::atoi(argv[++i]));
        } else if (const long n = std::atol(arg.c_str()); n > 0) {
            sizes.push_back(n);
        } else {
            std::fprintf(stderr, "usage: bench_update [ROWS ...] [-r REPEATS]\n");
            return 1;
        }
    }
    if (sizes.empty()) {
        sizes = {100000, 1000000, 5000000};
    }
    try {
        const rvbench::DurableServer server;
        query("postgres", "create database ravik_db");
        std::printf("server: fsync %s, synchronous_commit %s\n", query("ravik_db", "show fsync").c_str(),
                    query("ravik_db", "show synchronous_commit").c_str());
        rvtest::Sandbox box;
        rvbench::PeakLog peaks(box.path("peak"));
        prepare_installation(box, peaks);
        for (const long n : sizes) {
            const std::string text = make_copy_text(n);
            std::vector<Figures> runs;
            for (int r = 1; r <= repeats; ++r) {
                std::printf("%ld rows, run %d of %d (load average %s)\n", n, r, repeats,
                            load_average().c_str());
                runs.push_back(measure(box, peaks, n, text));
            }
            if (repeats > 1) {
                summary(n, runs);
            }
        }
        std::printf("load average at the end: %s\n", load_average().c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_update: %s\n", e.what());
        return 1;
    }
    return 0;
}
