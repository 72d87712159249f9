// The programs against a real server: the export tool rv_db (export text
// round trip, record list, failures, SIGQUIT) and rv_db_update
// set_params_fix, both finding the server's port in rv.ini.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <ctime>
#include <string>

#include "support/pgcluster.hpp"
#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

using rvtest::pg_query;

const std::string kRvDb = rvtest::bin("rv_db");
const std::string kTool = rvtest::bin("rv_db_update");
constexpr const char* kQuitLine =
    "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n";

class DbTools : public ::testing::Test {
  protected:
    void SetUp() override {
        rvtest::pg_server();
        box.make_installation();
        rvtest::point_at_server(box);
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_prot.rgv", box.path("prot.log"));
        rvtest::pg_recreate_db("ravik_db");
    }

    // The programs get the port only from rv.ini.
    std::map<std::string, std::string> env() const {
        return {{"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}, {"PGPORT", ""}};
    }

    rvtest::RunResult rv_db(std::vector<std::string> args) {
        args.insert(args.begin(), kRvDb);
        return rvtest::run(args, env());
    }

    rvtest::RunResult psql_file(const std::string& file) {
        const auto& server = rvtest::pg_server();
        return rvtest::run({server.bindir + "/psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-h",
                            server.socket_dir, "-p", std::to_string(server.port), "-U", "postgres",
                            "-d", "ravik_db", "-f", file});
    }

    rvtest::Sandbox box;
};

TEST_F(DbTools, ExportTextRestoresTheRows) {
    pg_query("ravik_db", "create table t (id int, name text, note text, day date, amount numeric)");
    pg_query(
        "ravik_db",
        "insert into t values (1, 'a|b', NULL, '2006-10-18', 1.5), (2, '', 'it''s x=y', NULL, NULL), "
        "(3, 'NULL', ' blank ', '1999-12-31', -7)");
    const std::string select = "select * from t order by id";
    const auto before = pg_query("ravik_db", select);

    const auto exported = rv_db({"select * from t", "-e"});
    ASSERT_EQ(exported.status, 0) << exported.err;
    EXPECT_NE(exported.out.find("INSERT INTO t (id,name,note,day,amount) VALUES "
                                "('1','a|b',NULL,'2006-10-18','1.5');\n"),
              std::string::npos)
        << exported.out;
    // A quote inside a value is doubled, so the line loads as the same value.
    EXPECT_NE(exported.out.find("('2','','it''s x=y',NULL,NULL);\n"), std::string::npos) << exported.out;
    EXPECT_TRUE(exported.out.ends_with("');\n\n-- 3 rows found \n")) << exported.out;

    const std::string file = box.dir("gv_rw_work") + "db_t.tmp";
    rvtest::write_file(file, exported.out);
    pg_query("ravik_db", "delete from t");
    const auto loaded = psql_file(file);
    ASSERT_EQ(loaded.status, 0) << loaded.out << loaded.err;
    EXPECT_EQ(pg_query("ravik_db", select), before);

    // An empty table exports as the closing line alone, which loads nothing.
    pg_query("ravik_db", "create table e (id int)");
    const auto empty = rv_db({"-e", "select * from e;"});
    ASSERT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(empty.out, "\n-- 0 rows found \n");
    rvtest::write_file(file, empty.out);
    EXPECT_EQ(psql_file(file).status, 0);
    EXPECT_EQ(pg_query("ravik_db", "select count(*) from e").at(0).at(0), "0");
}

TEST_F(DbTools, RecordListCountsAndFailures) {
    pg_query("ravik_db", "create table t (id int, name text)");
    auto r = rv_db({"insert into t values (1, 'a|b'), (2, NULL)"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "2\n");
    r = rv_db({"SELECT * FROM t ORDER BY id"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "|id=1|name=a|b|\n|id=2|name=NULL|\n-- 2 rows found\n");
    r = rv_db({"select count(*) from t", "-e"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "2\n");

    r = rv_db({"select * from nosuch", "-e"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("query error:  ERROR:  relation \"nosuch\" does not exist"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find(kQuitLine), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("rv_db: the statement failed"), std::string::npos) << r.err;

    r = rv_db({"select now()", "-e"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no table name"), std::string::npos) << r.err;

    r = rv_db({});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Usage:"), std::string::npos) << r.err;
    r = rv_db({"select 1", "select 2"});
    EXPECT_EQ(r.status, 1);
    r = rv_db({"-h"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("-e"), std::string::npos);
}

TEST_F(DbTools, SigquitEndsTheStatementNotTheTool) {
    rvtest::Background tool({kRvDb, "select pg_sleep(5)"}, env());
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(rvtest::wait_for_active_query("select pg_sleep(5)", 4000));
    kill(tool.pid(), SIGQUIT);
    const auto r = tool.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4500));
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.err.rfind(kQuitLine, 0), 0u) << r.err;
    EXPECT_NE(r.err.find("rv_db: the statement failed"), std::string::npos) << r.err;
    // Not left running on the server either.
    EXPECT_EQ(
        pg_query("postgres",
                 "select count(*) from pg_stat_activity where query = 'select pg_sleep(5)'")[0][0],
        "0");
}

TEST_F(DbTools, SetParamsFixStampsVersionAndDate) {
    pg_query("ravik_db", "create table params_fix (version text, update_date text, kunde text)");
    pg_query("ravik_db",
             "insert into params_fix values ('1.6.3.20', '200001010000', 'QOR-RAVIK'), ('0', '0', "
             "'other')");
    auto stamp = [] {
        const std::time_t now = std::time(nullptr);
        std::tm tm{};
        localtime_r(&now, &tm);
        char text[16];
        std::strftime(text, sizeof text, "%Y%m%d%H%M", &tm);
        return std::string(text);
    };
    const std::string before = stamp();
    const auto r = rvtest::run({kTool, "set_params_fix"}, env());
    const std::string after = stamp();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("got error"), std::string::npos) << r.out;

    const auto rows =
        pg_query("ravik_db", "select version, update_date, kunde from params_fix order by kunde");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][0], "1.6.4.71");
    ASSERT_TRUE(rows[0][1].has_value());
    const std::string date = *rows[0][1];
    EXPECT_EQ(date.size(), 12u);
    EXPECT_TRUE(date == before || date == after) << date;
    EXPECT_NE(
        r.out.find("update params_fix set update_date='" + date + "' where kunde='QOR-RAVIK'\n"),
        std::string::npos)
        << r.out;
    EXPECT_EQ(rows[1][0], "0");
    EXPECT_EQ(rows[1][1], "0");
}

TEST_F(DbTools, FailedStatementIsReportedAndTheRunGoesOn) {
    const auto r = rvtest::run({kTool, "set_params_fix"}, env());
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("STATUS="), std::string::npos) << r.out;
    const std::string first =
        "update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'\n"
        " got error from statement: export\n";
    const auto at = r.out.find(first);
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NE(r.out.find("' where kunde='QOR-RAVIK'\n got error from statement: export\n",
                         at + first.size()),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.err.find("query error:  ERROR:  relation \"params_fix\" does not exist"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find(kQuitLine), std::string::npos) << r.err;
    const std::string prot = rvtest::read_file(box.path("prot.log"));
    EXPECT_NE(prot.find("E018-DATABAS["), std::string::npos) << prot;
    EXPECT_NE(prot.find("update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK' with "
                        "unexpected result: "
                        "export."),
              std::string::npos)
        << prot;
}

}  // namespace
