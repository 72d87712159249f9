// The protocol log (line format, cut output, a missing protocol file, the
// database error trap) and the trace (indentation, echo, the level from the
// debug settings, the set-up of the tool's context).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <ctime>
#include <regex>

#include "config/environment.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"
#include "support/product_test.hpp"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Pieces of a literal format longer than the line format limit.
#define RV_X64 "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
#define RV_X512 RV_X64 RV_X64 RV_X64 RV_X64 RV_X64 RV_X64 RV_X64 RV_X64

class Log : public rvtest::ProductTest {
  protected:
    void SetUp() override {
        ProductTest::SetUp();
        rv::strLog = {box.dir("gv_rw_lgc") + "t.lgc", 1, 0, ""};
    }
    // "<code>[<pid six wide>]: <text>" as this process writes it after the stamp.
    static std::string line(const std::string& code, const std::string& text) {
        const std::string pid = std::to_string(getpid());
        return code + "[" + std::string(6 - std::min<std::size_t>(6, pid.size()), ' ') + pid + "]: " + text;
    }
    // `lines` without the stamp each must have: the protocol's "YYYY-MM-DD
    // hh:mm:ss " or the trace's "hh:mm:ss#" (the hour blank-padded).
    static Lines unstamped(Lines lines, bool protocol = false) {
        const std::regex stamp(protocol ? "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} .*"
                                        : "[ 0-9][0-9]:[0-9]{2}:[0-9]{2}#.*");
        for (auto& l : lines) {
            EXPECT_TRUE(std::regex_match(l, stamp)) << l;
            l.erase(0, protocol ? 20 : 9);
        }
        return lines;
    }
    Lines protocol() const { return unstamped(rvtest::read_lines(prot), true); }
    Lines traced(const std::string& name) const { return unstamped(rvtest::read_lines(box.dir("gv_rw_lgc") + name)); }
};

TEST_F(Log, ProtLineFormatTheTrapInEveryLanguageAndCutOutput) {
    const std::size_t prefix = 20 + line("E001-BASICS ", "").size();
    const auto announced = [&](std::size_t limit, std::size_t size) {
        return line("E999-BASICS ", "Error: The following output was shortened (" + std::to_string(limit) + " <> " +
                                        std::to_string(prefix + size) + ")");
    };
    const auto cut = [&](std::size_t max, char c) { return line("E001-BASICS ", std::string(max - 1 - prefix, c)); };
    // The stamp is the local time of the clock: between the test's own readings before and after.
    const auto now = [] {
        char text[20];
        const std::time_t t = std::time(nullptr);
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&t));
        return std::string(text);
    };
    const std::string before = now();
    const std::string err = rvtest::capture(2, [&] {
        // Every line of a text of several gets the stamp and code.
        rv::PROT("W001-BASICS  first\n%s\n", "second");
        // The database error trap writes in the user's language; French has none.
        for (const auto lang : {rv::LANG_FR, rv::LANG_DE, rv::LANG_BA}) {
            rv::eLang = lang;
            rv::trap_db_err("sel", "boom");
        }
        // Overlong output is cut and announced, so is an overlong line format (counted before the arguments are
        // applied); a line just within both limits is written whole, without a notice.
        rv::PROT("E001-BASICS  %s", std::string(6000, 'y').c_str());
        rv::PROT("E001-BASICS  " RV_X512 RV_X512 RV_X512 RV_X512 RV_X512 RV_X64);
        rv::PROT("E001-BASICS  %s", std::string(rv::kProtTextLimit - 1 - prefix, 'z').c_str());
    });
    EXPECT_EQ(unstamped(rvtest::split_lines(err), true), (Lines{announced(5120, 6000), announced(2560, 2624)}));
    const std::string db = "E018-DATABAS", w = "W001-BASICS ";
    EXPECT_EQ(protocol(), (Lines{line(w, "first"), line(w, "second"), line(w, ""),
                                 line(db, "sel with unexpected result: boom."),
                                 line(db, "sel erzeugte unerwartetes Ergebnis: boom."),
                                 line(db, "sel mitm Fälla: boom."),
                                 announced(5120, 6000), cut(rv::kProtTextLimit, 'y'), announced(2560, 2624),
                                 cut(rv::kProtFormatLimit, 'x'), cut(rv::kProtTextLimit, 'z')}));
    const Lines lines = rvtest::read_lines(prot);
    const std::string after = now();
    EXPECT_EQ(lines.at(0).substr(0, 19), lines.at(2).substr(0, 19));
    EXPECT_TRUE(before <= lines.at(0).substr(0, 19) && lines.back().substr(0, 19) <= after)
        << before << " .. " << after << ": " << lines.at(0);
}

TEST_F(Log, ProtWithoutProtocolFile) {
    const std::string var = box.dir("gv_rw_glbv") + "gv_prot.rgv", bad = box.path("no/such/dir/prot.log");
    const std::string longDir = "/" + std::string(10000, 'g') + "/";
    const auto cwd = fs::current_path();
    const std::string err = rvtest::capture(2, [&] {
        const auto write = [] { rv::PROT("E018-DATABAS %s", "m"); };
        fs::remove(var);
        write();
        box.set_glbv("gv_prot", bad);  // a file that cannot be opened
        write();
        // gv_prot cannot be read: the message and the failed read each reach standard error once, and the run goes on.
        fs::remove(var);
        fs::create_directory(var);
        write();
        box.set_path_key("gv_rw_glbv", longDir);  // its file name is too long
        write();
        // Without a directory for global variables there is no protocol file either: no file named after glbv's
        // fatal text appears.
        box.set_path_key("gv_rw_glbv", "");
        fs::current_path(box.root());
        write();
        fs::current_path(cwd);
    });
    for (const auto& entry : fs::directory_iterator(box.root()))
        EXPECT_FALSE(entry.path().filename().string().starts_with("Fatal")) << entry.path();
    EXPECT_FALSE(fs::exists(prot));
    const std::string undefined = "\nNo gv_prot defined! rv_start_all necessary!\n";
    const std::string unknown = "?? GLBV gv_prot not existing: Is a directory";
    const std::string tooLong = "?? GLBV gv_prot not existing: File name too long";
    EXPECT_EQ(err, undefined + "PROT: cannot write " + bad + " (No such file or directory): E018-DATABAS m\n" +
                       "glbv() read " + var + " failed: Is a directory (21)\nPROT: Error: GLBV: " + unknown +
                       "\nPROT: protocol file unknown (" + unknown + "): E018-DATABAS m\n" + "glbv() read " +
                       longDir.substr(0, 255) + "gv_prot.rgv failed: File name too long (36)\nPROT: Error: GLBV: " + tooLong +
                       "\nPROT: protocol file unknown (" + tooLong + "): E018-DATABAS m\n" + undefined);
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
    EXPECT_EQ(unstamped(rvtest::split_lines(echo)), (Lines{"   detail n=7", " lost"}));
}

TEST_F(Log, SetLogMainTakesLevelEchoAndLanguageAndReportsMissingDirectories) {
    // The first line counts; a last line without line feed loses its last character all the same.
    box.write_debug_ini("OTHER=5\nRV_DB_UPDATE=2\nRV_DB_UPDATE=3\nSTDERR=1\nLAST=12");
    EXPECT_EQ(rv::log_check("last"), 1);
    EXPECT_EQ(rv::log_check("OTHER="), 0);
    box.extra_sections = "[SETUP]\nlang=de\n";
    box.write_rv_ini();
    rvtest::capture(2, [] { rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE"); });
    EXPECT_EQ(rv::strLog.szFile + " " + std::to_string(rv::strLog.iFlg) + " " + std::to_string(rv::strLog.iVerify),
              box.dir("gv_rw_lgc") + "rv_db_update.lgc 2 1");
    std::string parent;
    EXPECT_TRUE(rv::get_parent_info(parent));
    EXPECT_TRUE(parent.ends_with("(PPID=" + std::to_string(getppid()) + ")")) << parent;
    EXPECT_EQ(traced("rv_db_update.lgc"), (Lines{" Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID=" +
                                                     std::to_string(getpid()) + ", parent process: " + parent,
                                                 " set language to de"}));

    // Level 1 does not name the language; without the key the text is written whatever the level.
    const std::pair<const char*, rv::LANGUAGES> cases[] = {
        {"de_BA", rv::LANG_BA}, {"fr", rv::LANG_FR}, {"hr", rv::LANG_HR}, {"DE", rv::LANG_EN}, {"", rv::LANG_EN}};
    for (const auto& [value, expected] : cases) {
        box.write_debug_ini(*value ? "RV_DB_UPDATE=1\n" : "");
        box.extra_sections = *value ? std::string("[SETUP]\nlang=") + value + "\n" : "";
        box.write_rv_ini();
        rv::v_set_log_main("x.lgc", "RV_DB_UPDATE");
        EXPECT_EQ(rv::eLang, expected) << value;
    }
    EXPECT_EQ(traced("x.lgc"), Lines{" didn't find key lang in rv.ini > set language to en"});

    // Missing directories are reported; the context stays as it was.
    const std::string file = rv::strLog.szFile;
    box.set_path_key("gv_rw_ini", "");
    EXPECT_EQ(rvtest::capture(2, [] { EXPECT_EQ(rv::log_check("rv_db_update"), 0); }),
              "FATAL: SET_LOG_MAIN: gv_rw_ini not set");
    box.set_path_key("gv_rw_lgc", "");
    for (const rv::LANGUAGES lang : {rv::LANG_DE, rv::LANG_BA}) {
        rv::eLang = lang;
        EXPECT_EQ(rvtest::capture(2, [&] { rv::v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE"); }),
                  "FATAL: SET_LOG_MAIN: gv_rw_lgc not set");
    }
    EXPECT_EQ(rv::strLog.szFile, file);
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (Lines{"E003-BASICS  LOG_CHECK > gv_rw_ini not yet existing - please restart RAVIK.",
                     "E003-BASICS  SET_LOG_MAIN > gv_rw_lgc existiert noch nicht - Neustart",
                     "E003-BASICS  SET_LOG_MAIN > gv_rw_lgc gibds no nedd - Neistart"}));
}

}  // namespace
