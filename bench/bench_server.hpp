// What the benchmarks share: a throwaway durable PostgreSQL server of their
// own and a few libpq helpers. The server is durable as in production (fsync
// and synchronous commit on), unlike the test server, because the cost of a
// commit decides the results.
#pragma once

#include <libpq-fe.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace rvbench {

struct ConnectionCloser {
    void operator()(PGconn* conn) const { PQfinish(conn); }
};
struct ResultClearer {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultClearer>;
using Connection = std::unique_ptr<PGconn, ConnectionCloser>;

// A session with database `db` of the server the environment names;
// notices are dropped. Throws when it cannot connect.
Connection connect(const std::string& db);

// First field of the answer to `sql` ("" when there is none). Throws with
// the server's message when the statement fails.
std::string query(const std::string& db, const std::string& sql);

// All fields of the first row of the answer to `sql` (NULL as "").
std::vector<std::string> query_row(const std::string& db, const std::string& sql);

double seconds_since(std::chrono::steady_clock::time_point start);

// A throwaway durable server in a temporary directory, reached through a
// unix socket there (PGHOST, PGPORT and PGUSER are set for the children).
// A watchdog process stops it and removes the directory should this
// process end without the destructor having run.
class DurableServer {
  public:
    DurableServer();
    ~DurableServer();
    DurableServer(const DurableServer&) = delete;
    DurableServer& operator=(const DurableServer&) = delete;

    static constexpr int kPort = 5432;
    // The directory holding the socket (PGHOST).
    const std::string& socket_dir() const { return dir_; }

  private:
    void start_watchdog();
    static std::vector<std::string> as_server(std::vector<std::string> argv);
    static void must(const std::vector<std::string>& argv);

    std::string bindir_;
    std::string dir_;
    bool running_ = false;
    int watchdog_pipe_ = -1;
};

// The peak resident memory of every process of a run: programs started
// under bench_peak (directly, or through a wrapper script of the same name
// in dir()/bin, put first in PATH or in the program's place) append their
// peak to one log.
class PeakLog {
  public:
    explicit PeakLog(const std::string& dir);
    // `argv` run under bench_peak.
    std::vector<std::string> command(std::vector<std::string> argv) const;
    // Writes the wrapper `path` that runs `program` under bench_peak.
    void wrap(const std::string& path, const std::string& program) const;
    // The directory of wrappers named like the programs they run.
    std::string bin() const { return dir_ + "/bin"; }
    // "name N MB, ..." with the largest peak of each program since the last
    // call, and the log emptied.
    std::string take();

  private:
    std::string dir_;
    std::string log_;
    std::string peak_;  // the bench_peak program
};

}  // namespace rvbench
