#include "bench_server.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <map>
#include <algorithm>
#include <cstdio>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace rvbench {

namespace fs = std::filesystem;

namespace {

void ignore_notice(void* /*arg*/, const char* /*message*/) {}

Result checked(const std::string& db, const std::string& sql) {
    const Connection conn = connect(db);
    Result result(PQexec(conn.get(), sql.c_str()));
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw std::runtime_error(sql + ": " + PQresultErrorMessage(result.get()));
    }
    return result;
}

}  // namespace

Connection connect(const std::string& db) {
    Connection conn(PQconnectdb(("dbname=" + db).c_str()));
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    PQsetNoticeProcessor(conn.get(), ignore_notice, nullptr);
    return conn;
}

std::string query(const std::string& db, const std::string& sql) {
    const Result result = checked(db, sql);
    return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
}

std::vector<std::string> query_row(const std::string& db, const std::string& sql) {
    const Result result = checked(db, sql);
    std::vector<std::string> row;
    if (PQntuples(result.get()) > 0) {
        for (int i = 0; i < PQnfields(result.get()); ++i) {
            row.emplace_back(PQgetvalue(result.get(), 0, i));
        }
    }
    return row;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

DurableServer::DurableServer() {
    for (const auto& entry : fs::directory_iterator("/usr/lib/postgresql")) {
        if (fs::exists(entry.path() / "bin/initdb")) {
            bindir_ = (entry.path() / "bin").string();
        }
    }
    if (bindir_.empty()) {
        throw std::runtime_error("no PostgreSQL server programs under /usr/lib/postgresql");
    }
    std::string dir = (fs::temp_directory_path() / "rvbench.XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir_ = dir;
    if (geteuid() == 0) {
        const passwd* pw = getpwnam("postgres");
        if (pw == nullptr || chown(dir_.c_str(), pw->pw_uid, pw->pw_gid) != 0) {
            throw std::runtime_error("cannot hand " + dir_ + " to user postgres");
        }
    }
    const std::string port = std::to_string(kPort);
    must(as_server({bindir_ + "/initdb", "-D", dir_ + "/data", "-U", "postgres", "-A", "trust", "-E",
                    "UTF8", "--locale=C", "-N"}));
    must(as_server({bindir_ + "/pg_ctl", "-D", dir_ + "/data", "-l", dir_ + "/server.log", "-w", "-o",
                    "-c listen_addresses='' -k " + dir_ + " -p " + port, "start"}));
    running_ = true;
    start_watchdog();
    setenv("PGHOST", dir_.c_str(), 1);
    setenv("PGPORT", port.c_str(), 1);
    setenv("PGUSER", "postgres", 1);
}

DurableServer::~DurableServer() {
    if (running_) {
        rvtest::run(as_server({bindir_ + "/pg_ctl", "-D", dir_ + "/data", "-m", "fast", "-w", "stop"}));
    }
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

// A process that stops the server and removes its directory once this one
// has ended in whatever way (interrupted, killed by a closed pipe).
void DurableServer::start_watchdog() {
    std::array<int, 2> fds{-1, -1};
    if (pipe2(fds.data(), O_CLOEXEC) != 0) {
        return;  // without a watchdog only a normal end cleans up
    }
    std::string script = "read _;";
    for (const auto& arg :
         as_server({bindir_ + "/pg_ctl", "-D", dir_ + "/data", "-m", "fast", "-w", "stop"})) {
        script += " '" + arg + "'";
    }
    script += " >/dev/null 2>&1; rm -rf '" + dir_ + "'";
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        dup2(fds[0], 0);
        execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[0]);
    watchdog_pipe_ = fds[1];  // closed only when this process ends
}

std::vector<std::string> DurableServer::as_server(std::vector<std::string> argv) {
    if (geteuid() == 0) {
        argv.insert(argv.begin(), {"/usr/sbin/runuser", "-u", "postgres", "--"});
    }
    return argv;
}

void DurableServer::must(const std::vector<std::string>& argv) {
    const rvtest::RunResult result = rvtest::run(argv);
    if (result.status != 0) {
        throw std::runtime_error(argv.front() + " failed: " + result.out + result.err);
    }
}

PeakLog::PeakLog(const std::string& dir)
    : dir_(dir), log_(dir + "/peaks.log"), peak_((fs::read_symlink("/proc/self/exe").parent_path() / "bench_peak").string()) {
    fs::create_directories(bin());
}

std::vector<std::string> PeakLog::command(std::vector<std::string> argv) const {
    argv.insert(argv.begin(), {peak_, log_});
    return argv;
}

void PeakLog::wrap(const std::string& path, const std::string& program) const {
    fs::remove(path);
    rvtest::write_file(path, "#!/bin/sh\nexec '" + peak_ + "' '" + log_ + "' '" + program + "' \"$@\"\n");
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
}

std::string PeakLog::take() {
    std::map<std::string, long> peaks;
    for (const std::string& line : rvtest::read_lines(log_)) {
        const auto blank = line.rfind(' ');
        if (blank != std::string::npos) {
            long& peak = peaks[line.substr(0, blank)];
            peak = std::max(peak, std::atol(line.c_str() + blank + 1));
        }
    }
    fs::remove(log_);
    std::string text;
    for (const auto& [name, kb] : peaks) {
        char figure[64];
        std::snprintf(figure, sizeof figure, "%s%s %.1f MB", text.empty() ? "" : ", ", name.c_str(), kb / 1024.0);
        text += figure;
    }
    return text.empty() ? "(none)" : text;
}

}  // namespace rvbench
