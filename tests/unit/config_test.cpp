// The configuration layer: the ini reader and the root files, global
// variables and the path notation, the environment of child programs, the
// running of command lines, line search and the directory walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "config/dirwalk.hpp"
#include "config/environment.hpp"
#include "config/files.hpp"
#include "config/glbv.hpp"
#include "config/ini.hpp"
#include "config/process.hpp"
#include "support/product_test.hpp"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "<unset>";
}

// Puts back the environment variables the product sets for its children.
class Config : public rvtest::ProductTest {
  protected:
    void SetUp() override {
        ProductTest::SetUp();
        for (const char* name : {"PATH", "PGPORT", "OPENRDA_INI", "LD_LIBRARY_PATH"})
            saved.emplace_back(name, env(name));
    }
    void TearDown() override {
        for (const auto& [name, value] : saved) value == "<unset>" ? unsetenv(name) : setenv(name, value.c_str(), 1);
        ProductTest::TearDown();
    }
    std::string var(const std::string& name) const { return box.dir("gv_rw_glbv") + name + ".rgv"; }
    // A complete installation for child programs; PATH is "/usr/bin:/bin", the other variables are unset.
    void child_settings() {
        box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
        box.set_path_key("gv_ro_bin", "/opt/rvtest/bin/");
        box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
        rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\nOPENRDA_INI=/opt/rvtest/openrda.ini\n");
        for (const auto& [name, value] : saved) unsetenv(name);
        setenv("PATH", "/usr/bin:/bin", 1);
    }
    // "ok: " or "refused: ", what the set-up for `line` printed, then "|" and the value of each variable of `names`.
    std::string call(const std::string& line, std::initializer_list<const char*> names = {}) {
        bool ok = false;
        std::string out = rvtest::capture(1, [&] { ok = rv::i_setenv_ravik(line); });
        out.insert(0, ok ? "ok: " : "refused: ");
        for (const char* name : names) out += "|" + env(name);
        return out;
    }

    std::vector<std::pair<const char*, std::string>> saved;
};

const std::string kLookup = "i_GetPrivateProfileString: ";
const std::string kNotFound = kLookup + "KEY NOT FOUND";

// Checks each "<input> -> <output>" of `cases` against `fn(input)`.
template <class Fn>
void expect_each(const Lines& cases, Fn fn) {
    for (const std::string& c : cases) {
        const std::size_t arrow = c.find(" -> ");
        EXPECT_EQ(fn(c.substr(0, arrow)), c.substr(arrow + 4)) << c;
    }
}
// "<ok> <value>|<message>" of `lookup(value, message)`; the value starts "untouched".
template <class Fn>
std::string outcome(Fn lookup) {
    std::string value = "untouched", msg = "stale";
    const bool ok = lookup(value, msg);
    return std::to_string(ok) + " " + value + "|" + msg;
}
std::string ini(const std::string& file, const std::string& section, const std::string& key,
                std::size_t size = rv::kIniValueSize) {
    return outcome([&](auto& v, auto& m) { return rv::i_GetPrivateProfileString(file, section, key, v, m, size); });
}
// "<ok> <text afterwards>" of `fn(text)`, which may change the text.
template <class Fn>
std::string after(Fn fn, std::string text) {
    const bool ok = fn(text);
    return std::to_string(ok) + " " + text;
}

TEST_F(Config, IniLookupsRootFilesAndReadIni) {
    const std::string f = box.path("t.ini"), no = "0 untouched|" + kLookup, nf = "0 untouched|" + kNotFound;
    const std::string longKey(rv::kIniKeyMax, 'k'), longSection = "[" + std::string(rv::kIniSectionMax - 1, 's') + "]";
    rvtest::write_file(f, "gv_ro=before the section\n [PATHES]\n[pathes] trailing text\n# gv_ro=comment\n\n"
                          "GV_RO_BIN=/bin/   \nspaced =no\n indented=no\nGV_RO=Mixed/Case/\ngv_ro=second/\n"
                          "raw=  x\t\r\nblanks=   \nempty=\n[next]\n[PATHES]\nlater=1\n"
                          "[DEFAULT]\nbase=/opt/x/\nroot=/r/\ndflt=%(root)d/\n[S]\nbin=%(base)bin/\n"
                          "own=%(root)own/\nroot=/mine/\nfromdefault=%(dflt)\nmissing=a%(nokey)b\n"
                          "ping=%(pong)\npong=x%(ping)\nbig=" + std::string(rv::kIniLinePiece - 4, 'v') +
                          "hidden=yes\n" + longKey + "=ok\n");
    // "<section><key> -> <outcome>", without a section in the whole file. The first key line wins; only blanks are
    // trimmed. A blank before '=' or an indented key never matches; a later header ends the section, and only its
    // first occurrence is searched. The own section comes before [DEFAULT], whose lookup gives the message of a
    // missing reference. The rest of an overlong line starts in column 1 of its own.
    expect_each({"[PATHES]gv_ro -> 1 Mixed/Case/|", "[PATHES]gv_ro_bin -> 1 /bin/|",
                 "[PATHES]raw -> 1   x\t\r|", "[PATHES]blanks -> 1    |",
                 "[PATHES]empty -> 0 |" + kLookup + "KEY VALUE NOT FOUND.",
                 "[PATHES]spaced -> " + nf + " [PATHES]spaced", "[PATHES]indented -> " + nf + " [PATHES]indented",
                 "[PATHES]later -> " + nf + " [PATHES]later", "[Absent]k -> " + no + "SECTION NOT FOUND: [absent].",
                 "gv_ro -> 1 before the section|", "later -> 1 1|", "Nope -> " + nf + ": Nope",
                 "[S]bin -> 1 /opt/x/bin/|", "[S]own -> 1 /mine/own/|", "[S]fromdefault -> 1 /r/d/|",
                 "[S]missing -> " + nf + " [DEFAULT]nokey", "[S]ping -> " + no + "REFERENCE NESTED TOO DEEPLY: ping",
                 "[S]big -> 1 " + std::string(rv::kIniLinePiece - 4, 'v') + "|", "[S]hidden -> 1 yes|",
                 "[S]" + longKey + " -> 1 ok|", "[S]" + longKey + "k -> " + no + "KEY NAME TOO LONG: " + longKey + "k",
                 longSection + "k -> " + no + "SECTION NAME TOO LONG: " + longSection},
                [&](const std::string& in) {
                    const std::size_t end = in.starts_with('[') ? in.find(']') + 1 : 0;
                    return ini(f, in.substr(0, end), in.substr(end));
                });
    EXPECT_EQ(ini(f, "[S]", "bin", 10), "1 /opt/x/bi|");
    EXPECT_EQ(ini("", "[S]", "k"), no + "FILE NOT FOUND OR ACCESS PROBLEM.");
    EXPECT_EQ(ini(box.path("no.ini"), "[S]", "k"),
              no + "FILE NOT FOUND OR ACCESS PROBLEM: " + box.path("no.ini") + ".");

    // The root files name the ini files; i_READ_INI reads a key from one.
    const std::string other = box.path("etc/other.ini"), unknown = "RV_TEST_NO_SUCH_ID_4711";
    rvtest::write_file(other, "[SERVER]\nname=backup01\n[PATHES]\n");
    rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\nOTHER_INI=" + other + "\n");
    const std::string noRoot = "0 |i_GET_ROOT_FOR_INI: NO RAVIK CONFIGURATION FILE FOUND: ";
    const auto root = [](const std::string& id) {
        return outcome([&](auto& v, auto& m) { return rv::i_GET_ROOT_FOR_INI(id, v, m); });
    };
    const auto read = [](const std::string& id, const std::string& section, const char* key) {
        return outcome([&](auto& v, auto& m) { return rv::i_READ_INI(id, section, key, v, m); });
    };
    EXPECT_EQ(root("RV_INI"), "1 " + box.rv_ini() + "|");
    EXPECT_EQ(root(unknown), noRoot + rv::kRootIniFirst);  // the second file tried
    EXPECT_EQ(read("", "[pathes]", "GV_RO"), "1 " + box.dir("gv_ro") + "|");
    EXPECT_EQ(read("OTHER_INI", "[SERVER]", "name"), "1 backup01|");
    EXPECT_EQ(read("RV_INI", "[PATHES]", "gv_nope"), "0 |i_READ_INI: " + kNotFound + ": gv_nope");
    EXPECT_EQ(read(unknown, "[PATHES]", "gv_ro"), "0 |i_READ_INI: " + unknown);
    unsetenv("RAVIK_INI");  // the sandbox puts it back
    EXPECT_EQ(root(unknown), noRoot + rv::kRootIniSecond);
}

// The text of a read, prefixed by "found: ", "missing: " or "failed: ".
std::string glbv_read(const std::string& name) {
    std::string n = name;
    const rv::GlbvResult r = rv::glbv('r', n);
    const char* status[] = {"found: ", "missing: ", "failed: "};
    return status[static_cast<int>(r.status)] + r.text;
}

TEST_F(Config, GlbvReadsAndThePathNotation) {
    std::string text;
    for (int i = 0; i < 600; ++i) text.push_back(static_cast<char>('a' + i % 26));
    const std::size_t max = rv::kGlbvValueMax;
    const std::string cut = text.substr(0, max - 1) + ">";
    // A line was read from "\n": not missing. The joined lines count, not the single ones: one more than fits is cut.
    const std::pair<std::string, std::string> cases[] = {
        {"x\ny\n", "xy"}, {"\n", ""}, {text.substr(0, max) + "\n", text.substr(0, max)},
        {text.substr(0, 300) + "\n" + text.substr(300, max + 1 - 300) + "\n", cut}};
    for (const auto& [content, value] : cases) {
        rvtest::write_file(var("a_b_c"), content);
        EXPECT_EQ(glbv_read("a_b_c"), "found: " + value) << content;
    }
    // '/' and '\' in the name become '_', in the caller's string too.
    std::string slashed = "a/b\\c";
    EXPECT_EQ(rv::glbv('r', slashed).text, cut);
    EXPECT_EQ(slashed, "a_b_c");

    // The path notation: a global variable, or a [PATHES] key in any case.
    box.set_glbv("base", "/data/");
    expect_each({"base:x/y -> 1 /data/x/y", "base -> 1 /data/", "no/such:x -> 0 no/such:x"},
                [](const std::string& s) { return after(rv::resolve_glbv, s); });
    expect_each({"GV_RW_WORK:x.dat -> 1 " + box.dir("gv_rw_work") + "x.dat", "gv_ro -> 1 " + box.dir("gv_ro"),
                 "/tmp/a:b -> 1 /tmp/a:b"},
                [](const std::string& s) { return after(rv::resolve_path, s); });

    // Missing and failed reads are told apart.
    const std::string dir = var("dir");
    rvtest::write_file(var("empty"), "");
    fs::create_directory(dir);
    Lines got;
    const std::string err = rvtest::capture(2, [&] {
        for (const char* name : {"missing", "empty", "dir"}) got.push_back(glbv_read(name));
    });
    // Without gv_rw_glbv the fatal text in the user's language; French has none.
    box.set_path_key("gv_rw_glbv", "");
    for (const auto lang : {rv::LANG_FR, rv::LANG_DE, rv::LANG_BA}) {
        rv::eLang = lang;
        got.push_back(glbv_read("v"));
    }
    const std::string fatal = " FILE=cm_hal_unix ", reading = "=249 ( error reading rv_ini)";
    EXPECT_EQ(got, (Lines{"missing: ?? GLBV missing not existing", "missing: ?? GLBV empty not existing",
                          "failed: ?? GLBV dir not existing: Is a directory",
                          "missing: Fatal software error" + fatal + "LINE" + reading,
                          "missing: Fataler Software Fehler" + fatal + "ZEILE" + reading,
                          "missing: do is a ganz a groba Fälla in" + fatal + "ZEILE" + reading}));
    EXPECT_EQ(err, "glbv() read failed: empty file\nglbv() read " + dir + " failed: Is a directory (21)\n");
    EXPECT_EQ(rvtest::protocol_texts(prot), Lines{"Error: GLBV: ?? GLBV dir not existing: Is a directory"});
}

TEST_F(Config, ChildProgramsGetTheirSettingsAndMissingOnesRefuseDatabasePrograms) {
    child_settings();
    const std::string bin = "/usr/bin:/bin:/opt/rvtest/bin/", db = bin + ":/opt/rvtest/db/";
    // The database client gets port, directories and the default client path; a second call finds everything in place.
    for (const char* line : {"psql", "  PSQL -d ravik_db"}) {
        EXPECT_EQ(call(line, {"PGPORT", "OPENRDA_INI", "PATH"}),
                  "ok: |5499|/opt/rvtest/openrda.ini|" + db + ":/usr/local/pgsql/bin/") << line;
    }
    // "<line> -> <PATH>": the class counts only before the first blank, in a line without one only at its start;
    // rv_db only with its blank.
    box.set_path_key("gv_ro_pgsql", "/opt/rvtest/pgsql/");
    const std::string pgsql = db + ":/opt/rvtest/pgsql/";
    expect_each({"echo psql -> " + bin, "/usr/bin/psql -> " + bin, "/usr/bin/psql -l -> " + pgsql,
                 "/opt/x/rv_db \"select 1\" -e -> " + pgsql, "/opt/x/rv_db -> " + bin},
                [&](const std::string& line) {
                    setenv("PATH", "/usr/bin:/bin", 1);
                    return call(line, {"PATH"}).substr(5);
                });
    // A directory inside a longer entry counts as present.
    setenv("PATH", "/usr/bin:/opt/rvtest/bin/extra", 1);
    EXPECT_EQ(call("ls", {"PATH"}), "ok: |/usr/bin:/opt/rvtest/bin/extra");
    EXPECT_EQ(call("netware_sync", {"LD_LIBRARY_PATH"}),
              "ok: check LD_LIBRARY_PATH=\ndidn't get LD_LIBRARY_PATH\n"
              "set LD_LIBRARY_PATH=:/opt/novell/lib\n|:/opt/novell/lib");
    EXPECT_EQ(call("netware_sync"), "ok: check LD_LIBRARY_PATH=:/opt/novell/lib\n");

    // Missing settings refuse only database programs.
    box.extra_sections = "";
    box.write_rv_ini();
    EXPECT_EQ(call("echo psql"), "ok: ");
    EXPECT_EQ(call("psql -l"), "refused: key gv_port_db not found in rv.ini\n");
    rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\n");
    EXPECT_EQ(call("psql"), "refused: key OPENRDA_INI not found in /etc/ravik2000.ini\n");

    rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\nOPENRDA_INI=/x\n");
    box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
    box.set_path_key("gv_ro_db", "");
    const std::string refused = "refused: error in i_READ_INI ", in = " i_READ_INI: " + kNotFound + " [PATHES]";
    EXPECT_EQ(call("psql"), refused + "gv_ro_db" + in + "gv_ro_db\n");
    box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
    EXPECT_EQ(call("rv_kvx_interface -x"), refused + "gv_ro_kvx" + in + "gv_ro_kvx\n");
    box.set_path_key("gv_ro_bin", "");
    EXPECT_EQ(call("ls"), "refused: ");

    // An overlong PATH is refused with the seven lines.
    box.set_path_key("gv_ro_bin", "/opt/rvtest/bin/");
    const std::string longpath = "/usr/bin:" + std::string(2030, 'p');
    setenv("PATH", longpath.c_str(), 1);
    const std::string already = " (0 means that string already in PATH)\n";
    EXPECT_EQ(call("ls", {"PATH"}), "refused: iStrLenRoBin = 16" + already + "iStrLenRoDb  = 0" + already +
                                        "iStrLenRoPgsql = 0" + already + "iStrLenRoKvx = 0" + already +
                                        "iStrLenPath  = 2039\niSizeOfPath  = 2048\n"
                                        "length of string is not sufficient\n|" + longpath);
}

TEST_F(Config, StartSystemDecodesExitCodesAndAbnormalEnds) {
    const std::string enoent = std::strerror(ENOENT), start = "could not start: please check" + enoent;
    const std::string caught = "terminated due to receipt of a signal that was not caught: ";
    const std::string term = "sh -c 'kill -TERM $$'; exit $?", please = "start_system: please check: ";
    // The shell's code for a command it cannot find is 127, for a child killed by SIGTERM 143; when the shell itself
    // is killed, two reports and code 0. Columns: language, command, "<exit code> <buffer afterwards>", end of
    // standard error ("": silent).
    const std::tuple<rv::LANGUAGES, std::string, std::string, std::string> cases[] = {
        {rv::LANG_EN, "exit 3", "3 exit 3", ""},
        {rv::LANG_EN, "exit 127", "127 " + start, please + enoent + " (2)\n"},
        {rv::LANG_DE, "exit 127", "127 " + start, please + enoent + " (2)\n"},
        {rv::LANG_BA, "exit 127", "127 " + start, please + enoent + " (2)\n"},
        {rv::LANG_EN, term, "143 " + caught + "15",
         "exe terminated due to the receipt of a signal that was not caught: 15\n"},
        {rv::LANG_EN, "kill -KILL $$", "0 /bin/sh " + caught + "9",
         "/bin/sh terminated abnormally 0...\n/bin/sh " + caught + "9\n"}};
    for (const auto& [lang, cmd, result, end] : cases) {
        rv::eLang = lang;
        std::string buffer = cmd;
        int code = -1;
        const std::string err = rvtest::capture(2, [&] { code = rv::start_system(buffer); });
        EXPECT_EQ(std::to_string(code) + " " + buffer, result) << cmd;
        EXPECT_TRUE(end.empty() ? err.empty() : err.ends_with(end)) << err;
    }
    const std::string failed = "E008-BASICS  Error in command execution start_system: ";
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (Lines{failed + "exit 127: " + start,
                     "E008-BASICS  Fehler bei Kommandoausführung start_system: exit 127: " + start,
                     "E008-BASICS  Fehla bei da Kommandoausführung start_system: exit 127: " + start,
                     failed + term + ": " + caught + "15", failed + "kill -KILL $$: /bin/sh terminated abnormally",
                     failed + "kill -KILL $$: /bin/sh " + caught + "9"}));
    // A refused environment runs nothing.
    box.set_path_key("gv_ro_bin", "");
    std::string cmd = "touch " + box.path("ran");
    EXPECT_EQ(rvtest::capture(1, [&] { EXPECT_EQ(rv::start_system(cmd), rv::kStartSystemNoEnvironment); }),
              "error occured in i_setenv_ravik\n");
    EXPECT_FALSE(fs::exists(box.path("ran")));
}

TEST_F(Config, FileSearchAndDirectoryWalk) {
    const std::string work = box.dir("gv_rw_work");
    box.set_glbv("gv_rw_work", work);
    rvtest::write_file(work + "log.txt",
                       "info start\nwarn FATAL disk\nERROR here\nx|OR|y zz\n" + std::string(508, 'x') + "needle\ntail");
    const auto search = [](const std::string& file, const std::string& expr) {
        return after([&](std::string& e) { return rv::file_search(file, e); }, expr);
    };
    // "<expression> -> <found> <the caller's string afterwards>": an operator is cut out; |AND| wins, |OR| then is
    // text. Lines are read in pieces of at most 511 characters; a last line may lack its line feed.
    expect_each({"ERROR|OR|FATAL^ -> 1 warn FATAL disk", "ERROR|AND|FATAL -> 0 ERROR",
                 "x|OR|y|AND|zz^ -> 1 x|OR|y zz", "here -> 1 here", "Error -> 0 Error", "needle -> 0 needle",
                 "dle^ -> 1 dle", "tai^ -> 1 tail"},
                [&](const std::string& expr) { return search("gv_rw_work:log.txt", expr); });
    EXPECT_EQ(search(work + "log.txt", "here^"), "1 ERROR here");
    EXPECT_EQ(search("gv_rw_work:missing.txt", "here"), "0 here");
    errno = EACCES;
    EXPECT_EQ(rvtest::capture(2, [] { EXPECT_EQ(rv::i_FILE_CLOSE(EACCES), 0); }),
              std::string("\nFILE_CLOSE error: ") + std::strerror(EACCES) + "\n");

    // The directory walk gives every match once.
    for (const char* name : {"x.lock", "y.lock", ".hidden.lock", "z.txt", "lock"}) rvtest::write_file(work + name, "");
    const auto walk = [](const std::string& pattern) {
        Lines names;
        rv::rv_dirent de;
        for (bool ok = rv::i_GET_DIR(pattern, de); ok; ok = rv::i_GET_DIR("", de)) names.push_back(de.d_name);
        std::sort(names.begin(), names.end());
        return names;
    };
    // Without flags the wildcard also matches a leading dot. A directory that cannot be opened is traced from level 1.
    rv::strLog = {box.path("trace.lgc"), 1, 0, ""};
    EXPECT_EQ(walk("gv_rw_work:*.lock"), (Lines{".hidden.lock", "x.lock", "y.lock"}));
    EXPECT_EQ(walk(work + "?.*"), (Lines{"x.lock", "y.lock", "z.txt"}));
    EXPECT_EQ(walk(work + "*.none"), Lines{});
    EXPECT_EQ(walk(work + ".*"), Lines{".hidden.lock"}) << "the walk gives . or ..";
    EXPECT_EQ(walk(box.path("absent/") + "*"), Lines{});
    EXPECT_EQ(rvtest::read_file(rv::strLog.szFile).substr(9),
              " iGET_DIR: Error in opendir( " + box.path("absent/") + " ): " + std::strerror(ENOENT) + "\n");
}

}  // namespace
