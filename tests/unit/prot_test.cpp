#include "log/prot.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/sandbox.hpp"

namespace {

#define RV_X10 "xxxxxxxxxx"
#define RV_X100 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10
#define RV_X1000 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100

class ProtTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset();
        rvtest::write_file(sb.dir("gv_rw_glbv") + "gv_prot.rgv", prot_file());
    }
    void TearDown() override { reset(); }

    static void reset() {
        rv::trace_reset();
        rv::eLang = rv::LANG_EN;
        rv::strLog = rv::str_log{};
    }

    std::string prot_file() const { return sb.path("prot.log"); }
    std::vector<std::string> prot_lines() const { return rvtest::read_lines(prot_file()); }

    // "<code>[<pid, six wide>]: " as every line of this process shows it.
    static std::string tag(const std::string& code) {
        std::string pid = std::to_string(getpid());
        if (pid.size() < 6) {
            pid.insert(0, 6 - pid.size(), ' ');
        }
        return code + "[" + pid + "]: ";
    }

    // True when `text` consists of digits and blanks only, ending in a digit.
    static bool is_number_field(std::string_view text) {
        return !text.empty() && std::isdigit(static_cast<unsigned char>(text.back())) &&
               text.find_first_not_of(" 0123456789") == std::string_view::npos;
    }

    // Text of a protocol line after "YYYY-MM-DD hh:mm:ss ", checking the stamp.
    static std::string after_stamp(const std::string& line) {
        const std::string_view shape = "9999-99-99 99:99:99 ";
        bool ok = line.size() >= shape.size();
        for (std::size_t i = 0; ok && i < shape.size(); ++i) {
            ok = shape[i] == '9' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0
                                 : line[i] == shape[i];
        }
        EXPECT_TRUE(ok) << line;
        return line.size() >= shape.size() ? line.substr(shape.size()) : line;
    }

    rvtest::Sandbox sb;
};

TEST_F(ProtTest, LineFormat) {
    rvtest::write_file(prot_file(), "earlier line\n");
    rv::PROT("E018-DATABAS %s with unexpected result: %s.", "select 1", "no rows");
    rv::PROT("E018-DATABAS %s", "m");
    rv::PROT("E003-BASICS  %s > %s", "a", "b");
    const std::vector<std::string> lines = prot_lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_EQ(after_stamp(lines[1]),
              tag("E018-DATABAS") + "select 1 with unexpected result: no rows.");
    EXPECT_EQ(after_stamp(lines[2]), tag("E018-DATABAS") + "m");
    EXPECT_EQ(after_stamp(lines[3]), tag("E003-BASICS ") + "a > b");
}

TEST_F(ProtTest, TextOfSeveralLines) {
    rv::PROT("W001-BASICS  first\n%s\n", "second");
    const std::vector<std::string> lines = prot_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(after_stamp(lines[0]), tag("W001-BASICS ") + "first");
    EXPECT_EQ(after_stamp(lines[1]), tag("W001-BASICS ") + "second");
    EXPECT_EQ(after_stamp(lines[2]), tag("W001-BASICS ") + "");
    EXPECT_EQ(lines[0].substr(0, 19), lines[1].substr(0, 19));
    EXPECT_EQ(lines[0].substr(0, 19), lines[2].substr(0, 19));
}

TEST_F(ProtTest, MisusedFormatsAreWarnedAbout) {
    rvtest::CaptureFd err(2);
    rv::PROT("E%s-BASICS x text", "1");
    rv::PROT("E001-BASICS");
    EXPECT_EQ(
        err.finish(),
        "PROT: WARNING: invalid usage of PROT: prefix with format argument '%s': >E%s-BASICS x<\n"
        "PROT: WARNING: format tag is too short: >E001-BASICS< (11 < 13)\n");
    const std::vector<std::string> lines = prot_lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(after_stamp(lines[0]),
              tag("W999-BASICS ") +
                  "Invalid usage of PROT: prefix with format argument '%s': >E%s-BASICS x<");
    // The message itself still follows, cut where a proper code would end.
    EXPECT_EQ(after_stamp(lines[1]), tag("E1-BASICS x ") + "ext");
    EXPECT_EQ(after_stamp(lines[2]),
              tag("W999-BASICS ") +
                  "Invalid usage of PROT: format tag is too short: >E001-BASICS< (11 < 13)");
    EXPECT_EQ(after_stamp(lines[3]), tag("E001-BASICS"));
}

TEST_F(ProtTest, OverlongOutputIsCutAndAnnounced) {
    const std::size_t prefix = 20 + tag("E001-BASICS ").size();

    // The formatted line is limited.
    rvtest::CaptureFd err(2);
    rv::PROT("E001-BASICS  %s", std::string(6000, 'y').c_str());
    const std::string announced = tag("E999-BASICS ") +
                                  "Error: The following output was shortened (5120 <> " +
                                  std::to_string(prefix + 6000) + ")";
    EXPECT_EQ(after_stamp(err.finish()), announced + "\n");
    std::vector<std::string> lines = prot_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(after_stamp(lines[0]), announced);
    EXPECT_EQ(lines[1].size(), rv::kProtTextLimit - 1);
    EXPECT_EQ(lines[1].substr(prefix), std::string(rv::kProtTextLimit - 1 - prefix, 'y'));

    // So is the line format, counted before the arguments are applied.
    std::filesystem::remove(prot_file());
    rvtest::CaptureFd err2(2);
    rv::PROT("E001-BASICS  " RV_X1000 RV_X1000 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100);
    err2.finish();
    lines = prot_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(after_stamp(lines[0]), tag("E999-BASICS ") +
                                         "Error: The following output was shortened (2560 <> " +
                                         std::to_string(prefix + 2600) + ")");
    EXPECT_EQ(lines[1].size(), rv::kProtFormatLimit - 1);
    EXPECT_EQ(lines[1].substr(prefix), std::string(rv::kProtFormatLimit - 1 - prefix, 'x'));

    // A line just within both limits is written whole, without a notice.
    std::filesystem::remove(prot_file());
    rv::PROT("E001-BASICS  %s", std::string(rv::kProtTextLimit - 1 - prefix, 'z').c_str());
    lines = prot_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].size(), rv::kProtTextLimit - 1);
}

TEST_F(ProtTest, WithoutProtocolFile) {
    std::filesystem::remove(sb.dir("gv_rw_glbv") + "gv_prot.rgv");
    rvtest::CaptureFd err(2);
    rv::PROT("E018-DATABAS %s", "m");
    EXPECT_EQ(err.finish(), "\nNo gv_prot defined! rv_start_all necessary!\n");
    EXPECT_FALSE(std::filesystem::exists(prot_file()));

    // A protocol file that cannot be opened swallows the message silently.
    rvtest::write_file(sb.dir("gv_rw_glbv") + "gv_prot.rgv", sb.path("no/such/dir/prot.log"));
    rvtest::CaptureFd err2(2);
    rv::PROT("E018-DATABAS %s", "m");
    EXPECT_EQ(err2.finish(), "");
}

TEST_F(ProtTest, TrapDbErrWritesInTheUsersLanguage) {
    rv::str_log log;
    log.szFile = sb.dir("gv_rw_lgc") + "t.lgc";
    log.iFlg = 1;
    const std::pair<rv::LANGUAGES, const char*> cases[] = {
        {rv::LANG_EN, "sel with unexpected result: boom."},
        {rv::LANG_DE, "sel erzeugte unerwartetes Ergebnis: boom."},
        {rv::LANG_BA, "sel mitm Fälla: boom."},
        {rv::LANG_FR, "sel with unexpected result: boom."},
        {rv::LANG_HR, "sel with unexpected result: boom."},
    };
    for (const auto& [lang, text] : cases) {
        rv::eLang = lang;
        rv::trap_db_err("sel", "boom", log, 0);
    }
    const std::vector<std::string> lines = prot_lines();
    ASSERT_EQ(lines.size(), std::size(cases));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(after_stamp(lines[i]), tag("E018-DATABAS") + cases[i].second);
    }
    const std::vector<std::string> trace = rvtest::read_lines(log.szFile);
    ASSERT_EQ(trace.size(), 2 * std::size(cases));
    EXPECT_EQ(trace[0].substr(8), "# +++ KRL TRAP_DB_ERR in cm_kernel 1.0  sel  boom");
    EXPECT_EQ(trace[1].substr(8), "# --- KRL TRAP_DB_ERR returns to caller");
    EXPECT_EQ(rv::trace_depth(), 0);
}

TEST_F(ProtTest, TrapDbErrCanEndTheProgram) {
    rv::str_log log;
    log.szFile = sb.dir("gv_rw_lgc") + "t.lgc";
    log.iFlg = 1;
    const std::string out = sb.path("stdout.txt");
    EXPECT_EXIT(
        {
            if (std::freopen(out.c_str(), "w", stdout) == nullptr) {
                std::_Exit(7);
            }
            rv::trap_db_err("sel", "boom", log, 1);
        },
        ::testing::ExitedWithCode(1), "");
    EXPECT_EQ(rvtest::read_file(out), "STATUS=ERROR MSG=\"sel: boom\"\n");
    // Written by the ended process, with its own pid.
    const std::vector<std::string> lines = prot_lines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string text = after_stamp(lines[0]);
    const std::string head = "E018-DATABAS[";
    const std::string tail = "]: sel with unexpected result: boom.";
    ASSERT_GT(text.size(), head.size() + tail.size()) << text;
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_TRUE(is_number_field(text.substr(head.size(), text.size() - head.size() - tail.size())))
        << text;
    const std::vector<std::string> trace = rvtest::read_lines(log.szFile);
    ASSERT_EQ(trace.size(), 2u);
    EXPECT_EQ(trace[1].substr(8), "# --- KRL TRAP_DB_ERR exits with 1");
}

}  // namespace
