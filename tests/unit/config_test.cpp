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
        for (const auto& [name, value] : saved) {
            value == "<unset>" ? unsetenv(name) : setenv(name, value.c_str(), 1);
        }
        ProductTest::TearDown();
    }
    std::string var(const std::string& name) const { return box.dir("gv_rw_glbv") + name + ".rgv"; }

    std::vector<std::pair<const char*, std::string>> saved;
};

const std::string kNotFound = "i_GetPrivateProfileString: KEY NOT FOUND";
const std::string kLookup = "i_GetPrivateProfileString: ";

struct IniCase {
    std::string section, key;
    bool ok;
    std::string value;  // "untouched" when the reader must not write it
    std::string msg;
    std::size_t size = rv::kIniValueSize;
};

// Looks every case up in the file `f` of `content`.
void check(const std::string& f, const std::string& content, const std::vector<IniCase>& cases) {
    rvtest::write_file(f, content);
    for (const auto& c : cases) {
        std::string value = "untouched";
        std::string msg = "stale";
        EXPECT_EQ(rv::i_GetPrivateProfileString(f, c.section, c.key, value, msg, c.size), c.ok)
            << c.section << c.key;
        EXPECT_EQ(value, c.value) << c.section << c.key;
        EXPECT_EQ(msg, c.msg) << c.section << c.key;
    }
}

TEST_F(Config, IniLookups) {
    check(box.path("t.ini"),
          "gv_ro=before the section\n [PATHES]\n[pathes] trailing text\n# gv_ro=comment\n\n"
          "GV_RO_BIN=/bin/   \nspaced =no\n indented=no\nGV_RO=Mixed/Case/\ngv_ro=second/\n"
          "raw=  x\t\r\nblanks=   \nempty=\n[next]\n[PATHES]\nlater=1\n",
          {
              {"[PATHES]", "gv_ro", true, "Mixed/Case/", ""},  // the first key line wins
              {"[PATHES]", "gv_ro_bin", true, "/bin/", ""},
              {"[PATHES]", "raw", true, "  x\t\r", ""},  // only blanks are trimmed
              {"[PATHES]", "blanks", true, "   ", ""},
              {"[PATHES]", "empty", false, "", kLookup + "KEY VALUE NOT FOUND."},
              // A blank before '=' or an indented key never matches; a later header
              // ends the section, and only its first occurrence is searched.
              {"[PATHES]", "spaced", false, "untouched", kNotFound + " [PATHES]spaced"},
              {"[PATHES]", "indented", false, "untouched", kNotFound + " [PATHES]indented"},
              {"[PATHES]", "later", false, "untouched", kNotFound + " [PATHES]later"},
              {"[Absent]", "k", false, "untouched", kLookup + "SECTION NOT FOUND: [absent]."},
              // Without a section the whole file is searched.
              {"", "gv_ro", true, "before the section", ""},
              {"", "later", true, "1", ""},
              {"", "Nope", false, "untouched", kNotFound + ": Nope"},
          });

    const std::string longKey(rv::kIniKeyMax, 'k');
    const std::string longSection = "[" + std::string(rv::kIniSectionMax - 1, 's') + "]";
    const std::string nested = kLookup + "REFERENCE NESTED TOO DEEPLY: ";
    // The rest of an overlong line starts in column 1 of its own.
    check(box.path("t.ini"),
          "[DEFAULT]\nbase=/opt/x/\nroot=/r/\ndflt=%(root)d/\n[S]\nbin=%(base)bin/\n"
          "own=%(root)own/\nroot=/mine/\nfromdefault=%(dflt)\nmissing=a%(nokey)b\n"
          "self=%(self)\nping=%(pong)\npong=x%(ping)\n" +
              std::string(rv::kIniLinePiece, 'x') + "hidden=yes\nbig=" + std::string(1500, 'v') +
              "\n" + longKey + "=ok\n",
          {
              {"[S]", "bin", true, "/opt/x/bin/", ""},
              {"[S]", "own", true, "/mine/own/", ""},  // the own section comes first
              {"[S]", "fromdefault", true, "/r/d/", ""},
              {"[S]", "bin", true, "/opt/x/bi", "", 10},
              // The message is the one of the [DEFAULT] lookup.
              {"[S]", "missing", false, "untouched", kNotFound + " [DEFAULT]nokey"},
              {"[S]", "self", false, "untouched", nested + "self"},
              {"[S]", "ping", false, "untouched", nested + "ping"},
              {"[S]", "hidden", true, "yes", ""},
              {"[S]", "big", true, std::string(rv::kIniLinePiece - 4, 'v'), "", 4000},
              {"[S]", longKey, true, "ok", ""},
              {longSection, "k", false, "untouched",
               kLookup + "SECTION NAME TOO LONG: " + longSection},
              {"[S]", longKey + "k", false, "untouched",
               kLookup + "KEY NAME TOO LONG: " + longKey + "k"},
          });
    std::string value, msg;
    EXPECT_FALSE(rv::i_GetPrivateProfileString("", "[S]", "k", value, msg));
    EXPECT_EQ(msg, kLookup + "FILE NOT FOUND OR ACCESS PROBLEM.");
    EXPECT_FALSE(rv::i_GetPrivateProfileString(box.path("no.ini"), "[S]", "k", value, msg));
    EXPECT_EQ(msg, kLookup + "FILE NOT FOUND OR ACCESS PROBLEM: " + box.path("no.ini") + ".");
}

TEST_F(Config, IniRootFilesAndReadIni) {
    const std::string other = box.path("etc/other.ini");
    rvtest::write_file(other, "[SERVER]\nname=backup01\n[PATHES]\n");
    rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\nOTHER_INI=" + other + "\n");
    const std::string noRoot = "i_GET_ROOT_FOR_INI: NO RAVIK CONFIGURATION FILE FOUND: ";
    const std::string unknown = "RV_TEST_NO_SUCH_ID_4711";
    // "<ok> <value>|<message>" of a lookup.
    const auto root = [](const std::string& id) {
        std::string value = "untouched", msg;
        const bool ok = rv::i_GET_ROOT_FOR_INI(id, value, msg);
        return std::to_string(ok) + " " + value + "|" + msg;
    };
    const auto read = [](const std::string& id, const std::string& section, const char* key) {
        std::string value = "untouched", msg = "stale";
        const bool ok = rv::i_READ_INI(id, section, key, value, msg);
        return std::to_string(ok) + " " + value + "|" + msg;
    };
    EXPECT_EQ(root("RV_INI"), "1 " + box.rv_ini() + "|");
    EXPECT_EQ(root(unknown), "0 |" + noRoot + rv::kRootIniFirst);  // the second file tried
    EXPECT_EQ(read("", "[pathes]", "GV_RO"), "1 " + box.dir("gv_ro") + "|");
    EXPECT_EQ(read("OTHER_INI", "[SERVER]", "name"), "1 backup01|");
    EXPECT_EQ(read("RV_INI", "[PATHES]", "gv_nope"), "0 |i_READ_INI: " + kNotFound + ": gv_nope");
    EXPECT_EQ(read(unknown, "[PATHES]", "gv_ro"), "0 |i_READ_INI: " + unknown);
    unsetenv("RAVIK_INI");  // the sandbox puts it back
    EXPECT_EQ(root(unknown), "0 |" + noRoot + rv::kRootIniSecond);
}

// The text of a read, prefixed by "found: ", "missing: " or "failed: ".
std::string glbv_read(const std::string& name) {
    std::string n = name;
    const rv::GlbvResult r = rv::glbv('r', n);
    const char* status[] = {"found: ", "missing: ", "failed: "};
    return status[static_cast<int>(r.status)] + r.text;
}

TEST_F(Config, GlbvReadJoinsLinesAndCutsLongValuesAndThePathNotationResolves) {
    std::string text;
    for (int i = 0; i < 600; ++i) text.push_back(static_cast<char>('a' + i % 26));
    const std::size_t max = rv::kGlbvValueMax;
    const std::string cut = text.substr(0, max - 1) + ">";
    const std::pair<std::string, std::string> cases[] = {
        {"hello", "hello"},
        {"x\ny\n", "xy"},
        {"\n", ""},  // a line was read: not missing
        {text.substr(0, max) + "\n", text.substr(0, max)},
        {text.substr(0, max + 1), cut},
        // The joined lines count, not the single ones.
        {text.substr(0, 300) + "\n" + text.substr(300) + "\n", cut},
    };
    for (const auto& [content, value] : cases) {
        rvtest::write_file(var("a_b_c"), content);
        EXPECT_EQ(glbv_read("a_b_c"), "found: " + value) << content;
    }
    // '/' and '\' in the name become '_', in the caller's string too.
    std::string name = "a/b\\c";
    EXPECT_EQ(rv::glbv('r', name).text, cut);
    EXPECT_EQ(name, "a_b_c");

    // The path notation: a global variable, or a [PATHES] key in any case.
    box.set_glbv("base", "/data/");
    const std::tuple<bool, std::string, std::string> paths[] = {
        // a [PATHES] key, the text, the text afterwards
        {false, "base:x/y", "/data/x/y"},
        {false, "base", "/data/"},
        {false, "no/such:x", "no/such:x"},
        {true, "GV_RW_WORK:x.dat", box.dir("gv_rw_work") + "x.dat"},
        {true, "gv_ro", box.dir("gv_ro")},
        {true, "/tmp/a:b", "/tmp/a:b"},
    };
    for (const auto& [key, in, out] : paths) {
        std::string s = in;
        EXPECT_EQ(key ? rv::resolve_path(s) : rv::resolve_glbv(s), key || in != out) << in;
        EXPECT_EQ(s, out);
    }
}

TEST_F(Config, GlbvMissingAndFailedReadsAreToldApart) {
    rvtest::write_file(var("empty"), "");
    fs::create_directory(var("dir"));
    Lines got;
    const std::string err = rvtest::capture(2, [&] {
        for (const char* name : {"missing", "empty", "dir"}) got.push_back(glbv_read(name));
    });
    EXPECT_EQ(got,
              (Lines{"missing: ?? GLBV missing not existing", "missing: ?? GLBV empty not existing",
                     "failed: ?? GLBV dir not existing: Is a directory"}));
    EXPECT_EQ(err, "glbv() read failed: empty file\nglbv() read " + var("dir") +
                       " failed: Is a directory (21)\n");
    EXPECT_EQ(rvtest::protocol_texts(prot),
              Lines{"Error: GLBV: ?? GLBV dir not existing: Is a directory"});

    // Without gv_rw_glbv the fatal text in the user's language.
    box.set_path_key("gv_rw_glbv", "");
    const std::string en = "Fatal software error FILE=cm_hal_unix LINE=249";
    const std::pair<rv::LANGUAGES, std::string> fatal[] = {
        {rv::LANG_EN, en},
        {rv::LANG_FR, en},
        {rv::LANG_DE, "Fataler Software Fehler FILE=cm_hal_unix ZEILE=249"},
        {rv::LANG_BA, "do is a ganz a groba Fälla in FILE=cm_hal_unix ZEILE=249"},
    };
    for (const auto& [lang, text] : fatal) {
        rv::eLang = lang;
        EXPECT_EQ(glbv_read("v"), "missing: " + text + " ( error reading rv_ini)");
    }
}

class SetenvRavik : public Config {
  protected:
    void SetUp() override {
        Config::SetUp();
        box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
        box.set_path_key("gv_ro_bin", "/opt/rvtest/bin/");
        box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
        root_ini("\nOPENRDA_INI=/opt/rvtest/openrda.ini\n");
        for (const auto& [name, value] : saved) unsetenv(name);
        setenv("PATH", "/usr/bin:/bin", 1);
    }
    void root_ini(const std::string& rest) {
        rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + rest);
    }
    // "ok: " or "refused: ", what the set-up for `line` printed.
    std::string call(const std::string& line) {
        bool ok = false;
        const std::string out = rvtest::capture(1, [&] { ok = rv::i_setenv_ravik(line); });
        return (ok ? "ok: " : "refused: ") + out;
    }
    // call(`line`), then the values of the variables `names`.
    std::string call(const std::string& line, std::initializer_list<const char*> names) {
        std::string out = call(line);
        for (const char* name : names) out += "|" + env(name);
        return out;
    }
};

TEST_F(SetenvRavik, ProgramClassesGetTheirSettings) {
    const std::string base = "/usr/bin:/bin";
    const std::string bin = base + ":/opt/rvtest/bin/";
    const std::string db = bin + ":/opt/rvtest/db/";
    // The database client gets port, directories and the default client path;
    // a second call finds everything in place.
    for (const char* line : {"psql", "  PSQL -d ravik_db"}) {
        EXPECT_EQ(call(line, {"PGPORT", "OPENRDA_INI", "PATH"}),
                  "ok: |5499|/opt/rvtest/openrda.ini|" + db + ":/usr/local/pgsql/bin/")
            << line;
    }
    // The class counts only before the first blank; rv_db only with its blank.
    box.set_path_key("gv_ro_pgsql", "/opt/rvtest/pgsql/");
    const std::pair<std::string, std::string> cases[] = {
        {"echo psql", bin},
        {"/usr/bin/psql", bin},  // without options the name is not at the start
        {"/usr/bin/psql -l", db + ":/opt/rvtest/pgsql/"},
        {"/opt/x/rv_db \"select 1\" -e", db + ":/opt/rvtest/pgsql/"},
        {"/opt/x/rv_db", bin},
    };
    for (const auto& [line, path] : cases) {
        setenv("PATH", base.c_str(), 1);
        EXPECT_EQ(call(line, {"PATH"}), "ok: |" + path) << line;
    }
    // A directory inside a longer entry counts as present.
    setenv("PATH", "/usr/bin:/opt/rvtest/bin/extra", 1);
    EXPECT_EQ(call("ls", {"PATH"}), "ok: |/usr/bin:/opt/rvtest/bin/extra");

    EXPECT_EQ(call("netware_sync"),
              "ok: check LD_LIBRARY_PATH=\ndidn't get LD_LIBRARY_PATH\n"
              "set LD_LIBRARY_PATH=:/opt/novell/lib\n");
    EXPECT_EQ(env("LD_LIBRARY_PATH"), ":/opt/novell/lib");
    EXPECT_EQ(call("netware_sync"), "ok: check LD_LIBRARY_PATH=:/opt/novell/lib\n");
}

TEST_F(SetenvRavik, MissingSettingsRefuseOnlyDatabasePrograms) {
    box.extra_sections = "";
    box.write_rv_ini();
    EXPECT_EQ(call("echo psql"), "ok: ");
    EXPECT_EQ(call("psql -l"), "refused: key gv_port_db not found in rv.ini\n");
    root_ini("\n");
    EXPECT_EQ(call("psql"), "refused: key OPENRDA_INI not found in /etc/ravik2000.ini\n");

    root_ini("\nOPENRDA_INI=/x\n");
    box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
    box.set_path_key("gv_ro_db", "");
    std::string out = call("psql");
    EXPECT_TRUE(out.starts_with("refused: error in i_READ_INI gv_ro_db i_READ_INI: ")) << out;
    box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
    out = call("rv_kvx_interface -x");
    EXPECT_TRUE(out.starts_with("refused: error in i_READ_INI gv_ro_kvx ")) << out;
    box.set_path_key("gv_ro_bin", "");
    EXPECT_EQ(call("ls"), "refused: ");

    // An overlong PATH is refused with the seven lines.
    box.set_path_key("gv_ro_bin", "/opt/rvtest/bin/");
    const std::string longpath = "/usr/bin:" + std::string(2030, 'p');
    setenv("PATH", longpath.c_str(), 1);
    const char* already = " (0 means that string already in PATH)\n";
    EXPECT_EQ(call("ls"), std::string("refused: iStrLenRoBin = 16") + already + "iStrLenRoDb  = 0" +
                              already + "iStrLenRoPgsql = 0" + already + "iStrLenRoKvx = 0" +
                              already +
                              "iStrLenPath  = 2039\niSizeOfPath  = 2048\n"
                              "length of string is not sufficient\n");
    EXPECT_EQ(env("PATH"), longpath);
}

TEST_F(Config, StartSystemDecodesExitCodesAndAbnormalEnds) {
    const std::string enoent = std::strerror(ENOENT);
    const std::string sig9 = "/bin/sh terminated due to receipt of a signal that was not caught: 9";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // command, "<exit code> <buffer afterwards>", part of standard error ("": silent)
        {"exit 3", "3 exit 3", ""},
        {"rv_no_such_command_4711", "127 could not start: please check" + enoent,
         "start_system: please check: " + enoent + " (2)\n"},
        // The shell reports a child killed by SIGTERM as 143.
        {"sh -c 'kill -TERM $$'; exit $?",
         "143 terminated due to receipt of a signal that was not caught: 15",
         "exe terminated due to the receipt of a signal that was not caught: 15\n"},
        // The shell itself killed: two reports, exit code 0.
        {"kill -KILL $$", "0 " + sig9, "/bin/sh terminated abnormally 0...\n" + sig9 + "\n"},
    };
    for (const auto& [cmd, result, part] : cases) {
        std::string buffer = cmd;
        int code = -1;
        const std::string err = rvtest::capture(2, [&] { code = rv::start_system(buffer); });
        EXPECT_EQ(std::to_string(code) + " " + buffer, result) << cmd;
        EXPECT_TRUE(part.empty() ? err.empty() : err.find(part) != std::string::npos) << err;
    }
    rv::eLang = rv::LANG_DE;
    std::string cmd = "exit 127";
    rvtest::capture(2, [&] { rv::start_system(cmd); });
    // The ordinary exit wrote nothing: the first text is the command not found.
    const auto texts = rvtest::protocol_texts(prot);
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_TRUE(
        texts[0].starts_with("E008-BASICS  Error in command execution start_system: "
                             "rv_no_such_command_4711: could not start: please check"))
        << texts[0];
    EXPECT_NE(texts[2].find("start_system: kill -KILL $$: /bin/sh terminated abnormally"),
              std::string::npos)
        << texts[2];
    EXPECT_TRUE(
        texts[4].starts_with("E008-BASICS  Fehler bei Kommandoausführung start_system: exit 127: "))
        << texts[4];

    // A refused environment runs nothing.
    box.set_path_key("gv_ro_bin", "");
    cmd = "touch " + box.path("ran");
    EXPECT_EQ(rvtest::capture(
                  1, [&] { EXPECT_EQ(rv::start_system(cmd), rv::kStartSystemNoEnvironment); }),
              "error occured in i_setenv_ravik\n");
    EXPECT_FALSE(fs::exists(box.path("ran")));
}

TEST_F(Config, FileSearchOperatorsAndReturnedLine) {
    const std::string file = box.dir("gv_rw_work") + "log.txt";
    box.set_glbv("gv_rw_work", box.dir("gv_rw_work"));
    // Lines are read in pieces of at most 511 characters.
    rvtest::write_file(file, "info start\nwarn FATAL disk\nERROR here\nx|OR|y zz\n" +
                                 std::string(508, 'x') + "needle\ntail");
    const std::tuple<std::string, std::string, bool, std::string> cases[] = {
        // file, expression, found, the caller's string afterwards
        {file, "ERROR|OR|FATAL^", true, "warn FATAL disk"},
        {file, "ERROR|AND|FATAL", false, "ERROR"},    // the operator is cut out
        {file, "x|OR|y|AND|zz^", true, "x|OR|y zz"},  // |AND| wins, |OR| is text
        {file, "Error", false, "Error"},
        {file, "needle", false, "needle"},
        {file, "dle^", true, "dle"},
        {file, "tai^", true, "tail"},  // a last line without line feed
        {"gv_rw_work:log.txt", "here^", true, "ERROR here"},
        {"gv_rw_work:missing.txt", "here", false, "here"},
    };
    for (const auto& [name, in, found, after] : cases) {
        std::string expr = in;
        EXPECT_EQ(rv::file_search(name, expr), found) << name << " " << in;
        EXPECT_EQ(expr, after) << in;
    }
    errno = EACCES;
    EXPECT_EQ(rvtest::capture(2, [] { EXPECT_EQ(rv::i_FILE_CLOSE(EACCES), 0); }),
              std::string("\nFILE_CLOSE error: ") + std::strerror(EACCES) + "\n");
}

TEST_F(Config, GetDirWalksEveryMatchOnce) {
    const std::string work = box.dir("gv_rw_work");
    box.set_glbv("gv_rw_work", work);
    for (const char* name : {"x.lock", "y.lock", ".hidden.lock", "z.txt", "lock"})
        rvtest::write_file(work + name, "");
    const auto walk = [](const std::string& pattern) {
        Lines names;
        rv::rv_dirent de;
        for (bool ok = rv::i_GET_DIR(pattern, de); ok; ok = rv::i_GET_DIR("", de))
            names.push_back(de.d_name);
        std::sort(names.begin(), names.end());
        return names;
    };
    // Without flags the wildcard also matches a leading dot.
    EXPECT_EQ(walk("gv_rw_work:*.lock"), (Lines{".hidden.lock", "x.lock", "y.lock"}));
    EXPECT_EQ(walk(work + "?.*"), (Lines{"x.lock", "y.lock", "z.txt"}));
    EXPECT_EQ(walk(work + "*.none"), Lines{});
    // A directory that cannot be opened is traced from level 1 on.
    rv::strLog = {box.path("trace.lgc"), 1, 0, ""};
    rv::rv_dirent de;
    EXPECT_FALSE(rv::i_GET_DIR(box.path("absent/") + "*", de));
    EXPECT_TRUE(rvtest::read_file(rv::strLog.szFile)
                    .ends_with("iGET_DIR: Error in opendir( " + box.path("absent/") +
                               " ): " + std::strerror(ENOENT) + "\n"));
}

}  // namespace
