// The protocol log: line format, cut output, a missing protocol file, and the
// database error trap in every language.
#include "log/prot.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <regex>

#include "support/product_test.hpp"

namespace {

using Lines = std::vector<std::string>;

#define RV_X10 "xxxxxxxxxx"
#define RV_X100 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10
#define RV_X1000 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100

class ProtTest : public rvtest::ProductTest {
  protected:
    // "YYYY-MM-DD hh:mm:ss <code>[<pid six wide>]: <text>" as this process writes it.
    static std::string line(const std::string& code, const std::string& text) {
        const std::string pid = std::to_string(getpid());
        return code + "[" + std::string(6 - std::min<std::size_t>(6, pid.size()), ' ') + pid +
               "]: " + text;
    }
    static std::string unstamp(const std::string& text) {
        static const std::regex stamp("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} .*");
        EXPECT_TRUE(std::regex_match(text.substr(0, text.find('\n')), stamp)) << text;
        return text.substr(std::min<std::size_t>(20, text.size()));
    }
};

TEST_F(ProtTest, LineFormat) {
    rvtest::write_file(prot, "earlier line\n");
    rv::PROT("E018-DATABAS %s with unexpected result: %s.", "select 1", "no rows");
    rv::PROT("E003-BASICS  %s > %s", "a", "b");
    // Every line of a text of several gets the stamp and code.
    rv::PROT("W001-BASICS  first\n%s\n", "second");
    const Lines lines = rvtest::read_lines(prot);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_EQ(unstamp(lines[1]), line("E018-DATABAS", "select 1 with unexpected result: no rows."));
    EXPECT_EQ(unstamp(lines[2]), line("E003-BASICS ", "a > b"));
    EXPECT_EQ(unstamp(lines[3]), line("W001-BASICS ", "first"));
    EXPECT_EQ(unstamp(lines[4]), line("W001-BASICS ", "second"));
    EXPECT_EQ(unstamp(lines[5]), line("W001-BASICS ", ""));
    EXPECT_EQ(lines[3].substr(0, 19), lines[5].substr(0, 19));
}

TEST_F(ProtTest, OverlongOutputIsCutAndAnnounced) {
    const std::size_t prefix = 20 + line("E001-BASICS ", "").size();
    const auto announced = [&](std::size_t limit, std::size_t size) {
        return line("E999-BASICS ", "Error: The following output was shortened (" +
                                        std::to_string(limit) + " <> " +
                                        std::to_string(prefix + size) + ")");
    };
    EXPECT_EQ(unstamp(rvtest::capture(
                  2, [] { rv::PROT("E001-BASICS  %s", std::string(6000, 'y').c_str()); })),
              announced(5120, 6000) + "\n");
    // So is the line format, counted before the arguments are applied.
    rv::PROT("E001-BASICS  " RV_X1000 RV_X1000 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100);
    // A line just within both limits is written whole, without a notice.
    rv::PROT("E001-BASICS  %s", std::string(rv::kProtTextLimit - 1 - prefix, 'z').c_str());
    const Lines lines = rvtest::read_lines(prot);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(unstamp(lines[0]), announced(5120, 6000));
    EXPECT_EQ(lines[1].substr(prefix), std::string(rv::kProtTextLimit - 1 - prefix, 'y'));
    EXPECT_EQ(unstamp(lines[2]), announced(2560, 2600));
    EXPECT_EQ(lines[3].substr(prefix), std::string(rv::kProtFormatLimit - 1 - prefix, 'x'));
    EXPECT_EQ(lines[4].size(), rv::kProtTextLimit - 1);
}

TEST_F(ProtTest, WithoutProtocolFile) {
    std::filesystem::remove(box.dir("gv_rw_glbv") + "gv_prot.rgv");
    const auto write = [] { rv::PROT("E018-DATABAS %s", "m"); };
    EXPECT_EQ(rvtest::capture(2, write), "\nNo gv_prot defined! rv_start_all necessary!\n");
    EXPECT_FALSE(std::filesystem::exists(prot));

    // A protocol file that cannot be opened: the message goes to standard error.
    box.set_glbv("gv_prot", box.path("no/such/dir/prot.log"));
    EXPECT_EQ(rvtest::capture(2, write),
              "PROT: cannot write " + box.path("no/such/dir/prot.log") + " (No such file or directory): E018-DATABAS m\n");

    // gv_prot cannot be read (its file is a directory, or the name of its
    // file is too long): the message and the failed read each reach
    // standard error once, and the run goes on.
    const std::string var = box.dir("gv_rw_glbv") + "gv_prot.rgv";
    std::filesystem::remove(var);
    std::filesystem::create_directory(var);
    EXPECT_EQ(rvtest::capture(2, write),
              "glbv() read " + var + " failed: Is a directory (21)\n"
              "PROT: Error: GLBV: ?? GLBV gv_prot not existing: Is a directory\n"
              "PROT: protocol file unknown (?? GLBV gv_prot not existing: Is a directory): E018-DATABAS m\n");
    box.set_path_key("gv_rw_glbv", "/" + std::string(10000, 'g') + "/");
    const std::string err = rvtest::capture(2, write);
    EXPECT_NE(err.find("PROT: protocol file unknown (?? GLBV gv_prot not existing: File name too long): "
                       "E018-DATABAS m\n"),
              std::string::npos)
        << err;

    // Without a directory for global variables there is no protocol file
    // either: no file named after glbv's fatal text appears.
    box.set_path_key("gv_rw_glbv", "");
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(box.root());
    EXPECT_EQ(rvtest::capture(2, write), "\nNo gv_prot defined! rv_start_all necessary!\n");
    std::filesystem::current_path(cwd);
    for (const auto& entry : std::filesystem::directory_iterator(box.root())) {
        EXPECT_EQ(entry.path().filename().string().find("Fatal"), std::string::npos) << entry.path();
    }
}

TEST_F(ProtTest, TrapDbErrWritesInTheUsersLanguage) {
    const std::pair<rv::LANGUAGES, const char*> cases[] = {
        {rv::LANG_EN, "E018-DATABAS sel with unexpected result: boom."},
        {rv::LANG_DE, "E018-DATABAS sel erzeugte unerwartetes Ergebnis: boom."},
        {rv::LANG_BA, "E018-DATABAS sel mitm Fälla: boom."},
        {rv::LANG_FR, "E018-DATABAS sel with unexpected result: boom."},
    };
    Lines expected;
    for (const auto& [lang, text] : cases) {
        rv::eLang = lang;
        rv::trap_db_err("sel", "boom");
        expected.push_back(text);
    }
    EXPECT_EQ(rvtest::protocol_texts(prot), expected);
}

}  // namespace
