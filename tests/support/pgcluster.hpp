// The throwaway PostgreSQL server of the database tests (see pgcluster.sh).
// Under ctest the fixture test pgcluster_start starts one for the whole run
// and the tests find its state file through RV_TEST_PGCLUSTER; a test
// program run by hand starts its own on first use, stopped by the watchdog
// once the program has ended.
#pragma once

#include <optional>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace rvtest {

struct PgServer {
    std::string socket_dir;  // PGHOST, also the cluster's directory
    std::string bindir;      // the server's programs, psql among them
    int port = 0;
    std::string user = "postgres";
};

// The server of this test run; exports PGHOST and PGUSER for the programs
// the tests start. Throws std::runtime_error when there is none.
const PgServer& pg_server();

// Rows of a query, NULL fields as nullopt.
using PgRows = std::vector<std::vector<std::optional<std::string>>>;
// Runs `sql` on database `db`; throws with the server's message on failure.
PgRows pg_query(const std::string& db, const std::string& sql);
// Creates database `name` anew (ending its sessions) from template0 with
// `encoding` and the C locale.
void pg_recreate_db(const std::string& name, const std::string& encoding = "UTF8");
// Waits until a session runs exactly `query`; false after `timeout_ms`.
bool wait_for_active_query(const std::string& query, int timeout_ms);
// Points [SERVER] gv_port_db of the sandbox's rv.ini at pg_server().
void point_at_server(Sandbox& box);

}  // namespace rvtest
