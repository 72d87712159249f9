// Date and column-name forms by database type (global variable gv_db_type).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/glbv.hpp"
#include "db/dates.hpp"
#include "support/sandbox.hpp"

namespace {

class DbDates : public ::testing::Test {
  protected:
    void SetUp() override {
        set("gv_prot", box.path("prot.log"));
        rv::eLang = rv::LANG_EN;
    }
    void TearDown() override { rv::eLang = rv::LANG_EN; }

    static void set(const std::string& name, const std::string& value) {
        std::string n = name;
        std::string v = value;
        rv::glbv('w', n, v);
    }
    void type(const std::string& t) { set("gv_db_type", t); }

    std::string convert(const std::string& key, const std::string& value, bool expect_ok = true) {
        std::string msg = value;
        EXPECT_EQ(rv::iDB_CONVERT_DATE_TIME(key, msg, log), expect_ok) << key;
        return msg;
    }

    rvtest::Sandbox box;
    rv::str_log log;
};

TEST_F(DbDates, DateByType) {
    type("postgres");
    EXPECT_EQ(convert("DATE", "2006-10-18"), "2006-10-18 00:00:00");
    type("OpenAccess");
    EXPECT_EQ(convert("DATE", "2006-10-18"), "2006-10-18 00:00:00");
    type("ORACLE");
    EXPECT_EQ(convert("DATE", "2006-10-18"), "20061018");
    type("mysql");
    EXPECT_EQ(convert("DATE", "2006-10-18"), "");
}

TEST_F(DbDates, RavikDateByTheSecondLetterOfTheType) {
    type("ORACLE");
    EXPECT_EQ(convert("DATE_RAVIK", "20061018"), "2006-10-18");
    type("postgres");
    EXPECT_EQ(convert("DATE_RAVIK", "2006-10-18 12:34:56"), "2006-10-18");
    // The time is appended before the cut: a short date keeps part of it.
    EXPECT_EQ(convert("DATE_RAVIK", "2006-1-8"), "2006-1-8 0");
    type("OpenAccess");
    EXPECT_EQ(convert("DATE_RAVIK", "2006-10-18"), "2006-10-18");
    type("xRAY");  // any type with 'R' second counts as ORACLE here
    EXPECT_EQ(convert("DATE_RAVIK", "20061018"), "2006-10-18");
    type("sqlite");
    EXPECT_EQ(convert("DATE_RAVIK", "20061018"), "");
}

TEST_F(DbDates, DateTimeAndMaxColumn) {
    type("postgres");
    EXPECT_EQ(convert("DATE_TIME_RAVIK", "2006-10-18 12:34:56"), "2006-10-18 12:34:56");
    EXPECT_EQ(convert("DATE_TIME_RAVIK", std::string(40, '9')), std::string(31, '9'));
    EXPECT_EQ(convert("MAX", "max(id)"), "max");
    type("OpenAccess");
    EXPECT_EQ(convert("MAX", "max(id)"), "COL1");
    type("ORACLE");
    EXPECT_EQ(convert("MAX", "MAX(ID)"), "MAX(ID)");
    type("unknown");
    EXPECT_EQ(convert("MAX", "max(id)"), "");
    EXPECT_EQ(convert("DATE_TIME_RAVIK", "2006-10-18 12:34:56"), "");
}

TEST_F(DbDates, UnknownKeywordIsRefusedInEveryLanguage) {
    type("postgres");
    EXPECT_EQ(convert("MAXIMUM", "x", false), "wrong function-argument: MAXIMUM");
    rv::eLang = rv::LANG_DE;
    convert("DATA", "x", false);
    rv::eLang = rv::LANG_BA;
    convert("date", "x", false);
    std::vector<std::string> texts;
    for (const auto& line : rvtest::read_lines(box.path("prot.log"))) {
        const auto bracket = line.find('[');
        const auto colon = line.find("]: ");
        ASSERT_TRUE(bracket != std::string::npos && colon != std::string::npos && bracket >= 12)
            << line;
        texts.push_back(line.substr(bracket - 12, 12) + " " + line.substr(colon + 3));
    }
    const std::vector<std::string> expected = {
        "E008-DATABAS CONVERT_DATE_TIME: wrong parameter MAXIMUM",
        "E008-DATABAS CONVERT_DATE_TIME: falsches Argument DATA",
        "E008-DATABAS CONVERT_DATE_TIME: foisches Argument date",
    };
    EXPECT_EQ(texts, expected);
}

}  // namespace
