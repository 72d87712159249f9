#include "log/trace.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/environment.hpp"
#include "support/sandbox.hpp"

namespace {

class TraceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset();
        rvtest::write_file(sb.dir("gv_rw_glbv") + "gv_prot.rgv", prot_file());
        log.szFile = trace_file();
        log.iFlg = 1;
    }
    void TearDown() override { reset(); }

    static void reset() {
        rv::trace_reset();
        rv::eLang = rv::LANG_EN;
        rv::strLog = rv::str_log{};
    }

    std::string trace_file() const { return sb.dir("gv_rw_lgc") + "t.lgc"; }
    std::string prot_file() const { return sb.path("prot.log"); }

    // Lines of the trace file without their "hh:mm:ss#" stamp.
    std::vector<std::string> trace_lines() const {
        return unstamp(rvtest::read_lines(trace_file()));
    }

    // "hh:mm:ss#" with the hour right-aligned in two places.
    static bool has_stamp(const std::string& line) {
        const std::string_view shape = "_9:99:99#";
        if (line.size() < shape.size()) {
            return false;
        }
        for (std::size_t i = 0; i < shape.size(); ++i) {
            const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
            const bool ok = shape[i] == '9'   ? digit
                            : shape[i] == '_' ? (digit || line[i] == ' ')
                                              : line[i] == shape[i];
            if (!ok) {
                return false;
            }
        }
        return true;
    }

    static std::vector<std::string> unstamp(const std::vector<std::string>& lines) {
        std::vector<std::string> out;
        for (const auto& line : lines) {
            EXPECT_TRUE(has_stamp(line)) << line;
            out.push_back(line.size() >= 9 ? line.substr(9) : line);
        }
        return out;
    }

    static std::vector<std::string> split_lines(const std::string& text) {
        std::vector<std::string> lines;
        std::size_t start = 0;
        for (std::size_t nl = text.find('\n'); nl != std::string::npos;
             nl = text.find('\n', start)) {
            lines.push_back(text.substr(start, nl - start));
            start = nl + 1;
        }
        return lines;
    }

    rvtest::Sandbox sb;
    rv::str_log log;
};

TEST_F(TraceTest, EntryAndExitLinesIndentWhatIsBetween) {
    rv::WRITE_TRACE(&log, "+++ OUTER %d", 1);
    rv::WRITE_TRACE(&log, "+++ INNER %s", "x");
    rv::WRITE_TRACE(&log, "detail %s=%d", "n", 7);
    rv::WRITE_TRACE(&log, "--- INNER returns %d", 1);
    rv::WRITE_TRACE(&log, "--- OUTER");
    EXPECT_EQ(trace_lines(),
              (std::vector<std::string>{" +++ OUTER 1", "   +++ INNER x", "     detail n=7",
                                        "   --- INNER returns 1", " --- OUTER"}));
    EXPECT_EQ(rv::trace_depth(), 0);
    EXPECT_EQ(log.szIns, "");

    // An exit line at depth 0 still shortens the indentation; the depth stays 0.
    log.szIns = "    ";
    rv::WRITE_TRACE(&log, "--- STRAY");
    EXPECT_EQ(log.szIns, "  ");
    EXPECT_EQ(rv::trace_depth(), 0);
    log.szIns = "x";
    rv::WRITE_TRACE(&log, "--- STRAY");
    EXPECT_EQ(log.szIns, "");
    EXPECT_EQ(rv::trace_depth(), 0);
}

TEST_F(TraceTest, IndentationStopsGrowingAtFifteenSteps) {
    log.szFile.clear();
    for (int i = 0; i < 17; ++i) {
        rv::WRITE_TRACE(&log, "+++ F%d", i);
    }
    EXPECT_EQ(rv::trace_depth(), 17);
    EXPECT_EQ(log.szIns, std::string(30, ' '));
    rv::WRITE_TRACE(&log, "--- F16");
    EXPECT_EQ(log.szIns.size(), 30u);
    rv::WRITE_TRACE(&log, "--- F15");
    EXPECT_EQ(log.szIns.size(), 30u);
    rv::WRITE_TRACE(&log, "--- F14");
    EXPECT_EQ(log.szIns.size(), 28u);
    EXPECT_EQ(rv::trace_depth(), 14);
}

TEST_F(TraceTest, EchoAndLostLines) {
    log.iVerify = 1;
    rvtest::CaptureFd err(2);
    rv::WRITE_TRACE(&log, "+++ ECHO %s", "on");
    log.iVerify = 0;
    rv::WRITE_TRACE(&log, "quiet");
    // A trace file that cannot be opened loses the line, but the echo is printed.
    log.iVerify = 1;
    log.szFile = sb.path("missing/dir/t.lgc");
    rv::WRITE_TRACE(&log, "lost");
    log.szFile.clear();
    rv::WRITE_TRACE(&log, "nowhere");
    EXPECT_EQ(unstamp(split_lines(err.finish())),
              (std::vector<std::string>{" +++ ECHO on", "   lost", "   nowhere"}));
    EXPECT_EQ(trace_lines(), (std::vector<std::string>{" +++ ECHO on", "   quiet"}));

    // No line limit: a long text arrives whole.
    log.szFile = trace_file();
    log.iVerify = 0;
    const std::string longText(3000, 'L');
    rv::WRITE_TRACE(&log, "%s|", longText.c_str());
    EXPECT_EQ(trace_lines().back(), "   " + longText + "|");
}

TEST_F(TraceTest, CopyFileIntoTheTrace) {
    const std::string src = sb.path("copy.txt");
    rvtest::write_file(src, "one\n\ntwo\n" + std::string(300, 'a') + "\nlast");
    log.szIns = "  ";
    log.iVerify = 1;
    rvtest::CaptureFd err(2);
    rv::WRITE_TRACE_COPY_FILE(&log, src);
    rv::WRITE_TRACE_COPY_FILE(&log, sb.path("nope.txt"));
    const std::vector<std::string> echo = unstamp(split_lines(err.finish()));

    // Pieces of at most 254 characters, each losing its last character.
    const std::vector<std::string> lines = trace_lines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "      one");
    EXPECT_EQ(lines[1], "      ");
    EXPECT_EQ(lines[2], "      two");
    EXPECT_EQ(lines[3], "      " + std::string(253, 'a'));
    EXPECT_EQ(lines[4], "      " + std::string(46, 'a'));
    EXPECT_EQ(lines[5], "      las");
    EXPECT_EQ(lines[6], "   File " + sb.path("nope.txt") + " not found");

    ASSERT_EQ(echo.size(), 9u);
    EXPECT_EQ(echo[0], "   COPY_FILE");
    EXPECT_EQ(echo[1], "   one");
    EXPECT_EQ(echo[6], "   las");
    EXPECT_EQ(echo[7], "   COPY_FILE");
    EXPECT_EQ(echo[8], " File " + sb.path("nope.txt") + " not found");
    EXPECT_EQ(rv::trace_depth(), 0);
}

TEST_F(TraceTest, LevelFromDebugSettings) {
    sb.write_debug_ini("OTHER=5\nRV_DB_UPDATE=2\nRV_DB_UPDATE=3\nSTDERR=1\nLAST=12");
    EXPECT_EQ(rv::log_check("rv_db_update"), 2);
    EXPECT_EQ(rv::log_check("STDERR"), 1);
    EXPECT_EQ(rv::log_check("unknown"), 0);
    EXPECT_EQ(rv::log_check("OTHER="), 0);
    // The last line has no line feed: its last character is cut all the same.
    EXPECT_EQ(rv::log_check("last"), 1);

    // The file's text is compared as it stands.
    sb.write_debug_ini("rv_db_update=3\n");
    EXPECT_EQ(rv::log_check("rv_db_update"), 0);

    std::filesystem::remove(sb.dir("gv_rw_ini") + "debug.ini");
    EXPECT_EQ(rv::log_check("rv_db_update"), 0);

    // Without gv_rw_ini the lookup is reported and the level is 0.
    sb.set_path_key("gv_rw_ini", "");
    rvtest::CaptureFd err(2);
    EXPECT_EQ(rv::log_check("rv_db_update"), 0);
    EXPECT_EQ(err.finish(), "FATAL: SET_LOG_MAIN: gv_rw_ini not set");
    const std::string prot = rvtest::read_file(prot_file());
    EXPECT_NE(prot.find(" E003-BASICS ["), std::string::npos) << prot;
    EXPECT_NE(prot.find("]: LOG_CHECK > gv_rw_ini not yet existing - please restart RAVIK.\n"),
              std::string::npos)
        << prot;
}

TEST_F(TraceTest, SetLogMainSetsUpTheContext) {
    sb.write_debug_ini("RV_DB_UPDATE=2\nSTDERR=1\n");
    sb.extra_sections = "[SETUP]\nlang=de\n";
    sb.write_rv_ini();
    rvtest::CaptureFd err(2);
    rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE", &rv::strLog);
    rv::strLog.szIns = "changed";
    rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE", &rv::strLog);
    err.finish();

    const std::string file = sb.dir("gv_rw_lgc") + "rv_db_update.lgc";
    EXPECT_EQ(rv::strLog.szFile, file);
    EXPECT_EQ(rv::strLog.iFlg, 2);
    EXPECT_EQ(rv::strLog.iVerify, 1);
    EXPECT_EQ(rv::strLog.szIns, "");
    EXPECT_EQ(rv::eLang, rv::LANG_DE);
    EXPECT_EQ(rv::local_log().szFile, file);
    EXPECT_EQ(rv::local_log().iFlg, 2);

    const std::vector<std::string> lines = unstamp(rvtest::read_lines(file));
    ASSERT_EQ(lines.size(), 3u);
    const std::string head =
        " Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID=" + std::to_string(getpid()) +
        ", parent process: ";
    EXPECT_EQ(lines[0].substr(0, head.size()), head);
    const std::string ppid = "(PPID=" + std::to_string(getppid()) + ")";
    EXPECT_EQ(lines[0].substr(lines[0].size() - ppid.size()), ppid);
    EXPECT_EQ(lines[1], " set language to de");
    EXPECT_EQ(lines[2], " set language to de");

    std::string parent;
    EXPECT_TRUE(rv::get_parent_info(parent));
    EXPECT_EQ(lines[0].substr(head.size()), parent);

    // A file name that already holds the directory is taken as it is; the
    // context kept for code without one stays the first.
    const std::string second = sb.dir("gv_rw_lgc") + "second.lgc";
    rv::str_log other;
    rvtest::CaptureFd err2(2);
    rv::v_set_log_main(second, "RV_DB_UPDATE", &other);
    err2.finish();
    EXPECT_EQ(other.szFile, second);
    EXPECT_EQ(rv::local_log().szFile, file);
}

TEST_F(TraceTest, LanguageSelection) {
    sb.write_debug_ini("RV_DB_UPDATE=1\n");
    const std::pair<const char*, rv::LANGUAGES> cases[] = {
        {"de", rv::LANG_DE}, {"de_BA", rv::LANG_BA}, {"fr", rv::LANG_FR},
        {"hr", rv::LANG_HR}, {"DE", rv::LANG_EN},    {"en", rv::LANG_EN},
    };
    for (const auto& [lang, expected] : cases) {
        rv::eLang = rv::LANG_HR;
        sb.extra_sections = std::string("[SETUP]\nlang=") + lang + "\n";
        sb.write_rv_ini();
        rv::str_log ctx;
        rv::v_set_log_main("x.lgc", "RV_DB_UPDATE", &ctx);
        EXPECT_EQ(rv::eLang, expected) << lang;
    }
    // Level 1 does not name the language.
    const std::string file = sb.dir("gv_rw_lgc") + "x.lgc";
    EXPECT_EQ(rvtest::read_file(file).find("set language"), std::string::npos);

    // Without the key the text is written whatever the level.
    std::filesystem::remove(file);
    sb.write_debug_ini("");
    sb.extra_sections.clear();
    sb.write_rv_ini();
    rv::eLang = rv::LANG_DE;
    rv::str_log ctx;
    rv::v_set_log_main("x.lgc", "RV_DB_UPDATE", &ctx);
    EXPECT_EQ(ctx.iFlg, 0);
    EXPECT_EQ(rv::eLang, rv::LANG_EN);
    EXPECT_EQ(unstamp(rvtest::read_lines(file)),
              (std::vector<std::string>{" didn't find key lang in rv.ini > set language to en"}));
}

TEST_F(TraceTest, SetLogMainWithoutTraceDirectory) {
    sb.set_path_key("gv_rw_lgc", "");
    sb.write_debug_ini("RV_DB_UPDATE=2\n");
    rv::eLang = rv::LANG_DE;
    rv::str_log ctx;
    ctx.iFlg = 3;
    rvtest::CaptureFd err(2);
    rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE", &ctx);
    EXPECT_EQ(err.finish(), "FATAL: SET_LOG_MAIN: gv_rw_lgc not set");
    EXPECT_EQ(ctx.szFile, "");
    EXPECT_EQ(ctx.iFlg, 3);
    EXPECT_EQ(rv::local_log().szFile, "");
    const std::string prot = rvtest::read_file(prot_file());
    EXPECT_NE(prot.find("]: SET_LOG_MAIN > gv_rw_lgc existiert noch nicht - Neustart\n"),
              std::string::npos)
        << prot;

    rv::eLang = rv::LANG_BA;
    rvtest::CaptureFd err2(2);
    rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE", &ctx);
    err2.finish();
    EXPECT_NE(rvtest::read_file(prot_file())
                  .find("]: SET_LOG_MAIN > gv_rw_lgc gibds no nedd - Neistart\n"),
              std::string::npos);
}

}  // namespace
