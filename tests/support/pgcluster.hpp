// The servers of the database tests. pgcluster.sh starts a throwaway
// PostgreSQL server (ctest: once per run, in the test pgcluster_start) and
// writes the environment that reaches it into the state file named by
// RV_TEST_PGCLUSTER. The tests, psql and the loader reach it through that
// environment; the update and export tools find its port in rv.ini.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>
#include <system_error>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace rvtest {

// Exports the server's environment (PGHOST, PGPORT, PGUSER; RVPG_BIN, its
// programs) to this process and its children; returns the port. Throws
// std::runtime_error when there is no server.
int pg_port();
// Runs pgcluster.sh `command` ("crash" or "restart"); true when it
// succeeded. A crash while the server's process `held` is stopped (SIGSTOP)
// lets it go on only once the server has told it to quit, so that it cannot
// write anything first.
bool pg_cluster(const std::string& command, pid_t held = 0);

// Rows of a query, NULL fields as nullopt.
using PgRows = std::vector<std::vector<std::optional<std::string>>>;
// Runs `sql` on database `db`; throws with the server's message on failure.
PgRows pg_query(const std::string& db, const std::string& sql);
// Creates database `name` anew (ending its sessions) from template0 with
// `encoding` and the C locale.
void pg_recreate_db(const std::string& name, const std::string& encoding = "UTF8");

// The environment of the programs under test: the port only from rv.ini.
inline const Env kToolEnv{{"OS", ""}, {"PGPORT", ""}};
// What a program writes on standard error when SIGQUIT (or halt) ends a statement.
inline const std::string kQuitLine =
    "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n";
// Runs `argv` with kToolEnv and sends it SIGQUIT once a session runs `query`,
// a statement of five seconds; fails the test when the server still runs it
// once the program has ended.
RunResult quit_during(const std::vector<std::string>& argv, const std::string& query);

// Base of the database tests: an installation whose rv.ini names the
// server's port, its protocol file, and a fresh database ravik_db.
class DbTest : public ::testing::Test {
  protected:
    void SetUp() override;
    // Runs the built program `name` with `args` and kToolEnv.
    static RunResult tool(const std::string& name, std::vector<std::string> args) {
        args.insert(args.begin(), bin(name));
        return run(args, kToolEnv);
    }
    Sandbox box;
    std::string prot;
};

// A server that takes connections and never answers: a unix socket named
// like the server's, <dir>/.s.PGSQL.<port>, that listens but is never read.
// The kernel completes a client's connection into its queue, and the
// client's first message waits there unread.
struct SilentServer {
    SilentServer(const std::string& dir, int port) : path(dir + "/.s.PGSQL." + std::to_string(port)) {
        sockaddr_un addr{AF_UNIX, {}};
        if (path.size() >= sizeof addr.sun_path) throw std::length_error("socket path too long: " + path);
        path.copy(addr.sun_path, path.size());
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot listen on " + path);
        }
    }
    ~SilentServer() { close(fd), unlink(path.c_str()); }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    const std::string path;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
};

}  // namespace rvtest
