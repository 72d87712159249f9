#include "support/pgcluster.hpp"

#include <libpq-fe.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "db/session.hpp"

namespace rvtest {

const PgServer& pg_server() {
    static PgServer server;
    if (server.port != 0) {
        return server;
    }
    std::string state;
    if (const char* file = std::getenv("RV_TEST_PGCLUSTER")) {
        state = file;
    } else {
        state = (std::filesystem::temp_directory_path() / "rvpg.XXXXXX").string();
        close(mkstemp(state.data()));
        const RunResult r =
            run({"/bin/sh", RV_PGCLUSTER_SCRIPT, "start", state, std::to_string(getpid())});
        if (r.status != 0) {
            throw std::runtime_error("the database test server did not start:\n" + r.out + r.err);
        }
    }
    std::ifstream in(state);
    std::string port;
    if (!std::getline(in, server.socket_dir) || !std::getline(in, server.bindir) ||
        !std::getline(in, port)) {
        throw std::runtime_error("the database test server was not started: no state in " + state +
                                 " (did the fixture test pgcluster_start fail?)");
    }
    server.port = std::atoi(port.c_str());
    if (std::getenv("RV_TEST_PGCLUSTER") == nullptr) {
        std::filesystem::remove(state);
    }
    setenv("PGHOST", server.socket_dir.c_str(), 1);
    setenv("PGUSER", server.user.c_str(), 1);
    return server;
}

PgRows pg_query(const std::string& db, const std::string& sql) {
    const PgServer& server = pg_server();
    const std::string conninfo = "host=" + server.socket_dir +
                                 " port=" + std::to_string(server.port) + " user=" + server.user +
                                 " dbname=" + db;
    rv::PgConnPtr conn(PQconnectdb(conninfo.c_str()));
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        throw std::runtime_error("cannot connect to " + db + ": " + PQerrorMessage(conn.get()));
    }
    PQsetNoticeProcessor(
        conn.get(), [](void*, const char*) {}, nullptr);
    rv::PgResultPtr res(PQexec(conn.get(), sql.c_str()));
    const ExecStatusType status = PQresultStatus(res.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw std::runtime_error("statement failed: " + sql + ": " + PQerrorMessage(conn.get()));
    }
    PgRows rows(static_cast<std::size_t>(PQntuples(res.get())));
    for (int row = 0; row < PQntuples(res.get()); ++row) {
        for (int col = 0; col < PQnfields(res.get()); ++col) {
            auto& field = rows[static_cast<std::size_t>(row)].emplace_back();
            if (!PQgetisnull(res.get(), row, col)) {
                field.emplace(PQgetvalue(res.get(), row, col),
                              static_cast<std::size_t>(PQgetlength(res.get(), row, col)));
            }
        }
    }
    return rows;
}

void pg_recreate_db(const std::string& name, const std::string& encoding) {
    pg_query("postgres", "DROP DATABASE IF EXISTS " + name + " WITH (FORCE)");
    pg_query("postgres", "CREATE DATABASE " + name + " TEMPLATE template0 ENCODING '" + encoding +
                             "' LC_COLLATE 'C' LC_CTYPE 'C'");
}

bool wait_for_active_query(const std::string& query, int timeout_ms) {
    constexpr int kStepMs = 20;
    std::string quoted;
    for (const char c : query) {
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    }
    const std::string sql =
        "select count(*) from pg_stat_activity where state = 'active' and query = '" + quoted + "'";
    for (int waited = 0; waited < timeout_ms; waited += kStepMs) {
        if (pg_query("postgres", sql).at(0).at(0) != "0") {
            return true;
        }
        usleep(kStepMs * 1000);
    }
    return false;
}

void point_at_server(Sandbox& box) {
    const std::string key = "gv_port_db=";
    const std::string port = std::to_string(pg_server().port);
    std::string& extra = box.extra_sections;
    if (const auto pos = extra.find(key); pos != std::string::npos) {
        extra.replace(pos, extra.find('\n', pos) - pos, key + port);
    } else {
        extra += "[SERVER]\n" + key + port + "\n";
    }
    box.write_rv_ini();
}

}  // namespace rvtest
