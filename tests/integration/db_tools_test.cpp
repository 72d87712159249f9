// The programs against a real server, finding its port in rv.ini: the export
// tool rv_db (export text round trip, record list, refusals and failures,
// SIGQUIT) and rv_db_update set_params_fix.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "db/access.hpp"
#include "support/pgcluster.hpp"
#include "support/silent_server.hpp"

namespace {

using rvtest::kQuitLine;
using rvtest::pg_query;
using rvtest::PgRows;
using Lines = std::vector<std::string>;

using DbTools = rvtest::DbTest;

TEST_F(DbTools, ExportTextRestoresTheRows) {
    pg_query("ravik_db",
             "create table t (id int, name text, note text, day date, amount numeric);"
             "insert into t values (1, 'a|b', NULL, '2006-10-18', 1.5), "
             "(2, '', 'it''s x=y', NULL, NULL), (3, 'NULL', ' blank ', '1999-12-31', -7);"
             "create table e (id int)");
    const std::string select = "select * from t order by id";
    const auto before = pg_query("ravik_db", select);
    const auto exported = tool("rv_db", {"select * from t", "-e"});
    ASSERT_EQ(exported.status, 0) << exported.err;
    // A quote inside a value is doubled, so the line loads as the same value.
    const std::string insert = "INSERT INTO t (id,name,note,day,amount) VALUES ";
    EXPECT_EQ(exported.out, insert + "('1','a|b',NULL,'2006-10-18','1.5');\n" + insert +
                                "('2','','it''s x=y',NULL,NULL);\n" + insert +
                                "('3','NULL',' blank ','1999-12-31','-7');\n\n-- 3 rows found \n");
    // An empty table exports as the closing line alone, which loads nothing.
    const auto empty = tool("rv_db", {"-e", "select * from e;"});
    EXPECT_EQ(empty.out, "\n-- 0 rows found \n");

    const std::string file = box.dir("gv_rw_work") + "db_t.tmp";
    rvtest::write_file(file, exported.out + empty.out);
    pg_query("ravik_db", "delete from t");
    const std::string psql = std::getenv("RVPG_BIN") + std::string("/psql");
    const auto loaded = rvtest::run({psql, "-X", "-q", "-v", "ON_ERROR_STOP=1", "-d", "ravik_db", "-f", file});
    ASSERT_EQ(loaded.status, 0) << loaded.out << loaded.err;
    EXPECT_EQ(pg_query("ravik_db", select), before);
}

TEST_F(DbTools, AnswersRefusalsAndFailures) {
    pg_query("ravik_db", "create table t (id int, name text);"
                         "create table media_retention_history_archive (id int)");
    std::string longest = "select 7 as v";
    longest.resize(rv::kSqlStatementMax, ' ');
    const struct {
        Lines args;
        int status;
        std::string out;
        Lines err;  // in this order on standard error
    } cases[] = {
        {{"insert into t values (1, 'a|b'), (2, NULL)"}, 0, "2\n", {}},
        {{"SELECT * FROM t ORDER BY id"}, 0, "|id=1|name=a|b|\n|id=2|name=NULL|\n-- 2 rows found\n", {}},
        {{"select count(*) from t", "-e"}, 0, "2\n", {}},
        // A stray quote is stored as the accent (a UTF8 database here).
        {{"update t set name='it's' where id=1"}, 0, "1\n", {}},
        // A statement over 1023 bytes is refused, never cut.
        {{longest}, 0, "|v=7|\n-- 1 rows found\n", {}},
        {{longest + "from nosuch"}, 2, "",
         {"DB_ACCESS: statement of 1034 bytes refused, at most 1023 bytes can be sent\n",
          "rv_db: the statement failed"}},
        {{"select * from nosuch", "-e"}, 2, "",
         {"query error:  ERROR:  relation \"nosuch\" does not exist", kQuitLine, "rv_db: the statement failed"}},
        {{"select now()", "-e"}, 2, "", {"rv_db: the statement failed: PSQL_DO_SQL: no table name"}},
        // A table name the export text cannot carry whole is refused, not cut.
        {{"select * from media_retention_history_archive", "-e"}, 2, "",
         {"table name media_retention_history_archive longer than 29 characters"}},
        {{}, 1, "", {"rv_db: no statement given\nUsage:\n"}},
        {{"select 1", "select 2"}, 1, "", {"rv_db: only one statement, found a second: select 2\nUsage:\n"}},
    };
    for (const auto& c : cases) {
        const auto r = tool("rv_db", c.args);
        EXPECT_EQ(r.status, c.status) << ::testing::PrintToString(c.args) << r.err;
        EXPECT_EQ(r.out, c.out) << ::testing::PrintToString(c.args);
        std::size_t at = 0;
        for (const auto& text : c.err) {
            at = r.err.find(text, at);
            EXPECT_NE(at, std::string::npos) << text << " in\n" << r.err;
        }
    }
    EXPECT_EQ(pg_query("ravik_db", "select name = 'it' || chr(180) || 's' from t where id = 1"), PgRows{{"t"}});
    const auto help = tool("rv_db", {"-h"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with("Usage:\n")) << help.out;
}

TEST_F(DbTools, SigquitEndsTheStatementNotTheTool) {
    const auto r = rvtest::quit_during({rvtest::bin("rv_db"), "select pg_sleep(5)"}, "select pg_sleep(5)");
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_TRUE(r.err.starts_with(kQuitLine)) << r.err;
    EXPECT_NE(r.err.find("rv_db: the statement failed"), std::string::npos) << r.err;
    // Not left running on the server either.
    EXPECT_EQ(pg_query("postgres", "select count(*) from pg_stat_activity where query = 'select pg_sleep(5)'"),
              PgRows{{"0"}});
}

// A server that takes the connection and never answers: connecting ends at
// PGCONNECT_TIMEOUT, reported as a failed connection, by the export tool and
// by the statements of set_params_fix (which go on).
TEST_F(DbTools, SilentServerEndsAtTheConnectTimeout) {
    const rvtest::SilentServer silent(box.root().string(), rvtest::pg_port());
    rvtest::Env env = rvtest::kToolEnv;
    env["PGHOST"] = box.root().string();
    env["PGCONNECT_TIMEOUT"] = "2";
    const std::string reason = "timeout expired: no answer from the server within 2 seconds (connect_timeout)";
    const auto r = rvtest::run({rvtest::bin("rv_db"), "select 1"}, env);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Connection to database using 'dbname=ravik_db' failed.\n" + reason + "\n" + kQuitLine +
                         "rv_db: the statement failed (reason above): select 1\n");

    const auto set = rvtest::run({rvtest::bin("rv_db_update"), "set_params_fix"}, env);
    EXPECT_EQ(set.status, 0) << set.err;
    const std::string failed = "' where kunde='QOR-RAVIK'\n got error from statement: " + reason + "\n";
    const auto first = set.out.find(failed);
    ASSERT_NE(first, std::string::npos) << set.out;
    EXPECT_NE(set.out.find(failed, first + 1), std::string::npos) << set.out;
}

TEST_F(DbTools, SetParamsFixStampsVersionAndDateOrReportsAndGoesOn) {
    const std::string version = "update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'";
    const std::string failed = "\n got error from statement: ERROR: relation \"params_fix\" does not exist\n";
    // Without the table both statements fail, are reported, and the run goes on.
    auto r = tool("rv_db_update", {"set_params_fix"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("STATUS="), std::string::npos) << r.out;
    const auto at = r.out.find(version + failed);
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NE(r.out.find("' where kunde='QOR-RAVIK'" + failed, at + version.size()), std::string::npos) << r.out;
    EXPECT_EQ(rvtest::protocol_texts(prot).at(0),
              "E018-DATABAS " + version + " with unexpected result: ERROR: relation \"params_fix\" does not exist.");

    pg_query("ravik_db", "create table params_fix (version text, update_date text, kunde text); insert into "
                         "params_fix values ('1.6.3.20', '200001010000', 'QOR-RAVIK'), ('0', '0', 'other')");
    const auto stamp = [] {
        const std::time_t now = std::time(nullptr);
        char text[16];
        return std::string(text, std::strftime(text, sizeof text, "%Y%m%d%H%M", std::localtime(&now)));
    };
    const std::string before = stamp();
    r = tool("rv_db_update", {"set_params_fix"});
    const std::string after = stamp();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    const auto rows = pg_query("ravik_db", "select version, update_date, kunde from params_fix order by kunde");
    const std::string date = rows.at(0).at(1).value_or("");
    EXPECT_TRUE(date == before || date == after) << date;
    EXPECT_EQ(rows, (PgRows{{"1.6.4.71", date, "QOR-RAVIK"}, {"0", "0", "other"}}));
    EXPECT_NE(r.out.find(version + "\nupdate params_fix set update_date='" + date + "' where kunde='QOR-RAVIK'\n"),
              std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("got error"), std::string::npos) << r.out;
}

}  // namespace
