// Command steps: the rewriting of words (dates, paths, global variables,
// Windows command words) and the removal command.
#include "steps/command.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "config/product.hpp"
#include "log/finish.hpp"
#include "support/fake_runner.hpp"
#include "support/sandbox.hpp"

namespace {

class CommandWords : public ::testing::Test {
  protected:
    void SetUp() override { box.set_glbv("gv_export", "/exp/"); }
    void TearDown() override { rv::pathes.separator = '/'; }
    // `text` with every 14-digit time stamp replaced by "<stamp>".
    static std::string stamped(const std::string& text) {
        return std::regex_replace(text, std::regex("[0-9]{14}"), "<stamp>");
    }
    std::string windows(std::string path) const {
        std::replace(path.begin(), path.end(), '/', '\\');
        return path;
    }

    rvtest::Sandbox box;
    std::string work = box.dir("gv_rw_work");
};

TEST_F(CommandWords, DatesPathsAndGlobalVariables) {
    const std::pair<std::string, std::string> cases[] = {
        {"gv_date", "<stamp>"},
        {"xgv_datey", "xgv_datey"},
        {"a:gv_date:b", "a<stamp>b"},
        {"gv_date:.tar", "<stamp>.tar"},
        // A date inside a path word: the date first, then the path.
        {"gv_rw_work:db_:gv_date:.tar", work + "db_<stamp>.tar"},
        {"gv_rw_work:db_x.tmp", work + "db_x.tmp"},
        {"gv_export:a.sql", "/exp/a.sql"},
        {"--file=:gv_export:x", "--file=/exp/x"},
        {":gv_rw_work:x", ":gv_rw_work:x"},
        {"gv_unknown:x", "gv_unknown:x"},
        {"ls", "ls"},
    };
    for (const auto& [word, result] : cases) {
        EXPECT_EQ(stamped(rv::rewrite_command_word(word)), result) << word;
    }
    // The command line begins with a blank and joins runs of blanks.
    EXPECT_EQ(rv::build_command_line("ls -latr ;"), " ls -latr ;");
    EXPECT_EQ(rv::build_command_line("  cp  a   b "), " cp a b");
    EXPECT_EQ(rv::rmdir_command("gv_rw_work:old"), "rm -rf " + work + "old");
}

TEST_F(CommandWords, WindowsTranslations) {
    rv::pathes.separator = '\\';
    const std::pair<std::string, std::string> cases[] = {
        {"ls -latr ;", " dir /od &"},
        {"ls -l", " dir "},
        {"cp a b; rm c", " copy /y a b& del /f c"},
        {"cd x ; date -ltr -atr -la", " cd /d x & date /t /od /od "},
        {"LS", " LS"},
        {"gv_date", " <stamp>"},
        {"type gv_rw_work:a/b", " type " + windows(work) + "a\\b"},
    };
    for (const auto& [line, result] : cases) {
        EXPECT_EQ(stamped(rv::build_command_line(line)), result) << line;
    }
    EXPECT_EQ(rv::rmdir_command("gv_rw_work:old /q"), "del \\s \\f " + windows(work) + "old \\q");
}

TEST_F(CommandWords, OverlongRemovalIsRefusedAndAnEmptyLineEndsTheRun) {
    const std::string victim = work + "keep";
    rvtest::write_file(victim + "/file", "x");
    rvtest::FakeRunner runner;
    rvtest::CaptureFd out(1);
    rv::iRmDir(victim + "/" + std::string(rv::kRmDirCommandMax, 'x'));
    EXPECT_EQ(runner.ran, std::vector<std::string>{});
    EXPECT_NE(out.finish().find("iRmDir: command longer than 511 characters, nothing removed: "
                                "rm -rf " +
                                victim),
              std::string::npos);
    EXPECT_EQ(rvtest::read_file(victim + "/file"), "x");
    EXPECT_THROW(rv::build_command_line("   "), rv::Fatal);
}

}  // namespace
