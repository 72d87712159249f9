#include "config/ini.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/sandbox.hpp"

namespace {

struct Result {
    bool ok;
    std::string value;
    std::string msg;
};

// One lookup; a value the reader does not write stays "untouched".
Result get(const std::string& file, const std::string& section, const std::string& key,
           std::size_t size = rv::kIniValueSize) {
    Result r{false, "untouched", "stale"};
    r.ok = rv::i_GetPrivateProfileString(file, section, key, r.value, r.msg, size);
    return r;
}

const std::string kNotFound = "i_GetPrivateProfileString: KEY NOT FOUND";

TEST(IniReader, SectionsKeysAndValues) {
    rvtest::Sandbox sb;
    const std::string f = sb.path("t.ini");
    rvtest::write_file(f,
                       "gv_ro=before the section\n"
                       " [PATHES]\n"
                       "[pathes] trailing text\n"
                       "# gv_ro=comment\n"
                       "\n"
                       "GV_RO_BIN=/bin/   \n"
                       "spaced =no\n"
                       " indented=no\n"
                       "GV_RO=Mixed/Case/\n"
                       "gv_ro=second/\n"
                       "hash=a # b\n"
                       "raw=  x\t\r\n"
                       "blanks=   \n"
                       "empty=\n"
                       "[next]\n"
                       "[PATHES]\n"
                       "later=1\n");

    EXPECT_EQ(get(f, "[PATHES]", "gv_ro").value, "Mixed/Case/");  // first key line wins
    EXPECT_EQ(get(f, "[PATHES]", "gv_ro_bin").value, "/bin/");
    EXPECT_EQ(get(f, "[PATHES]", "hash").value, "a # b");
    EXPECT_EQ(get(f, "[PATHES]", "raw").value, "  x\t\r");  // only blanks are trimmed
    EXPECT_EQ(get(f, "[PATHES]", "gv_ro_bin", 4).value, "/bi");
    auto r = get(f, "[PATHES]", "blanks");
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.value, "   ");
    EXPECT_EQ(r.msg, "");
    r = get(f, "[PATHES]", "empty");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.value, "");
    EXPECT_EQ(r.msg, "i_GetPrivateProfileString: KEY VALUE NOT FOUND.");

    // Key lines with a blank before '=' or indented never match; a later
    // header ends the section, and only its first occurrence is searched.
    for (const char* key : {"spaced", "indented", "later"}) {
        r = get(f, "[PATHES]", key);
        EXPECT_FALSE(r.ok) << key;
        EXPECT_EQ(r.value, "untouched") << key;
        EXPECT_EQ(r.msg, kNotFound + " [PATHES]" + key);
    }
    EXPECT_EQ(get(f, "[NEXT]", "later").msg, kNotFound + " [NEXT]later");
    EXPECT_EQ(get(f, "[Absent]", "k").msg, "i_GetPrivateProfileString: SECTION NOT FOUND: [absent].");
    // Without a section the whole file is searched, and its end ends the search.
    EXPECT_EQ(get(f, "", "gv_ro").value, "before the section");
    EXPECT_EQ(get(f, "", "later").value, "1");
    EXPECT_EQ(get(f, "", "Nope").msg, kNotFound + ": Nope");
}

TEST(IniReader, LongLinesAndRefusedArguments) {
    rvtest::Sandbox sb;
    const std::string f = sb.path("t.ini");
    const std::string longValue(1500, 'v');
    const std::string longKey(rv::kIniKeyMax, 'k');
    rvtest::write_file(f, "[S]\n" + std::string(rv::kIniLinePiece, 'x') + "hidden=yes\n" + "big=" + longValue +
                              "\n" + std::string(rv::kIniLinePiece, 'y') + "\n" + longKey + "=ok\n");

    // The rest of an overlong line starts in column 1 of its own.
    EXPECT_EQ(get(f, "[S]", "hidden").value, "yes");
    EXPECT_EQ(get(f, "[S]", "big", 4000).value, longValue.substr(0, rv::kIniLinePiece - 4));
    EXPECT_EQ(get(f, "[S]", longKey).value, "ok");

    const std::string longSection = "[" + std::string(rv::kIniSectionMax - 1, 's') + "]";
    auto r = get(f, longSection, "k");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.msg, "i_GetPrivateProfileString: SECTION NAME TOO LONG: " + longSection);
    r = get(f, "[S]", longKey + "k");
    EXPECT_EQ(r.value, "untouched");
    EXPECT_EQ(r.msg, "i_GetPrivateProfileString: KEY NAME TOO LONG: " + longKey + "k");
    EXPECT_EQ(get("", "[S]", "k").msg, "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM.");
    EXPECT_EQ(get(sb.path("none.ini"), "[S]", "k").msg,
              "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM: " + sb.path("none.ini") + ".");
}

TEST(IniReader, References) {
    rvtest::Sandbox sb;
    const std::string f = sb.path("t.ini");
    rvtest::write_file(f,
                       "[DEFAULT]\n"
                       "base=/opt/x/\n"
                       "root=/r/\n"
                       "dflt=%(root)d/\n"
                       "[S]\n"
                       "bin=%(base)bin/\n"
                       "own=%(root)own/\n"
                       "root=/mine/\n"
                       "nested=%(own)n/\n"
                       "twice=%(base)a%(base)b\n"
                       "open=a%(base\n"
                       "fromdefault=%(dflt)\n"
                       "missing=a%(nokey)b\n"
                       "self=%(self)\n"
                       "ping=%(pong)\n"
                       "pong=x%(ping)\n");

    EXPECT_EQ(get(f, "[S]", "bin").value, "/opt/x/bin/");
    EXPECT_EQ(get(f, "[S]", "own").value, "/mine/own/");  // the own section comes first
    EXPECT_EQ(get(f, "[S]", "nested").value, "/mine/own/n/");
    EXPECT_EQ(get(f, "[S]", "twice").value, "/opt/x/a%(base)b");
    EXPECT_EQ(get(f, "[S]", "open").value, "a%(base");
    EXPECT_EQ(get(f, "[S]", "fromdefault").value, "/r/d/");
    EXPECT_EQ(get(f, "[S]", "bin", 10).value, "/opt/x/bi");

    auto r = get(f, "[S]", "missing");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.value, "untouched");
    EXPECT_EQ(r.msg, kNotFound + " [DEFAULT]nokey");  // the message of the [DEFAULT] lookup
    for (const char* key : {"self", "ping"}) {
        r = get(f, "[S]", key);
        EXPECT_FALSE(r.ok) << key;
        EXPECT_EQ(r.msg, std::string("i_GetPrivateProfileString: REFERENCE NESTED TOO DEEPLY: ") + key);
    }
}

TEST(IniRoot, RootFilesAndReadIni) {
    rvtest::Sandbox sb;
    const std::string other = sb.path("etc/other.ini");
    rvtest::write_file(other, "[SERVER]\nname=backup01\n[PATHES]\n");
    rvtest::write_file(sb.root_ini(), "RV_INI=" + sb.rv_ini() + "\nOTHER_INI=" + other + "\n");
    const std::string noRoot = "i_GET_ROOT_FOR_INI: NO RAVIK CONFIGURATION FILE FOUND: ";
    const char* unknown = "RV_TEST_NO_SUCH_ID_4711";
    std::string value = "stale";
    std::string msg = "stale";

    EXPECT_TRUE(rv::i_GET_ROOT_FOR_INI("RV_INI", value, msg));
    EXPECT_EQ(value, sb.rv_ini());
    EXPECT_EQ(msg, "");
    EXPECT_FALSE(rv::i_GET_ROOT_FOR_INI(unknown, value, msg));
    EXPECT_EQ(value, "");
    EXPECT_EQ(msg, noRoot + rv::kRootIniFirst);  // the second file tried

    EXPECT_TRUE(rv::i_READ_INI("", "[pathes]", "GV_RO", value, msg));
    EXPECT_EQ(value, sb.dir("gv_ro"));
    EXPECT_EQ(msg, "");
    EXPECT_TRUE(rv::i_READ_INI("RV_INI", "[PATHES]", "gv_rw_work", value, msg, 4));
    EXPECT_EQ(value, sb.dir("gv_rw_work").substr(0, 3));
    EXPECT_TRUE(rv::i_READ_INI("OTHER_INI", "[SERVER]", "name", value, msg));
    EXPECT_EQ(value, "backup01");

    EXPECT_FALSE(rv::i_READ_INI("RV_INI", "[PATHES]", "gv_nope", value, msg));
    EXPECT_EQ(value, "");
    EXPECT_EQ(msg, "i_READ_INI: " + kNotFound + ": gv_nope");
    EXPECT_FALSE(rv::i_READ_INI("OTHER_INI", "[SERVER]", "nope", value, msg));
    EXPECT_EQ(msg, "i_READ_INI: " + kNotFound + " [SERVER]nope");
    EXPECT_FALSE(rv::i_READ_INI(unknown, "[PATHES]", "gv_ro", value, msg));
    EXPECT_EQ(msg, std::string("i_READ_INI: ") + unknown);

    unsetenv("RAVIK_INI");
    EXPECT_FALSE(rv::i_GET_ROOT_FOR_INI(unknown, value, msg));
    EXPECT_EQ(msg, noRoot + rv::kRootIniSecond);
    setenv("RAVIK_INI", sb.root_ini().c_str(), 1);
}

}  // namespace
