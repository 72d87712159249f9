// The ini file reader: sections, keys, values, references, long lines, the
// refusals, and the root configuration files.
#include "config/ini.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/sandbox.hpp"

namespace {

const std::string kNotFound = "i_GetPrivateProfileString: KEY NOT FOUND";

struct Case {
    std::string section, key;
    bool ok;
    std::string value;  // "untouched" when the reader must not write it
    std::string msg;
    std::size_t size = rv::kIniValueSize;
};

// Looks every case up in a file of `content`.
void check(const std::string& content, const std::vector<Case>& cases) {
    rvtest::Sandbox sb;
    const std::string f = sb.path("t.ini");
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

TEST(IniReader, SectionsKeysAndValues) {
    const std::string text =
        "gv_ro=before the section\n [PATHES]\n[pathes] trailing text\n# gv_ro=comment\n\n"
        "GV_RO_BIN=/bin/   \nspaced =no\n indented=no\nGV_RO=Mixed/Case/\ngv_ro=second/\n"
        "raw=  x\t\r\nblanks=   \nempty=\n[next]\n[PATHES]\nlater=1\n";
    check(text,
          {
              {"[PATHES]", "gv_ro", true, "Mixed/Case/", ""},  // the first key line wins
              {"[PATHES]", "gv_ro_bin", true, "/bin/", ""},
              {"[PATHES]", "raw", true, "  x\t\r", ""},  // only blanks are trimmed
              {"[PATHES]", "blanks", true, "   ", ""},
              {"[PATHES]", "empty", false, "", "i_GetPrivateProfileString: KEY VALUE NOT FOUND."},
              // A blank before '=' or an indented key never matches; a later header
              // ends the section, and only its first occurrence is searched.
              {"[PATHES]", "spaced", false, "untouched", kNotFound + " [PATHES]spaced"},
              {"[PATHES]", "indented", false, "untouched", kNotFound + " [PATHES]indented"},
              {"[PATHES]", "later", false, "untouched", kNotFound + " [PATHES]later"},
              {"[Absent]", "k", false, "untouched",
               "i_GetPrivateProfileString: SECTION NOT FOUND: [absent]."},
              // Without a section the whole file is searched.
              {"", "gv_ro", true, "before the section", ""},
              {"", "later", true, "1", ""},
              {"", "Nope", false, "untouched", kNotFound + ": Nope"},
          });
}

TEST(IniReader, ReferencesLongLinesAndRefusedNames) {
    const std::string longKey(rv::kIniKeyMax, 'k');
    const std::string longSection = "[" + std::string(rv::kIniSectionMax - 1, 's') + "]";
    // The rest of an overlong line starts in column 1 of its own.
    check(
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
            {"[S]", "self", false, "untouched",
             "i_GetPrivateProfileString: REFERENCE NESTED TOO DEEPLY: self"},
            {"[S]", "ping", false, "untouched",
             "i_GetPrivateProfileString: REFERENCE NESTED TOO DEEPLY: ping"},
            {"[S]", "hidden", true, "yes", ""},
            {"[S]", "big", true, std::string(rv::kIniLinePiece - 4, 'v'), "", 4000},
            {"[S]", longKey, true, "ok", ""},
            {longSection, "k", false, "untouched",
             "i_GetPrivateProfileString: SECTION NAME TOO LONG: " + longSection},
            {"[S]", longKey + "k", false, "untouched",
             "i_GetPrivateProfileString: KEY NAME TOO LONG: " + longKey + "k"},
        });
}

TEST(IniRoot, RootFilesAndReadIni) {
    rvtest::Sandbox sb;
    const std::string other = sb.path("etc/other.ini");
    rvtest::write_file(other, "[SERVER]\nname=backup01\n[PATHES]\n");
    rvtest::write_file(sb.root_ini(), "RV_INI=" + sb.rv_ini() + "\nOTHER_INI=" + other + "\n");
    const std::string noRoot = "i_GET_ROOT_FOR_INI: NO RAVIK CONFIGURATION FILE FOUND: ";
    const char* unknown = "RV_TEST_NO_SUCH_ID_4711";
    std::string value;
    std::string msg;
    EXPECT_TRUE(rv::i_GET_ROOT_FOR_INI("RV_INI", value, msg));
    EXPECT_EQ(value, sb.rv_ini());
    EXPECT_FALSE(rv::i_GET_ROOT_FOR_INI(unknown, value, msg));
    EXPECT_EQ(value, "");
    EXPECT_EQ(msg, noRoot + rv::kRootIniFirst);  // the second file tried

    EXPECT_TRUE(rv::i_READ_INI("", "[pathes]", "GV_RO", value, msg));
    EXPECT_EQ(value, sb.dir("gv_ro"));
    EXPECT_EQ(msg, "");
    EXPECT_TRUE(rv::i_READ_INI("OTHER_INI", "[SERVER]", "name", value, msg));
    EXPECT_EQ(value, "backup01");
    EXPECT_FALSE(rv::i_READ_INI("RV_INI", "[PATHES]", "gv_nope", value, msg));
    EXPECT_EQ(value, "");
    EXPECT_EQ(msg, "i_READ_INI: " + kNotFound + ": gv_nope");
    EXPECT_FALSE(rv::i_READ_INI(unknown, "[PATHES]", "gv_ro", value, msg));
    EXPECT_EQ(msg, std::string("i_READ_INI: ") + unknown);
    std::string none;
    EXPECT_FALSE(rv::i_GetPrivateProfileString("", "[S]", "k", value, none));
    EXPECT_EQ(none, "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM.");
    EXPECT_FALSE(rv::i_GetPrivateProfileString(sb.path("no.ini"), "[S]", "k", value, none));
    EXPECT_EQ(none, "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM: " +
                        sb.path("no.ini") + ".");

    unsetenv("RAVIK_INI");
    EXPECT_FALSE(rv::i_GET_ROOT_FOR_INI(unknown, value, msg));
    EXPECT_EQ(msg, noRoot + rv::kRootIniSecond);
    setenv("RAVIK_INI", sb.root_ini().c_str(), 1);
}

}  // namespace
