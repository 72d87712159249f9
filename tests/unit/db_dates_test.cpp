// Date and column-name forms by database type (global variable gv_db_type).
#include <gtest/gtest.h>

#include "db/dates.hpp"
#include "log/prot.hpp"
#include "support/sandbox.hpp"

namespace {

struct Case {
    std::string type, key, in, out;
};

TEST(DbDates, FormsByDatabaseType) {
    rvtest::Sandbox box;
    const std::string prot = box.use_protocol();
    const Case cases[] = {
        {"postgres", "DATE", "2006-10-18", "2006-10-18 00:00:00"},
        {"ORACLE", "DATE", "2006-10-18", "20061018"},
        // DATE_RAVIK goes by the second letter of the type.
        {"ORACLE", "DATE_RAVIK", "20061018", "2006-10-18"},
        {"xRAY", "DATE_RAVIK", "20061018", "2006-10-18"},
        // The time is appended before the cut: a short date keeps part of it.
        {"postgres", "DATE_RAVIK", "2006-1-8", "2006-1-8 0"},
        {"sqlite", "DATE_RAVIK", "20061018", ""},
        {"postgres", "DATE_TIME_RAVIK", "2006-10-18 12:34:56", "2006-10-18 12:34:56"},
        {"postgres", "MAX", "max(id)", "max"},
        {"OpenAccess", "MAX", "max(id)", "COL1"},
        {"unknown", "MAX", "max(id)", ""},
    };
    for (const auto& c : cases) {
        box.set_glbv("gv_db_type", c.type);
        std::string msg = c.in;
        EXPECT_TRUE(rv::iDB_CONVERT_DATE_TIME(c.key, msg)) << c.type << " " << c.key;
        EXPECT_EQ(msg, c.out) << c.type << " " << c.key << " " << c.in;
    }

    // An unknown keyword is refused in every language.
    box.set_glbv("gv_db_type", "postgres");
    const std::pair<rv::LANGUAGES, const char*> unknown[] = {
        {rv::LANG_EN, "MAXIMUM"}, {rv::LANG_DE, "DATA"}, {rv::LANG_BA, "date"}};
    for (const auto& [lang, key] : unknown) {
        rv::eLang = lang;
        std::string msg = "x";
        EXPECT_FALSE(rv::iDB_CONVERT_DATE_TIME(key, msg));
        EXPECT_EQ(msg, std::string("wrong function-argument: ") + key);
    }
    rv::eLang = rv::LANG_EN;
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (std::vector<std::string>{"E008-DATABAS CONVERT_DATE_TIME: wrong parameter MAXIMUM",
                                        "E008-DATABAS CONVERT_DATE_TIME: falsches Argument DATA",
                                        "E008-DATABAS CONVERT_DATE_TIME: foisches Argument date"}));
}

}  // namespace
