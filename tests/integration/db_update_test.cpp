// sql steps of an update script against a real server: a statement that
// works, one that fails, one cut short by SIGQUIT, and the steps after them.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "support/pgcluster.hpp"

namespace {

using rvtest::pg_query;

const std::string kTool = rvtest::bin("rv_db_update");

const char* const kScript = R"([Update 1.6.4.]
last_step_nr=7
step_1=sql ravik_db insert into steps values (1, 'one')
step_2=sql ravik_db insert into nosuch values (2)
step_3=sql ravik_db select pg_sleep(5)
step_4=sql ravik_db update steps set note='it's done' where id=1
step_5=sql ravik_db INSERT INTO steps VALUES (5, NULL)
step_6=cmd touch gv_rw_work:done.txt
step_7=exit
)";

TEST(DbUpdate, FailedAndInterruptedStatementsLetTheRunGoOn) {
    rvtest::Sandbox box;
    box.make_installation();
    rvtest::point_at_server(box);
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini", kScript);
    box.set_glbv("gv_db_type", "postgres");
    rvtest::pg_recreate_db("ravik_db", "LATIN1");
    pg_query("ravik_db", "create table steps (id int, note text)");
    rvtest::Background tool(
        {kTool, "update", "1.6.3.20", "1.6.4.71"},
        {{"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}, {"PGPORT", ""}});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(rvtest::wait_for_active_query("select pg_sleep(5)", 4000));
    kill(tool.pid(), SIGQUIT);
    const auto r = tool.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4500));

    EXPECT_EQ(r.status, 0) << r.out << r.err;
    const auto steps = r.out.find("step=1 ");
    ASSERT_NE(steps, std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(steps),
              "step=1 db=ravik_db sql=insert into steps values (1, 'one')\n"
              "insert into steps values (1, 'one')\n"
              "step=2 db=ravik_db sql=insert into nosuch values (2)\n"
              "insert into nosuch values (2)\n"
              " got error from statement: export\n"
              "step=3 db=ravik_db sql=select pg_sleep(5)\n"
              "select pg_sleep(5)\n"
              " got error from statement: export\n"
              "step=4 db=ravik_db sql=update steps set note='it's done' where id=1\n"
              "update steps set note='it's done' where id=1\n"
              "step=5 db=ravik_db sql=INSERT INTO steps VALUES (5, NULL)\n"
              "INSERT INTO steps VALUES (5, NULL)\n"
              "step=6 cmd=touch gv_rw_work:done.txt\n");
    EXPECT_NE(r.err.find("query error:  ERROR:  relation \"nosuch\" does not exist"),
              std::string::npos)
        << r.err;
    // Once through halt for the failed insert, once for the real SIGQUIT;
    // the statements after both jumps run.
    const std::string quit =
        "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n";
    const auto first = r.err.find(quit);
    EXPECT_TRUE(first != std::string::npos && r.err.find(quit, first + 1) != std::string::npos)
        << r.err;

    EXPECT_EQ(pg_query("ravik_db",
                       "select id, note = 'it' || chr(180) || 's done' from steps "
                       "order by id"),
              (rvtest::PgRows{{"1", "t"}, {"5", std::nullopt}}));
    EXPECT_TRUE(std::filesystem::exists(box.dir("gv_rw_work") + "done.txt"));
}

}  // namespace
