// The programs against a real server, finding its port in rv.ini: the export
// tool rv_db (export text round trip, record list, refusals and failures,
// SIGQUIT) and rv_db_update set_params_fix.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>

#include "db/access.hpp"
#include "support/pgcluster.hpp"

namespace {

using rvtest::kQuitLine;
using rvtest::pg_query;
using rvtest::PgRows;
using Lines = std::vector<std::string>;
using DbTools = rvtest::DbTest;

// Exit status, standard output and standard error, to compare at once.
auto all(const rvtest::RunResult& r) { return std::tie(r.status, r.out, r.err); }

// The statements of set_params_fix, and what it wrote after its header.
const std::string kVersion = "update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'";
std::string dated(const std::string& date) {
    return "update params_fix set update_date='" + date + "' where kunde='QOR-RAVIK'";
}
std::string statements(const std::string& out) { return out.substr(out.find("\n\n") + 2); }
// `text` with the date stamps of set_params_fix as <date>.
std::string undated(const std::string& text) {
    return std::regex_replace(text, std::regex("update_date='\\d{12}'"), "update_date='<date>'");
}
// What set_params_fix writes after its header when both statements fail for `reason`.
std::string both_failed(const std::string& reason) {
    const std::string got = "\n got error from statement: " + reason + "\n";
    return kVersion + got + dated("<date>") + got;
}

TEST_F(DbTools, AnswersExportTextRefusalsAndFailures) {
    pg_query("ravik_db", "create table t (id int, name text); create table media_retention_history_archive (id int);"
                         "create table x (id int, name text, note text, day date, amount numeric);"
                         "insert into x values (1, 'a|b', NULL, '2006-10-18', 1.5), (2, '', 'it''s x=y', NULL, NULL),"
                         " (3, 'NULL', ' blank ', '1999-12-31', -7), (4, E'two\\nlines\\\\', 'a\\b', NULL, NULL);"
                         "create table e (id int)");
    const auto before = pg_query("ravik_db", "select * from x order by id");
    std::string longest = "select 7 as v";
    longest.resize(rv::kSqlStatementMax, ' ');
    const auto help = tool("rv_db", {"-h"});
    ASSERT_EQ(help.status, 0);
    ASSERT_TRUE(help.out.starts_with("Usage:\n")) << help.out;
    const std::string failed = "rv_db: the statement failed", refused = "DB_ACCESS: statement of 1034 bytes "
                                                                        "refused, at most 1023 bytes can be sent\n";
    // A quote inside a value is doubled, so the line loads as the same value; a
    // line feed makes an escape string, so that the row stays on one line.
    const std::string insert = "INSERT INTO x (id,name,note,day,amount) VALUES ";
    const std::string exported = insert + "('1','a|b',NULL,'2006-10-18','1.5');\n" + insert + "('2','','it''s x=y',"
                                 "NULL,NULL);\n" + insert + "('3','NULL',' blank ','1999-12-31','-7');\n" + insert +
                                 "('4',E'two\\nlines\\\\','a\\b',NULL,NULL);\n\n-- 4 rows found \n";
    const std::tuple<Lines, int, std::string, std::string> cases[] = {
        {{"select * from x", "-e"}, 0, exported, ""},
        // An empty table exports as the closing line alone, which loads nothing.
        {{"-e", "select * from e;"}, 0, "\n-- 0 rows found \n", ""},
        {{"insert into t values (1, 'a|b'), (2, NULL)"}, 0, "2\n", ""},
        {{"SELECT * FROM t ORDER BY id"}, 0, "|id=1|name=a|b|\n|id=2|name=NULL|\n-- 2 rows found\n", ""},
        {{"select count(*) from t", "-e"}, 0, "2\n", ""},
        // A stray quote is stored as the accent (a UTF8 database here).
        {{"update t set name='it's' where id=1"}, 0, "1\n", ""},
        // A statement over 1023 bytes is refused, never cut.
        {{longest}, 0, "|v=7|\n-- 1 rows found\n", ""},
        {{longest + "from nosuch"}, 2, "", refused + failed + ": " + refused},
        {{"select * from nosuch", "-e"}, 2, "", "query error:  ERROR:  relation \"nosuch\" does not exist\nLINE 1: "
         "select * from nosuch\n" + std::string(22, ' ') + "^\n\nfailed query:  select * from nosuch\n" + kQuitLine +
         failed + " (reason above): select * from nosuch\n"},
        {{"select now()", "-e"}, 2, "",
         failed + ": PSQL_DO_SQL: no table name (no \" from \") for the export text of: select now()\n"},
        // A table name the export text cannot carry whole is refused, not cut.
        {{"select * from media_retention_history_archive", "-e"}, 2, "", failed + ": PSQL_DO_SQL: table name "
         "media_retention_history_archive longer than 29 characters for the export text\n"},
        {{}, 1, "", "rv_db: no statement given\n" + help.out},
        {{"select 1", "select 2"}, 1, "", "rv_db: only one statement, found a second: select 2\n" + help.out},
    };
    for (const auto& [args, status, out, err] : cases) {
        EXPECT_EQ(all(tool("rv_db", args)), std::tie(status, out, err)) << ::testing::PrintToString(args);
    }
    EXPECT_EQ(pg_query("ravik_db", "select name = 'it' || chr(180) || 's' from t where id = 1"), PgRows{{"t"}});

    const std::string file = box.dir("gv_rw_work") + "db_x.tmp";
    rvtest::write_file(file, exported + "\n-- 0 rows found \n");
    pg_query("ravik_db", "delete from x");
    const std::string psql = std::getenv("RVPG_BIN") + std::string("/psql");
    const auto loaded = rvtest::run({psql, "-X", "-q", "-v", "ON_ERROR_STOP=1", "-d", "ravik_db", "-f", file});
    ASSERT_EQ(loaded.status, 0) << loaded.out << loaded.err;
    EXPECT_EQ(pg_query("ravik_db", "select * from x order by id"), before);
}

TEST_F(DbTools, SigquitEndsTheStatementNotTheTool) {
    // quit_during also fails the test when the server still runs the statement.
    const auto r = rvtest::quit_during({rvtest::bin("rv_db"), "select pg_sleep(5)"}, "select pg_sleep(5)");
    EXPECT_EQ(all(r), std::make_tuple(2, "", kQuitLine + "rv_db: the statement failed (reason above): "
                                                         "select pg_sleep(5)\n"));
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
    const std::string failed = "Connection to database using 'dbname=ravik_db' failed.\n" + reason + "\n" + kQuitLine;
    EXPECT_EQ(all(rvtest::run({rvtest::bin("rv_db"), "select 1"}, env)),
              std::make_tuple(2, "", failed + "rv_db: the statement failed (reason above): select 1\n"));

    const auto set = rvtest::run({rvtest::bin("rv_db_update"), "set_params_fix"}, env);
    EXPECT_EQ(std::tie(set.status, set.err), std::make_tuple(0, failed + failed));
    EXPECT_EQ(undated(statements(set.out)), both_failed(reason)) << set.out;
}

TEST_F(DbTools, SetParamsFixStampsVersionAndDateOrReportsAndGoesOn) {
    // Without the table both statements fail, are reported, and the run goes on.
    const std::string missing = "ERROR: relation \"params_fix\" does not exist";
    auto r = tool("rv_db_update", {"set_params_fix"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(undated(statements(r.out)), both_failed(missing)) << r.out;
    std::string texts;
    for (const auto& text : rvtest::protocol_texts(prot)) texts += text + "\n";
    const std::string unexpected = " with unexpected result: " + missing + ".\n";
    EXPECT_EQ(undated(texts), "E018-DATABAS " + kVersion + unexpected + "E018-DATABAS " + dated("<date>") + unexpected);

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
    EXPECT_EQ(statements(r.out), kVersion + "\n" + dated(date) + "\n") << r.out;
}

}  // namespace
