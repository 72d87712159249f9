#include "support/pgcluster.hpp"

#include <libpq-fe.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "db/session.hpp"

namespace rvtest {

int pg_port() {
    static const int port = [] {
        const char* state = std::getenv("RV_TEST_PGCLUSTER");
        std::ifstream in(state ? state : "");
        int found = 0;
        for (std::string line; std::getline(in, line);) {
            if (const auto eq = line.find('='); eq != std::string::npos) {
                setenv(line.substr(0, eq).c_str(), line.c_str() + eq + 1, 1);
                found = line.starts_with("PGPORT=") ? std::atoi(line.c_str() + eq + 1) : found;
            }
        }
        if (found != 0) return found;
        throw std::runtime_error("no database test server: run the Db tests through ctest, or set "
                                 "RV_TEST_PGCLUSTER to the state file of pgcluster.sh start");
    }();
    return port;
}

bool pg_cluster(const std::string& command, pid_t held) {
    pg_port();
    Background cluster({"/bin/sh", RV_PGCLUSTER_SH, command, std::getenv("RV_TEST_PGCLUSTER")});
    const bool told = held == 0 || eventually([held] {
        // The signals pending for the process, in hexadecimal, bit n - 1 for signal n.
        std::ifstream status("/proc/" + std::to_string(held) + "/status");
        unsigned long long pending = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("ShdPnd:") || line.starts_with("SigPnd:"))
                pending |= std::stoull(line.substr(7), nullptr, 16);
        }
        return (pending & (1ULL << (SIGQUIT - 1))) != 0;
    });
    if (held != 0) kill(held, SIGCONT);
    return cluster.wait().status == 0 && told;
}

PgRows pg_query(const std::string& db, const std::string& sql) {
    pg_port();
    rv::PgConnPtr conn(PQconnectdb(("dbname=" + db).c_str()));
    PQsetNoticeProcessor(conn.get(), [](void*, const char*) {}, nullptr);
    rv::PgResultPtr res(PQexec(conn.get(), sql.c_str()));
    if (const auto status = PQresultStatus(res.get()); status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw std::runtime_error("statement failed in " + db + ": " + sql + ": " + PQerrorMessage(conn.get()));
    }
    PgRows rows(static_cast<std::size_t>(PQntuples(res.get())));
    for (std::size_t row = 0; row < rows.size(); ++row) {
        for (int col = 0, r = static_cast<int>(row); col < PQnfields(res.get()); ++col) {
            rows[row].push_back(PQgetisnull(res.get(), r, col) ? std::nullopt
                                : std::optional<std::string>(PQgetvalue(res.get(), r, col)));
        }
    }
    return rows;
}

void pg_recreate_db(const std::string& name, const std::string& encoding) {
    pg_query("postgres", "DROP DATABASE IF EXISTS " + name + " WITH (FORCE)");
    pg_query("postgres", "CREATE DATABASE " + name + " TEMPLATE template0 ENCODING '" + encoding +
                             "' LC_COLLATE 'C' LC_CTYPE 'C'");
}

RunResult quit_during(const std::vector<std::string>& argv, const std::string& query) {
    Background program(argv, kToolEnv);
    const std::string active =
        "select count(*) from pg_stat_activity where state = 'active' and query = $q$" + query + "$q$";
    if (!eventually([&] { return pg_query("postgres", active).at(0).at(0) != "0"; }))
        throw std::runtime_error("no session ever ran " + query);
    kill(program.pid(), SIGQUIT);
    RunResult r = program.wait();
    // Cut short, not left to run out: the server no longer runs it.
    EXPECT_EQ(pg_query("postgres", active).at(0).at(0), "0") << "the statement was not cancelled";
    return r;
}

void DbTest::SetUp() {
    box.make_installation();
    std::string& extra = box.extra_sections;
    const auto at = extra.find("gv_port_db=") + 11;
    extra.replace(at, extra.find('\n', at) - at, std::to_string(pg_port()));
    box.write_rv_ini();
    prot = box.use_protocol();
    pg_recreate_db("ravik_db");
}

}  // namespace rvtest
