// The statement cleaning, the form a statement takes, the record list
// building blocks and the keyword requests of the database access; nothing
// here reaches a server.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/glbv.hpp"
#include "db/access.hpp"
#include "db/dates.hpp"
#include "support/sandbox.hpp"

namespace {

class DbText : public ::testing::Test {
  protected:
    void SetUp() override {
        set_glbv("gv_prot", box.path("prot.log"));
        rv::eLang = rv::LANG_EN;
        rv::trace_reset();
    }
    void TearDown() override {
        rv::eLang = rv::LANG_EN;
        rv::trace_reset();
    }

    static void set_glbv(const std::string& name, const std::string& value) {
        std::string n = name;
        std::string v = value;
        rv::glbv('w', n, v);
    }

    std::vector<std::string> protocol() const {
        std::vector<std::string> texts;
        for (const auto& line : rvtest::read_lines(box.path("prot.log"))) {
            const auto bracket = line.find('[');
            const auto colon = line.find("]: ");
            if (bracket != std::string::npos && colon != std::string::npos && bracket >= 12) {
                texts.push_back(line.substr(bracket - 12, 12) + " " + line.substr(colon + 3));
            }
        }
        return texts;
    }

    rvtest::Sandbox box;
    rv::str_log log;
};

TEST_F(DbText, LowercaseStopsAtTheFirstQuote) {
    std::string sql = "SELECT Name FROM Media WHERE Label='MiXed' AND Pool='P'";
    rv::SQL_LOWERCASE(sql, log);
    EXPECT_EQ(sql, "select name from media where label='MiXed' AND Pool='P'");
    std::string plain = "UPDATE T SET A=1";
    rv::SQL_LOWERCASE(plain, log);
    EXPECT_EQ(plain, "update t set a=1");
}

TEST_F(DbText, CleanupQuotaRepairsApostrophesInAssignedLiterals) {
    std::vector<std::size_t> accents;
    std::string sql = "update t set a='it's',b='x'";
    EXPECT_FALSE(rv::CLEANUP_QUOTA(sql, log, &accents));
    EXPECT_EQ(sql, "update t set a='it\xB4s',b='x'");
    EXPECT_EQ(accents, std::vector<std::size_t>{18});

    accents.clear();
    sql = "update t set a = 'x' where b = 'y'";
    EXPECT_TRUE(rv::CLEANUP_QUOTA(sql, log, &accents));
    EXPECT_EQ(sql, "update t set a = 'x' where b = 'y'");
    EXPECT_TRUE(accents.empty());

    // The item ends at the next '=' (here behind "where"), else at "where".
    accents.clear();
    sql = "update t set a='O'Brien' where id=1";
    EXPECT_FALSE(rv::CLEANUP_QUOTA(sql, log, &accents));
    EXPECT_EQ(sql,
              "update t set a='O\xB4"
              "Brien' where id=1");
    sql = "update t set a='rock 'n' roll' where b is null";
    EXPECT_FALSE(rv::CLEANUP_QUOTA(sql, log));
    EXPECT_EQ(sql, "update t set a='rock \xB4n\xB4 roll' where b is null");

    // Only an update is repaired; a double quote inside any literal goes.
    sql = "insert into t values ('it's')";
    EXPECT_TRUE(rv::CLEANUP_QUOTA(sql, log));
    sql = "insert into t values ('say \"hi\"', \"Col\")";
    EXPECT_FALSE(rv::CLEANUP_QUOTA(sql, log));
    EXPECT_EQ(sql, "insert into t values ('say _hi_', \"Col\")");
}

TEST_F(DbText, CleanupQuotaWarnsInTheTrace) {
    log.szFile = box.path("trace.lgc");
    log.iFlg = 1;
    std::string sql = "update t set a='it's' where b='say \"x\"'";
    EXPECT_FALSE(rv::CLEANUP_QUOTA(sql, log));
    const std::string trace = rvtest::read_file(box.path("trace.lgc"));
    EXPECT_NE(trace.find("Warning: CLEANUP_QUOTA: exchanged extra ' in SQL statement"),
              std::string::npos)
        << trace;
    EXPECT_NE(trace.find("Warning: CLEANUP_QUOTA: removed extra \" in SQL statement"),
              std::string::npos)
        << trace;
}

TEST_F(DbText, FormOfAStatementAndItsTable) {
    using rv::SqlForm;
    EXPECT_EQ(rv::sql_form("update t set a=1", false), SqlForm::command);
    EXPECT_EQ(rv::sql_form(" select * from t", false), SqlForm::command);
    EXPECT_EQ(rv::sql_form("select count(*) from t", true), SqlForm::calculated);
    EXPECT_EQ(rv::sql_form("select max(id) from t where a='X'", false), SqlForm::calculated);
    EXPECT_EQ(rv::sql_form("select count(*) from t GROUP BY a", false), SqlForm::record_list);
    EXPECT_EQ(rv::sql_form("select avg(id) from t", false), SqlForm::record_list);
    EXPECT_EQ(rv::sql_form("select * from t", true), SqlForm::export_text);

    EXPECT_EQ(rv::select_table("select * from media where id=1"), "media");
    EXPECT_EQ(rv::select_table("select a from   jobs;"), "jobs;");
    EXPECT_EQ(rv::select_table("select pg_sleep(5)"), "");
    EXPECT_EQ(rv::select_table("select * from abcdefghijklmnopqrstuvwxyz0123456789"),
              "abcdefghijklmnopqrstuvwxyz012");
}

TEST_F(DbText, RecordListNumberingAndTheEmptyListRefusal) {
    rv::DB_REC_LIS list;
    list.szId = "lst";
    EXPECT_FALSE(rv::iDB_SEL_ALLOC(&list, "|a=1|", log));
    rv::eLang = rv::LANG_DE;
    EXPECT_FALSE(rv::iDB_SEL_ALLOC(&list, "|a=1|", log));
    const std::vector<std::string> refused = {
        "E003-DATABAS DB_SEL_ALLOC lst: the recordlist is empty, cannot allocate a new element.",
        "E003-DATABAS DB_SEL_ALLOC lst: die Recordsliste ist leer, kann kein neues Element "
        "allokieren",
    };
    EXPECT_EQ(protocol(), refused);

    ASSERT_TRUE(rv::iDB_SEL_FIRST(&list, "|a=1|", log));
    ASSERT_TRUE(rv::iDB_SEL_ALLOC(&list, "|a=2|", log));
    ASSERT_TRUE(rv::iDB_SEL_ALLOC(&list, "|a=3|", log));
    ASSERT_EQ(list.iRows(), 3);
    EXPECT_EQ(list.records[0].iRow, 1);
    EXPECT_EQ(list.records[1].iRow, 1);
    EXPECT_EQ(list.records[2].iRow, 2);
    EXPECT_EQ(list.records[2].cpData, "|a=3|");
    // A new first record starts the list over.
    ASSERT_TRUE(rv::iDB_SEL_FIRST(&list, "|b=1|", log));
    ASSERT_EQ(list.iRows(), 1);
    EXPECT_EQ(list.records[0].cpData, "|b=1|");
}

TEST_F(DbText, KeywordStatementsAreDateRequests) {
    set_glbv("gv_db_type", "postgres");
    std::string msg = "2006-10-18";
    EXPECT_TRUE(rv::iDB_ACCESS("DATE", msg, nullptr, log));
    EXPECT_EQ(msg, "2006-10-18 00:00:00");
    msg = "x";
    EXPECT_TRUE(rv::iDB_ACCESS("MAX", msg, nullptr, log));
    EXPECT_EQ(msg, "max");
    // Only the first two letters are looked at before the hand-over.
    msg = "2006-10-18";
    EXPECT_FALSE(rv::iDB_ACCESS("DATA", msg, nullptr, log));
    EXPECT_EQ(msg, "wrong function-argument: DATA");
    EXPECT_EQ(protocol(),
              std::vector<std::string>{"E008-DATABAS CONVERT_DATE_TIME: wrong parameter DATA"});
}

}  // namespace
