// The protocol log (line format, cut output, a missing protocol file, the
// database error trap) and the trace (indentation, echo, the level from the
// debug settings, the set-up of the tool's context).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "config/environment.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"
#include "support/product_test.hpp"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

#define RV_X10 "xxxxxxxxxx"
#define RV_X100 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10 RV_X10
#define RV_X1000 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100 RV_X100

class Log : public rvtest::ProductTest {
  protected:
    void SetUp() override {
        ProductTest::SetUp();
        rv::strLog = {box.dir("gv_rw_lgc") + "t.lgc", 1, 0, ""};
    }
    // "<code>[<pid six wide>]: <text>" as this process writes it after the stamp.
    static std::string line(const std::string& code, const std::string& text) {
        const std::string pid = std::to_string(getpid());
        return code + "[" + std::string(6 - std::min<std::size_t>(6, pid.size()), ' ') + pid +
               "]: " + text;
    }
    // The text without its stamp "YYYY-MM-DD hh:mm:ss ", which it must have.
    static std::string unstamp(const std::string& text) {
        return strip(text, "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} .*", 20);
    }
    // The trace lines without their "hh:mm:ss#" stamp (hour blank-padded), which each must have.
    static Lines untimed(Lines lines) {
        for (auto& l : lines) l = strip(l, "[ 0-9][0-9]:[0-9]{2}:[0-9]{2}#.*", 9);
        return lines;
    }
    static std::string strip(const std::string& text, const char* stamp, std::size_t size) {
        EXPECT_TRUE(std::regex_match(text.substr(0, text.find('\n')), std::regex(stamp))) << text;
        return text.substr(std::min(size, text.size()));
    }
    Lines traced(const std::string& name) const {
        return untimed(rvtest::read_lines(box.dir("gv_rw_lgc") + name));
    }
};

TEST_F(Log, ProtLineFormatAndTheTrapInEveryLanguage) {
    rvtest::write_file(prot, "earlier line\n");
    rv::PROT("E018-DATABAS %s with unexpected result: %s.", "select 1", "no rows");
    rv::PROT("E003-BASICS  %s > %s", "a", "b");
    // Every line of a text of several gets the stamp and code.
    rv::PROT("W001-BASICS  first\n%s\n", "second");
    const Lines lines = rvtest::read_lines(prot);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "earlier line");
    const Lines expected = {line("E018-DATABAS", "select 1 with unexpected result: no rows."),
                            line("E003-BASICS ", "a > b"), line("W001-BASICS ", "first"),
                            line("W001-BASICS ", "second"), line("W001-BASICS ", "")};
    for (std::size_t i = 1; i < 6; ++i) EXPECT_EQ(unstamp(lines[i]), expected[i - 1]);
    EXPECT_EQ(lines[3].substr(0, 19), lines[5].substr(0, 19));

    // The database error trap writes in the user's language.
    fs::remove(prot);
    for (const auto lang : {rv::LANG_EN, rv::LANG_DE, rv::LANG_BA, rv::LANG_FR}) {
        rv::eLang = lang;
        rv::trap_db_err("sel", "boom");
    }
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (Lines{"E018-DATABAS sel with unexpected result: boom.",
                     "E018-DATABAS sel erzeugte unerwartetes Ergebnis: boom.",
                     "E018-DATABAS sel mitm Fälla: boom.",
                     "E018-DATABAS sel with unexpected result: boom."}));
}

TEST_F(Log, ProtCutsOverlongOutputAndAnnouncesIt) {
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

TEST_F(Log, ProtWithoutProtocolFile) {
    const std::string var = box.dir("gv_rw_glbv") + "gv_prot.rgv";
    const std::string undefined = "\nNo gv_prot defined! rv_start_all necessary!\n";
    const auto write = [] { return rvtest::capture(2, [] { rv::PROT("E018-DATABAS %s", "m"); }); };
    fs::remove(var);
    EXPECT_EQ(write(), undefined);
    EXPECT_FALSE(fs::exists(prot));

    // A protocol file that cannot be opened: the message goes to standard error.
    box.set_glbv("gv_prot", box.path("no/such/dir/prot.log"));
    EXPECT_EQ(write(), "PROT: cannot write " + box.path("no/such/dir/prot.log") +
                           " (No such file or directory): E018-DATABAS m\n");

    // gv_prot cannot be read (its file is a directory, or the name of its
    // file is too long): the message and the failed read each reach
    // standard error once, and the run goes on.
    fs::remove(var);
    fs::create_directory(var);
    const std::string unknown = "?? GLBV gv_prot not existing: ";
    EXPECT_EQ(write(), "glbv() read " + var + " failed: Is a directory (21)\nPROT: Error: GLBV: " +
                           unknown + "Is a directory\nPROT: protocol file unknown (" + unknown +
                           "Is a directory): E018-DATABAS m\n");
    box.set_path_key("gv_rw_glbv", "/" + std::string(10000, 'g') + "/");
    const std::string err = write();
    EXPECT_NE(err.find("PROT: protocol file unknown (" + unknown +
                       "File name too long): E018-DATABAS m\n"),
              std::string::npos)
        << err;

    // Without a directory for global variables there is no protocol file
    // either: no file named after glbv's fatal text appears.
    box.set_path_key("gv_rw_glbv", "");
    const auto cwd = fs::current_path();
    fs::current_path(box.root());
    EXPECT_EQ(write(), undefined);
    fs::current_path(cwd);
    for (const auto& entry : fs::directory_iterator(box.root())) {
        EXPECT_EQ(entry.path().filename().string().find("Fatal"), std::string::npos)
            << entry.path();
    }
}

TEST_F(Log, TraceIndentationEchoAndLostLines) {
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
    EXPECT_EQ(untimed(rvtest::split_lines(echo)), (Lines{"   detail n=7", " lost"}));
}

TEST_F(Log, SetLogMainTakesLevelEchoAndLanguage) {
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

TEST_F(Log, TraceSetUpReportsMissingDirectories) {
    const std::string file = rv::strLog.szFile;
    box.set_path_key("gv_rw_ini", "");
    EXPECT_EQ(rvtest::capture(2, [] { EXPECT_EQ(rv::log_check("rv_db_update"), 0); }),
              "FATAL: SET_LOG_MAIN: gv_rw_ini not set");
    box.set_path_key("gv_rw_lgc", "");
    for (const rv::LANGUAGES lang : {rv::LANG_DE, rv::LANG_BA}) {
        rv::eLang = lang;
        EXPECT_EQ(
            rvtest::capture(2, [&] { rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE"); }),
            "FATAL: SET_LOG_MAIN: gv_rw_lgc not set");
    }
    EXPECT_EQ(rv::strLog.szFile, file) << "the context stays as it was";
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (Lines{"E003-BASICS  LOG_CHECK > gv_rw_ini not yet existing - please restart RAVIK.",
                     "E003-BASICS  SET_LOG_MAIN > gv_rw_lgc existiert noch nicht - Neustart",
                     "E003-BASICS  SET_LOG_MAIN > gv_rw_lgc gibds no nedd - Neistart"}));
}

}  // namespace
