// The trace: indentation by entry and exit lines, echo, the level from the
// debug settings and the set-up of the tool's context.
#include "log/trace.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "config/environment.hpp"
#include "support/product_test.hpp"

namespace {

using Lines = std::vector<std::string>;

class TraceTest : public rvtest::ProductTest {
  protected:
    void SetUp() override {
        ProductTest::SetUp();
        rv::strLog = {box.dir("gv_rw_lgc") + "t.lgc", 1, 0, ""};
    }
    // The lines without their "hh:mm:ss#" stamp (hour blank-padded), which each must have.
    static Lines unstamp(const Lines& lines) {
        Lines out;
        for (const auto& line : lines) {
            EXPECT_TRUE(std::regex_match(line, std::regex("[ 0-9][0-9]:[0-9]{2}:[0-9]{2}#.*")));
            out.push_back(line.substr(std::min<std::size_t>(9, line.size())));
        }
        return out;
    }
    Lines traced(const std::string& name) const {
        return unstamp(rvtest::read_lines(box.dir("gv_rw_lgc") + name));
    }
};

TEST_F(TraceTest, IndentationEchoAndLostLines) {
    const std::string echo = rvtest::capture(2, [&] {
        rv::WRITE_TRACE(1, "+++ OUTER %d", 1);
        rv::strLog.iVerify = 1;
        rv::WRITE_TRACE(1, "detail %s=%d", "n", 7);
        rv::strLog.iVerify = 0;
        rv::WRITE_TRACE(1, "--- OUTER returns %d", 1);
        rv::WRITE_TRACE(1, "%s|", std::string(3000, 'L').c_str());  // no line limit
        // A trace file that cannot be opened loses the line, but the echo is printed.
        rv::strLog.iVerify = 1;
        rv::strLog.szFile = box.path("missing/dir/t.lgc");
        rv::WRITE_TRACE(1, "lost");
    });
    EXPECT_EQ(traced("t.lgc"), (Lines{" +++ OUTER 1", "   detail n=7", " --- OUTER returns 1",
                                      " " + std::string(3000, 'L') + "|"}));
    EXPECT_EQ(unstamp(rvtest::split_lines(echo)), (Lines{"   detail n=7", " lost"}));
}

TEST_F(TraceTest, SetLogMainTakesLevelEchoAndLanguage) {
    // The first line counts; a last line without line feed loses its last
    // character all the same.
    box.write_debug_ini("OTHER=5\nRV_DB_UPDATE=2\nRV_DB_UPDATE=3\nSTDERR=1\nLAST=12");
    EXPECT_EQ(rv::log_check("last"), 1);
    EXPECT_EQ(rv::log_check("OTHER="), 0);
    box.extra_sections = "[SETUP]\nlang=de\n";
    box.write_rv_ini();
    rvtest::capture(2, [] { rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE"); });
    EXPECT_EQ(rv::strLog.szFile, box.dir("gv_rw_lgc") + "rv_db_update.lgc");
    EXPECT_EQ(rv::strLog.iFlg, 2);
    EXPECT_EQ(rv::strLog.iVerify, 1);
    std::string parent;
    EXPECT_TRUE(rv::get_parent_info(parent));
    EXPECT_TRUE(parent.ends_with("(PPID=" + std::to_string(getppid()) + ")")) << parent;
    EXPECT_EQ(traced("rv_db_update.lgc"),
              (Lines{" Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID=" +
                         std::to_string(getpid()) + ", parent process: " + parent,
                     " set language to de"}));

    // Level 1 does not name the language; without the key the text is
    // written whatever the level.
    const std::pair<const char*, rv::LANGUAGES> cases[] = {
        {"de_BA", rv::LANG_BA}, {"fr", rv::LANG_FR}, {"hr", rv::LANG_HR},
        {"DE", rv::LANG_EN},    {"", rv::LANG_EN},
    };
    for (const auto& [value, expected] : cases) {
        box.write_debug_ini(*value ? "RV_DB_UPDATE=1\n" : "");
        box.extra_sections = *value ? std::string("[SETUP]\nlang=") + value + "\n" : "";
        box.write_rv_ini();
        rv::v_set_log_main("x.lgc", "RV_DB_UPDATE");
        EXPECT_EQ(rv::eLang, expected) << value;
    }
    EXPECT_EQ(traced("x.lgc"), Lines{" didn't find key lang in rv.ini > set language to en"});
}

TEST_F(TraceTest, MissingDirectoriesAreReported) {
    const std::string file = rv::strLog.szFile;
    box.set_path_key("gv_rw_ini", "");
    EXPECT_EQ(rvtest::capture(2, [] { EXPECT_EQ(rv::log_check("rv_db_update"), 0); }),
              "FATAL: SET_LOG_MAIN: gv_rw_ini not set");
    box.set_path_key("gv_rw_lgc", "");
    for (const rv::LANGUAGES lang : {rv::LANG_DE, rv::LANG_BA}) {
        rv::eLang = lang;
        EXPECT_EQ(rvtest::capture(
                      2, [&] { rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE"); }),
                  "FATAL: SET_LOG_MAIN: gv_rw_lgc not set");
    }
    EXPECT_EQ(rv::strLog.szFile, file) << "the context stays as it was";
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (Lines{"E003-BASICS  LOG_CHECK > gv_rw_ini not yet existing - please restart RAVIK.",
                     "E003-BASICS  SET_LOG_MAIN > gv_rw_lgc existiert noch nicht - Neustart",
                     "E003-BASICS  SET_LOG_MAIN > gv_rw_lgc gibds no nedd - Neistart"}));
}

}  // namespace
