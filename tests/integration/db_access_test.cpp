// The database access against a real server, called in this process:
// statement forms, failures through the designed halt-and-jump path, wide
// results, the accent repair in LATIN1 and UTF8 databases, and SIGQUIT.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>

#include "db/access.hpp"
#include "support/pgcluster.hpp"
#include "support/sandbox.hpp"

namespace {

using rvtest::pg_query;

class DbAccess : public ::testing::Test {
  protected:
    void SetUp() override {
        rvtest::pg_server();
        box.make_installation();
        rvtest::point_at_server(box);
        rvtest::pg_recreate_db("ravik_db");
        pg_query("ravik_db", "create table t (id int, name text, note text)");
        pg_query("ravik_db",
                 "insert into t values (1, 'abc', null), (2, 'a|b', 'x'), (3, 'c', '')");
    }

    // Runs a statement as the tool does; standard error is kept in `err`.
    bool access(const std::string& sql, std::string& msg, rv::DB_REC_LIS* list = nullptr) {
        rvtest::CaptureFd capture(2);
        const bool ok = rv::iDB_ACCESS(sql, msg, list, log);
        err = capture.finish();
        return ok;
    }

    // Sends this process SIGQUIT once the server runs `query`.
    std::unique_ptr<rvtest::Background> quit_during(const std::string& query) {
        const auto& server = rvtest::pg_server();
        const std::string poll =
            "'" + server.bindir + "/psql' -h '" + server.socket_dir + "' -p " +
            std::to_string(server.port) +
            " -U postgres -d postgres -tAc \"select count(*) from pg_stat_activity where "
            "state = 'active' and query = '" +
            query + "'\"";
        const std::string script = "i=0; while [ $i -lt 500 ]; do [ \"$(" + poll +
                                   ")\" = 1 ] && { kill -QUIT " + std::to_string(getpid()) +
                                   "; exit 0; }; sleep 0.02; i=$((i+1)); done; exit 1";
        return std::make_unique<rvtest::Background>(
            std::vector<std::string>{"/bin/sh", "-c", script});
    }

    rvtest::Sandbox box;
    rv::str_log log;
    std::string err;
};

TEST_F(DbAccess, StatementsAnswerInTheirForms) {
    std::string msg;
    EXPECT_TRUE(access("INSERT INTO t VALUES (4, 'D', NULL)", msg));
    EXPECT_EQ(msg, "1");
    EXPECT_TRUE(access("update t set note='n' where id>2", msg));
    EXPECT_EQ(msg, "2");
    EXPECT_TRUE(access("create table u (a int)", msg));
    EXPECT_EQ(msg, "");

    rv::DB_REC_LIS list;
    list.szId = "t";
    EXPECT_TRUE(access("Select id, name, note from t where id<3 order by id", msg, &list));
    EXPECT_EQ(msg, "2");
    ASSERT_EQ(list.iRows(), 2);
    EXPECT_EQ(list.records[0].cpData, "|id=1|name=abc|note=NULL|");
    EXPECT_EQ(list.records[1].cpData, "|id=2|name=a|b|note=x|");

    EXPECT_TRUE(access("select count(*) from t", msg, &list));
    EXPECT_EQ(msg, "4");
    EXPECT_TRUE(access("select count(*) from t group by note is null order by 1", msg, &list));
    EXPECT_EQ(msg, "2");
    ASSERT_EQ(list.iRows(), 2);
    EXPECT_EQ(list.records[0].cpData, "|count=1|");
    EXPECT_EQ(list.records[1].cpData, "|count=3|");

    // No rows: the list is emptied, the count is 0.
    EXPECT_TRUE(access("select * from t where id > 100", msg, &list));
    EXPECT_EQ(msg, "0");
    EXPECT_EQ(list.iRows(), 0);

    // The server gets at most kSqlStatementMax bytes of a statement.
    std::string longer = "select 7 as v";
    longer.resize(rv::kSqlStatementMax, ' ');
    EXPECT_TRUE(access(longer + "from nosuch", msg, &list)) << err;
    ASSERT_EQ(list.iRows(), 1);
    EXPECT_EQ(list.records[0].cpData, "|v=7|");

    // Without " from ": a record list and a computed value need no table.
    EXPECT_TRUE(access("select 1 as one", msg, &list));
    ASSERT_EQ(list.iRows(), 1);
    EXPECT_EQ(list.records[0].cpData, "|one=1|");
    msg = "export";
    EXPECT_TRUE(access("select max(7)", msg));
    EXPECT_EQ(msg, "7");
    // ... but the export text does.
    msg = "export";
    rvtest::CaptureFd out(1);
    EXPECT_FALSE(access("select 1 as one", msg));
    EXPECT_EQ(out.finish(), "");
    EXPECT_NE(msg.find("no table name"), std::string::npos) << msg;

    msg = "export";
    rvtest::CaptureFd out2(1);
    EXPECT_TRUE(access("select id, name, note from t where id < 3 order by id;", msg));
    EXPECT_EQ(out2.finish(),
              "INSERT INTO t (id,name,note) VALUES ('1','abc',NULL);\n"
              "INSERT INTO t (id,name,note) VALUES ('2','a|b','x');\n"
              "\n-- 2 rows found \n");
    EXPECT_EQ(msg, "t");
}

TEST_F(DbAccess, FailuresGoThroughTheHandlerAndTheCallerGoesOn) {
    struct sigaction mine {};
    mine.sa_handler = [](int) {};
    sigemptyset(&mine.sa_mask);
    sigaction(SIGINT, &mine, nullptr);

    std::string msg = "old";
    EXPECT_FALSE(access("select * from nosuch", msg));
    EXPECT_EQ(msg, "");
    EXPECT_NE(err.find("query error:  ERROR:  relation \"nosuch\" does not exist"),
              std::string::npos)
        << err;
    EXPECT_NE(
        err.find("failed query:  select * from nosuch\n"
                 "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n"),
        std::string::npos)
        << err;

    // The caller's SIGINT handler is back, SIGQUIT is at its default again.
    struct sigaction now {};
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, mine.sa_handler);
    sigaction(SIGQUIT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);

    msg = "export";
    EXPECT_FALSE(access("insert into t values ('no number')", msg));
    EXPECT_EQ(msg, "export");
    EXPECT_TRUE(access("select count(*) from t", msg));
    EXPECT_EQ(msg, "3");

    // The port comes from rv.ini: a wrong one fails the connection.
    box.extra_sections = "[SERVER]\ngv_port_db=1\n";
    box.write_rv_ini();
    EXPECT_FALSE(access("select count(*) from t", msg));
    EXPECT_NE(err.find("Connection to database using 'dbname=ravik_db' failed.\n"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("signal_psql_handler: SIGQUIT received"), std::string::npos) << err;
}

TEST_F(DbAccess, HundredColumnsFitAHundredAndOneDoNot) {
    std::string cols;
    for (int i = 0; i < 101; ++i) {
        cols += (i ? ", c" : "c") + std::to_string(i) + " int default " + std::to_string(i);
    }
    pg_query("ravik_db", "create table wide (" + cols + ")");
    pg_query("ravik_db", "insert into wide default values");
    std::string hundred;
    for (int i = 0; i < 100; ++i) {
        hundred += (i ? ", c" : "c") + std::to_string(i);
    }
    rv::DB_REC_LIS list;
    std::string msg;
    EXPECT_TRUE(access("select " + hundred + " from wide", msg, &list));
    ASSERT_EQ(list.iRows(), 1);
    EXPECT_EQ(list.records[0].cpData.substr(list.records[0].cpData.size() - 8), "|c99=99|");
    EXPECT_FALSE(access("select * from wide", msg, &list));
    EXPECT_EQ(msg, "too much columns ( max 100 )");
    msg = "export";
    rvtest::CaptureFd out(1);
    EXPECT_FALSE(access("select * from wide", msg));
    EXPECT_EQ(out.finish(), "");
}

TEST_F(DbAccess, StrayApostropheIsStoredAsTheAccentInBothEncodings) {
    for (const std::string encoding : {"LATIN1", "UTF8"}) {
        rvtest::pg_recreate_db("ravik_db", encoding);
        pg_query("ravik_db", "create table t (id int, a text, b text)");
        pg_query("ravik_db", "insert into t values (1, 'x', 'y')");
        std::string msg;
        EXPECT_TRUE(access("update t set a='it's',b='rock 'n' roll' where id=1", msg))
            << encoding << err;
        EXPECT_EQ(msg, "1");
        const auto rows =
            pg_query("ravik_db",
                     "select a = 'it' || chr(180) || 's', convert_to(a, 'UTF8')::text, "
                     "b = 'rock ' || chr(180) || 'n' || chr(180) || ' roll' from t");
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows[0][0], "t") << encoding;
        EXPECT_EQ(rows[0][1], "\\x6974c2b473") << encoding;
        EXPECT_EQ(rows[0][2], "t") << encoding;
    }
}

TEST_F(DbAccess, SigquitMakesTheStatementFailAndTheNextOneRuns) {
    // Twice: the handler and the signal mask are as before after a jump.
    for (const std::string sleep : {"select pg_sleep(5)", "select pg_sleep(5)"}) {
        auto sender = quit_during(sleep);
        std::string msg;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(access(sleep, msg)) << err;
        const auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(sender->wait().status, 0) << "the statement never showed in pg_stat_activity";
        EXPECT_LT(elapsed, std::chrono::milliseconds(4500));
        EXPECT_EQ(
            err, "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n");
        struct sigaction now {};
        sigaction(SIGQUIT, nullptr, &now);
        EXPECT_EQ(now.sa_handler, SIG_DFL);
        EXPECT_TRUE(access("select count(*) from t", msg));
        EXPECT_EQ(msg, "3");
    }
}

}  // namespace
