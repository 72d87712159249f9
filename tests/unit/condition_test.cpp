// Step conditions and the parser's field reader.
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
    void set_db_type(const std::string& type) {
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_db_type.rgv", type);
    }
    static bool holds(std::string text) { return rv::iCondition(text); }

    rvtest::Sandbox box;
};

TEST_F(Condition, ReleasePrefixMatchesEveryBuild) {
    EXPECT_TRUE(holds("$old_version < \"2.0.1.\""));
    EXPECT_TRUE(holds("$old_version == \"1.6.4.\""));
    EXPECT_FALSE(holds("$old_version > \"1.6.4.\""));
    EXPECT_TRUE(holds("$new_version == \"2.0.1.\""));
    EXPECT_TRUE(holds("$new_version >= \"2.0.1.\""));
    EXPECT_FALSE(holds("$new_version <> \"2.0.1.\""));
    EXPECT_TRUE(holds("$new_version <> $old_version"));
    rv::pathes.version = rv::pathes.version_old;
    EXPECT_FALSE(holds("$new_version <> $old_version"));
}

TEST_F(Condition, ComparisonIsByCharacterAndOperatorByItsCharacters) {
    EXPECT_TRUE(holds("\"1.10.\" < \"1.9.\""));
    EXPECT_TRUE(holds("$old_version => \"1.6.4.\""));   // like >=
    EXPECT_TRUE(holds("$old_version != \"1.6.4.\""));   // '=' in it: holds on equality
    EXPECT_FALSE(holds("$old_version != \"1.6.5.\""));
    EXPECT_FALSE(holds("$old_version ~ \"1.6.4.\""));    // none of = < >: never holds
    // A missing second argument compares the whole texts.
    EXPECT_TRUE(holds("$old_version >"));
    // An unquoted literal meets the other side's opening quote.
    EXPECT_TRUE(holds("$old_version < 1.6.4."));
}

TEST_F(Condition, ComparisonRewritesTheText) {
    std::string text = "$old_version < \"2.0.1.\"";
    EXPECT_TRUE(rv::iCondition(text));
    EXPECT_EQ(text, "[ \"1.6.4.71\" < \"2.0.1.\" ]");
    text = "\"a\" == $new_version";
    rv::iCondition(text);
    EXPECT_EQ(text, "[ \"a\" == \"2.0.1.15\" ]");
}

TEST_F(Condition, OneWordTestsTheDatabaseType) {
    set_db_type("POSTGRESQL");
    std::string text = "postgresql";
    EXPECT_TRUE(rv::iCondition(text));
    EXPECT_EQ(text, "postgresql");  // not rewritten
    EXPECT_FALSE(holds("oracle"));
    // Two blanks make the operator empty: a database type test of the word.
    EXPECT_FALSE(holds("$old_version  < \"2.0.1.\""));
    set_db_type("");
    EXPECT_FALSE(holds("postgresql"));
}

TEST(GetString, CutsAtTheSeparatorAndTrims) {
    std::string out;
    EXPECT_EQ(rv::get_string("cmd  ls -l", out, 0, ' '), 4u);
    EXPECT_EQ(out, "cmd");
    EXPECT_EQ(rv::get_string("[ $a < \"b\" ] && cmd", out, 2, ']'), 12u);
    EXPECT_EQ(out, "$a < \"b\"");
    EXPECT_EQ(rv::get_string("sql  db \tselect 1 ", out, 5, '\0'), 19u);
    EXPECT_EQ(out, "db \tselect 1");
    // Without a separator the position lies one behind the end; reading on
    // from there gives nothing.
    EXPECT_EQ(rv::get_string("exit", out, 0, ' '), 5u);
    EXPECT_EQ(rv::get_string("exit", out, 5, ' '), 6u);
    EXPECT_EQ(out, "");
}

}  // namespace
