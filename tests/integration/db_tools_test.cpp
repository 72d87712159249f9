// The programs against a real server: the export tool rv_db (export text
// round trip, record list, failures, SIGQUIT) and rv_db_update
// set_params_fix, both finding the server's port in rv.ini.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <ctime>

#include "db/access.hpp"
#include "support/pgcluster.hpp"

namespace {

using rvtest::pg_query;

const std::string kRvDb = rvtest::bin("rv_db");
const std::string kQuitLine =
    "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n";
// The programs get the port only from rv.ini.
const rvtest::Env kEnv{
    {"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}, {"PGPORT", ""}};

class DbTools : public ::testing::Test {
  protected:
    void SetUp() override {
        box.make_installation();
        rvtest::point_at_server(box);
        prot = box.use_protocol();
        rvtest::pg_recreate_db("ravik_db");
    }
    static rvtest::RunResult run(const std::string& program, std::vector<std::string> args) {
        args.insert(args.begin(), rvtest::bin(program));
        return rvtest::run(args, kEnv);
    }

    rvtest::Sandbox box;
    std::string prot;
};

TEST_F(DbTools, ExportTextRestoresTheRows) {
    pg_query("ravik_db",
             "create table t (id int, name text, note text, day date, amount numeric);"
             "insert into t values (1, 'a|b', NULL, '2006-10-18', 1.5), "
             "(2, '', 'it''s x=y', NULL, NULL), (3, 'NULL', ' blank ', '1999-12-31', -7);"
             "create table e (id int)");
    const std::string select = "select * from t order by id";
    const auto before = pg_query("ravik_db", select);
    const auto exported = run("rv_db", {"select * from t", "-e"});
    ASSERT_EQ(exported.status, 0) << exported.err;
    EXPECT_NE(exported.out.find("INSERT INTO t (id,name,note,day,amount) VALUES "
                                "('1','a|b',NULL,'2006-10-18','1.5');\n"),
              std::string::npos)
        << exported.out;
    // A quote inside a value is doubled, so the line loads as the same value.
    EXPECT_NE(exported.out.find("('2','','it''s x=y',NULL,NULL);\n"), std::string::npos);
    EXPECT_TRUE(exported.out.ends_with("');\n\n-- 3 rows found \n")) << exported.out;
    // An empty table exports as the closing line alone, which loads nothing.
    const auto empty = run("rv_db", {"-e", "select * from e;"});
    EXPECT_EQ(empty.out, "\n-- 0 rows found \n");

    const auto& server = rvtest::pg_server();
    const std::string file = box.dir("gv_rw_work") + "db_t.tmp";
    rvtest::write_file(file, exported.out + empty.out);
    pg_query("ravik_db", "delete from t");
    const auto loaded =
        rvtest::run({server.bindir + "/psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-p",
                     std::to_string(server.port), "-d", "ravik_db", "-f", file});
    ASSERT_EQ(loaded.status, 0) << loaded.out << loaded.err;
    EXPECT_EQ(pg_query("ravik_db", select), before);
}

TEST_F(DbTools, RecordListCountsAndFailures) {
    pg_query("ravik_db", "create table t (id int, name text)");
    const std::pair<std::vector<std::string>, std::string> answers[] = {
        {{"insert into t values (1, 'a|b'), (2, NULL)"}, "2\n"},
        {{"SELECT * FROM t ORDER BY id"}, "|id=1|name=a|b|\n|id=2|name=NULL|\n-- 2 rows found\n"},
        {{"select count(*) from t", "-e"}, "2\n"},
    };
    for (const auto& [args, out] : answers) {
        const auto r = run("rv_db", args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, out);
    }
    // A stray quote is stored as the accent (a UTF8 database here); a
    // statement over 1023 bytes is refused, never cut.
    EXPECT_EQ(run("rv_db", {"update t set name='it's' where id=1"}).out, "1\n");
    EXPECT_EQ(pg_query("ravik_db", "select name = 'it' || chr(180) || 's' from t where id = 1"),
              rvtest::PgRows{{"t"}});
    std::string longer = "select 7 as v";
    longer.resize(rv::kSqlStatementMax, ' ');
    EXPECT_EQ(run("rv_db", {longer}).out, "|v=7|\n-- 1 rows found\n");
    const auto refused = run("rv_db", {longer + "from nosuch"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("DB_ACCESS: statement of 1034 bytes refused, at most 1023 bytes can be sent"),
              std::string::npos)
        << refused.err;

    auto r = run("rv_db", {"select * from nosuch", "-e"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    for (const std::string& text :
         {std::string("query error:  ERROR:  relation \"nosuch\" does not exist"), kQuitLine,
          std::string("rv_db: the statement failed")}) {
        EXPECT_NE(r.err.find(text), std::string::npos) << r.err;
    }
    r = run("rv_db", {"select now()", "-e"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no table name"), std::string::npos) << r.err;
    // A table name the export text cannot carry whole is refused, not cut.
    pg_query("ravik_db", "create table media_retention_history_archive (id int)");
    r = run("rv_db", {"select * from media_retention_history_archive", "-e"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("table name media_retention_history_archive longer than 29 characters"), std::string::npos)
        << r.err;
    r = run("rv_db", {});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Usage:"), std::string::npos) << r.err;
    EXPECT_EQ(run("rv_db", {"select 1", "select 2"}).status, 1);
    EXPECT_EQ(run("rv_db", {"-h"}).status, 0);
}

TEST_F(DbTools, SigquitEndsTheStatementNotTheTool) {
    rvtest::Background tool({kRvDb, "select pg_sleep(5)"}, kEnv);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(rvtest::wait_for_active_query("select pg_sleep(5)", 4000));
    kill(tool.pid(), SIGQUIT);
    const auto r = tool.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4500));
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_TRUE(r.err.starts_with(kQuitLine)) << r.err;
    EXPECT_NE(r.err.find("rv_db: the statement failed"), std::string::npos) << r.err;
    // Not left running on the server either.
    EXPECT_EQ(pg_query("postgres",
                       "select count(*) from pg_stat_activity where query = "
                       "'select pg_sleep(5)'"),
              rvtest::PgRows{{"0"}});
}

TEST_F(DbTools, SetParamsFixStampsVersionAndDateOrReportsAndGoesOn) {
    const std::string version =
        "update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'\n";
    // Without the table both statements fail, are reported, and the run goes on.
    auto r = run("rv_db_update", {"set_params_fix"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("STATUS="), std::string::npos) << r.out;
    const std::string failed = " got error from statement: export\n";
    const auto at = r.out.find(version + failed);
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NE(r.out.find("' where kunde='QOR-RAVIK'\n" + failed, at + version.size()),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.err.find("query error:  ERROR:  relation \"params_fix\" does not exist"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find(kQuitLine), std::string::npos) << r.err;
    EXPECT_EQ(rvtest::protocol_texts(prot).at(0), "E018-DATABAS " +
                                                      version.substr(0, version.size() - 1) +
                                                      " with unexpected result: export.");

    pg_query("ravik_db",
             "create table params_fix (version text, update_date text, kunde text);"
             "insert into params_fix values ('1.6.3.20', '200001010000', 'QOR-RAVIK'),"
             " ('0', '0', 'other')");
    const auto stamp = [] {
        const std::time_t now = std::time(nullptr);
        std::tm tm{};
        localtime_r(&now, &tm);
        std::string text(16, '\0');
        text.resize(std::strftime(text.data(), text.size(), "%Y%m%d%H%M", &tm));
        return text;
    };
    const std::string before = stamp();
    r = run("rv_db_update", {"set_params_fix"});
    const std::string after = stamp();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("got error"), std::string::npos) << r.out;
    const auto rows =
        pg_query("ravik_db", "select version, update_date, kunde from params_fix order by kunde");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1], (std::vector<std::optional<std::string>>{"0", "0", "other"}));
    EXPECT_EQ(rows[0][0], "1.6.4.71");
    const std::string date = rows[0][1].value_or("");
    EXPECT_TRUE(date == before || date == after) << date;
    EXPECT_NE(r.out.find(version + "update params_fix set update_date='" + date +
                         "' where kunde='QOR-RAVIK'\n"),
              std::string::npos)
        << r.out;
}

}  // namespace
