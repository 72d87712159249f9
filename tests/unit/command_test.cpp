// Command steps: the rewriting of words (dates, paths, global variables,
// Windows command words) and the removal command.
#include "steps/command.hpp"

#include <gtest/gtest.h>

#include "config/product.hpp"
#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

bool is_stamp(const std::string& s) {
    return s.size() == 14 && s.find_first_not_of("0123456789") == std::string::npos;
}

class CommandWords : public ::testing::Test {
protected:
    void SetUp() override {
        rv::pathes.separator = '/';
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_export.rgv", "/exp/");
        work = box.dir("gv_rw_work");
    }
    void TearDown() override { rv::pathes.separator = '/'; }

    rvtest::Sandbox box;
    std::string work;
};

TEST_F(CommandWords, DateWords) {
    EXPECT_TRUE(is_stamp(rv::rewrite_command_word("gv_date")));
    EXPECT_EQ(rv::rewrite_command_word("xgv_datey"), "xgv_datey");
    const std::string inner = rv::rewrite_command_word("a:gv_date:b");
    ASSERT_EQ(inner.size(), 16u);
    EXPECT_EQ(inner.front(), 'a');
    EXPECT_EQ(inner.back(), 'b');
    EXPECT_TRUE(is_stamp(inner.substr(1, 14)));
    const std::string lead = rv::rewrite_command_word("gv_date:.tar");
    EXPECT_TRUE(is_stamp(lead.substr(0, 14)));
    EXPECT_EQ(lead.substr(14), ".tar");
    // A date inside a path word: the date first, then the path.
    const std::string both = rv::rewrite_command_word("gv_rw_work:db_:gv_date:.tar");
    EXPECT_EQ(both.rfind(work + "db_", 0), 0u) << both;
}

TEST_F(CommandWords, PathsAndGlobalVariables) {
    EXPECT_EQ(rv::rewrite_command_word("gv_rw_work:db_x.tmp"), work + "db_x.tmp");
    EXPECT_EQ(rv::rewrite_command_word("gv_export:a.sql"), "/exp/a.sql");
    EXPECT_EQ(rv::rewrite_command_word("--file=:gv_export:x"), "--file=/exp/x");
    EXPECT_EQ(rv::rewrite_command_word(":gv_rw_work:x"), ":gv_rw_work:x");
    EXPECT_EQ(rv::rewrite_command_word("gv_unknown:x"), "gv_unknown:x");
    EXPECT_EQ(rv::rewrite_command_word("ls"), "ls");
}

TEST_F(CommandWords, CommandLineBeginsWithABlankAndJoinsRunsOfBlanks) {
    EXPECT_EQ(rv::build_command_line("ls -latr ;"), " ls -latr ;");
    EXPECT_EQ(rv::build_command_line("  cp  a   b "), " cp a b");
}

TEST_F(CommandWords, WindowsTranslations) {
    rv::pathes.separator = '\\';
    EXPECT_EQ(rv::build_command_line("ls -latr ;"), " dir /od &");
    EXPECT_EQ(rv::build_command_line("ls -l"), " dir ");
    EXPECT_EQ(rv::build_command_line("cp a b; rm c"), " copy /y a b& del /f c");
    EXPECT_EQ(rv::build_command_line("cd x ; date -ltr -atr -la"), " cd /d x & date /t /od /od ");
    EXPECT_EQ(rv::build_command_line("LS"), " LS");
    EXPECT_TRUE(is_stamp(rv::build_command_line("gv_date").substr(1)));
    std::string dir = work;
    std::replace(dir.begin(), dir.end(), '/', '\\');
    EXPECT_EQ(rv::build_command_line("type gv_rw_work:a/b"), " type " + dir + "a\\b");
}

TEST_F(CommandWords, RemovalCommand) {
    EXPECT_EQ(rv::rmdir_command("gv_rw_work:old"), "rm -rf " + work + "old");
    rv::pathes.separator = '\\';
    std::string dir = work;
    std::replace(dir.begin(), dir.end(), '/', '\\');
    EXPECT_EQ(rv::rmdir_command("gv_rw_work:old /q"), "del \\s \\f " + dir + "old \\q");
}

TEST_F(CommandWords, OverlongRemovalIsRefused) {
    const std::string victim = work + "keep";
    rvtest::write_file(victim + "/file", "x");
    const std::string path = victim + "/" + std::string(rv::kRmDirCommandMax, 'x');
    rvtest::CaptureFd out(1);
    EXPECT_EQ(rv::iRmDir(path), 1);
    EXPECT_NE(out.finish().find("iRmDir: command longer than 511 characters, nothing removed: rm -rf " + victim),
              std::string::npos);
    EXPECT_EQ(rvtest::read_file(victim + "/file"), "x");
}

TEST(CommandWordsDeathTest, TextWithoutWordsEndsTheRun) {
    EXPECT_EXIT(rv::build_command_line("   "), ::testing::ExitedWithCode(2), "");
}

}  // namespace
