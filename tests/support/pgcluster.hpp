// A throwaway PostgreSQL server for the database tests: initdb and pg_ctl
// into a temporary directory, reachable only through a unix socket in that
// directory, on a free port. As root the server runs as user postgres
// (through runuser), because PostgreSQL refuses to run as root.
//
// Under ctest one server serves the whole run: the fixture test
// "pgcluster_start" starts it and writes a state file, which the database
// tests find through the environment variable RV_TEST_PGCLUSTER, and
// "pgcluster_stop" stops it, whatever the tests did. A test program run by
// hand starts its own server on first use and stops it when it ends; a
// watchdog process stops it should the program die first.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace rvtest {

// Where a running server is reached.
struct PgServer {
    std::string socket_dir;  // PGHOST
    int port = 0;
    std::string user = "postgres";
    std::string bindir;  // the server's programs, psql among them
};

class PgCluster {
  public:
    // Starts a cluster; throws std::runtime_error, with the server's log,
    // when it cannot. A watchdog process stops the cluster once process
    // `guard` has ended without stop() having been called: this process (at
    // once, through a pipe), or another one such as the ctest run that asked
    // for the cluster (checked every second).
    explicit PgCluster(pid_t guard);
    ~PgCluster();
    PgCluster(const PgCluster&) = delete;
    PgCluster& operator=(const PgCluster&) = delete;

    // Stops the server and removes its directory (only in the process that
    // started it; a forked child leaves it alone). Idempotent.
    void stop();

    // Leaves the server running for another process to stop (through the
    // state file); this object no longer stops it. The watchdog stays.
    void detach() {
        running_ = false;
        watchdog_ = -1;
    }

    const PgServer& server() const { return server_; }

    // Writes the state file that stop_saved_cluster and pg_server read.
    void save(const std::string& state_file) const;

  private:
    PgServer server_;
    std::string root_;
    std::string bindir_;
    pid_t owner_ = 0;
    pid_t watchdog_ = -1;
    int watchdog_pipe_ = -1;
    bool running_ = false;
};

// Stops and removes the cluster a state file describes, and the file.
// Returns false when there was no such file.
bool stop_saved_cluster(const std::string& state_file);

// The server of this test run (see above). Exports PGHOST and PGUSER for
// the programs the tests start. Throws when no server can be had.
const PgServer& pg_server();

// Rows of a query, NULL fields as nullopt.
using PgRows = std::vector<std::vector<std::optional<std::string>>>;

// Runs `sql` on database `db` of pg_server(). Throws with the server's
// message when the statement fails.
PgRows pg_query(const std::string& db, const std::string& sql);

// Drops database `name` (ending its sessions) and creates it anew from
// template0 with `encoding` and the C locale.
void pg_recreate_db(const std::string& name, const std::string& encoding = "UTF8");

// Waits until a session runs exactly `query`; false after `timeout_ms`.
bool wait_for_active_query(const std::string& query, int timeout_ms);

// Sets [SERVER] gv_port_db of the sandbox's rv.ini to pg_server()'s port
// (make_installation writes the standard port there).
void point_at_server(Sandbox& box);

// A program run in the background, its output collected in files.
class Background {
  public:
    // `argv[0]` is the program path; `env` as for run().
    explicit Background(const std::vector<std::string>& argv,
                        const std::map<std::string, std::string>& env = {});
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t pid() const { return pid_; }
    // Waits for the program to end.
    RunResult wait();

  private:
    pid_t pid_ = -1;
    std::string out_file_;
    std::string err_file_;
};

}  // namespace rvtest
