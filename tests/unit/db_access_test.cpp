// The statement cleaning and the form a statement takes, which decides how
// its answer is delivered; nothing here reaches a server.
#include <gtest/gtest.h>

#include "db/access.hpp"
#include "support/product_test.hpp"

namespace {

using DbText = rvtest::ProductTest;

TEST_F(DbText, CleanupQuotaRepairsApostrophesInAssignedLiterals) {
    const std::tuple<std::string, bool, std::string> cases[] = {
        {"update t set a = 'x' where b = 'y'", true, "update t set a = 'x' where b = 'y'"},
        // The item ends at the next '=' (here behind "where"), else at "where".
        {"update t set a='O'Brien' where id=1", false,
         "update t set a='O\xB4"
         "Brien' where id=1"},
        {"update t set a='rock 'n' roll' where b is null", false,
         "update t set a='rock \xB4n\xB4 roll' where b is null"},
        // Only an update is repaired; a double quote inside any literal goes.
        {"insert into t values ('it's')", true, "insert into t values ('it's')"},
        {"insert into t values ('say \"hi\"', \"Col\")", false,
         "insert into t values ('say _hi_', \"Col\")"},
    };
    for (const auto& [in, ok, out] : cases) {
        std::string sql = in;
        EXPECT_EQ(rv::CLEANUP_QUOTA(sql), ok) << in;
        EXPECT_EQ(sql, out);
    }
    std::string sql = "SELECT Name FROM Media WHERE Label='MiXed' AND Pool='P'";
    rv::SQL_LOWERCASE(sql);
    EXPECT_EQ(sql, "select name from media where label='MiXed' AND Pool='P'");
}

TEST_F(DbText, FormOfAStatementAndItsTable) {
    using rv::SqlForm;
    const std::tuple<std::string, bool, SqlForm> forms[] = {
        {"update t set a=1", false, SqlForm::command},
        {" select * from t", false, SqlForm::command},
        {"select count(*) from t", true, SqlForm::calculated},
        {"select max(id) from t where a='X'", false, SqlForm::calculated},
        {"select count(*) from t GROUP BY a", false, SqlForm::record_list},
        {"select avg(id) from t", false, SqlForm::record_list},
        {"select * from t", true, SqlForm::export_text},
    };
    for (const auto& [sql, with_list, form] : forms) {
        EXPECT_EQ(rv::sql_form(sql, with_list), form) << sql;
    }
    EXPECT_EQ(rv::select_table("select a from   jobs;"), "jobs;");
    EXPECT_EQ(rv::select_table("select pg_sleep(5)"), "");
    EXPECT_EQ(rv::select_table("select * from abcdefghijklmnopqrstuvwxyz0123456789"),
              "abcdefghijklmnopqrstuvwxyz0123456789");
    // A keyword statement is a date request; only two letters are looked at first.
    std::string msg;
    EXPECT_FALSE(rv::iDB_ACCESS("DATA", msg, nullptr));
    EXPECT_EQ(msg, "wrong function-argument: DATA");
}

}  // namespace
