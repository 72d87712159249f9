// Step conditions: release and database type tests.
#include "update/condition.hpp"

#include <gtest/gtest.h>

#include "config/product.hpp"
#include "support/sandbox.hpp"

namespace {

class Condition : public ::testing::Test {
  protected:
    void SetUp() override {
        rv::pathes.version_old = "1.6.4.71";
        rv::pathes.version = "2.0.1.15";
    }
    void TearDown() override {
        rv::pathes.version_old.clear();
        rv::pathes.version.clear();
    }
    rvtest::Sandbox box;
};

TEST_F(Condition, ReleasesCompareByCharacterAndOperatorsByTheirCharacters) {
    box.set_glbv("gv_db_type", "POSTGRESQL");
    const std::pair<const char*, bool> cases[] = {
        // A release prefix matches every build of it: equal, so an operator
        // holds by its '=' (=> and != alike), never without (<> and ~ alike).
        {"$old_version == \"1.6.4.\"", true}, {"$old_version => \"1.6.4.\"", true}, {"$old_version != \"1.6.4.\"", true},
        {"$new_version <> \"2.0.1.\"", false}, {"$old_version ~ \"1.6.4.\"", false},
        {"$old_version < \"2.0.1.\"", true}, {"$old_version > \"1.6.4.\"", false},
        {"$new_version >= \"2.0.1.\"", true},
        {"$new_version <> $old_version", true}, {"\"1.10.\" < \"1.9.\"", true},
        {"$old_version != \"1.6.5.\"", false},
        {"$old_version >", true},              // a missing argument: whole texts
        {"$old_version < 1.6.4.", true},       // meets the other side's quote
        // One word tests the database type; two blanks make the operator empty.
        {"postgresql", true}, {"oracle", false},
        {"$old_version  < \"2.0.1.\"", false},
    };
    // Whether `text` holds, and the text afterwards.
    const auto check = [](std::string text) {
        const bool holds = rv::iCondition(text);
        return std::to_string(holds) + text;
    };
    for (const auto& [text, holds] : cases) EXPECT_EQ(check(text).front(), holds ? '1' : '0') << text;
    // A comparison is rewritten with the versions in place; a type word is not.
    EXPECT_EQ(check("$old_version < \"2.0.1.\""), "1[ \"1.6.4.71\" < \"2.0.1.\" ]");
    box.set_glbv("gv_db_type", "");
    EXPECT_EQ(check("postgresql"), "0postgresql");
    rv::pathes.version = rv::pathes.version_old;
    EXPECT_EQ(check("$new_version <> $old_version").front(), '0');
}

}  // namespace
