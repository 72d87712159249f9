#include "config/glbv.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>

#include "log/trace.hpp"
#include "support/sandbox.hpp"

namespace fs = std::filesystem;

namespace {

// A sandbox whose protocol file (global variable gv_prot) lies inside it, so
// that protocol lines land there and nothing else reaches standard error.
struct GlbvSandbox {
    rvtest::Sandbox sb;
    std::string dir = sb.dir("gv_rw_glbv");
    std::string prot = sb.path("prot.log");

    GlbvSandbox() { rvtest::write_file(dir + "gv_prot.rgv", prot); }
    std::string var(const std::string& name) const { return dir + name + ".rgv"; }
};

std::string call(char service, std::string name, std::string value = "") {
    return rv::glbv(service, name, value);
}

struct LangGuard {
    ~LangGuard() { rv::eLang = rv::LANG_EN; }
};

TEST(Glbv, WriteReadAndRemove) {
    GlbvSandbox g;
    const mode_t oldMask = umask(022);
    std::string name = "a/b\\c";
    std::string value = "hello";
    EXPECT_EQ(rv::glbv('w', name, value), "hello");
    umask(oldMask);
    EXPECT_EQ(name, "a_b_c");  // the caller's name is rewritten
    EXPECT_EQ(rvtest::read_file(g.var("a_b_c")), "hello");  // no line feed
    EXPECT_EQ(fs::status(g.var("a_b_c")).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);

    EXPECT_EQ(call('r', "a/b/c"), "hello");
    call('w', "a_b_c", "hi");  // truncates the longer value
    rvtest::write_file(g.var("lines"), "x\ny\n");
    rvtest::write_file(g.var("newline"), "\n");
    EXPECT_EQ(call('r', "lines"), "xy");
    EXPECT_EQ(call('r', "newline"), "");  // a line was read: not missing

    rvtest::CaptureFd err(2);
    EXPECT_EQ(call('R', "a_b_c"), "hi");
    EXPECT_FALSE(fs::exists(g.var("a_b_c")));
    EXPECT_EQ(call('R', "a_b_c"), "?? GLBV a_b_c not existing");
    EXPECT_EQ(err.finish(), "");
}

TEST(Glbv, LongValuesAreCutAndMarked) {
    GlbvSandbox g;
    const std::size_t max = rv::kGlbvValueMax;
    std::string text;
    for (int i = 0; i < 600; ++i) {
        text.push_back(static_cast<char>('a' + i % 26));
    }
    rvtest::write_file(g.var("long"), text);
    rvtest::write_file(g.var("fits"), text.substr(0, max) + "\n");
    rvtest::write_file(g.var("over"), text.substr(0, max + 1));
    EXPECT_EQ(call('r', "long"), text.substr(0, max - 1) + ">");
    EXPECT_EQ(call('r', "fits"), text.substr(0, max));
    EXPECT_EQ(call('r', "over"), text.substr(0, max - 1) + ">");

    // The joined lines count, not the single ones.
    const std::string first(300, '1');
    const std::string second(300, '2');
    rvtest::write_file(g.var("joined"), first + "\n" + second + "\n");
    EXPECT_EQ(call('r', "joined"), first + second.substr(0, max - 301) + ">");
}

TEST(Glbv, Failures) {
    GlbvSandbox g;
    rvtest::write_file(g.var("empty"), "");
    fs::create_directory(g.var("dir"));

    rvtest::CaptureFd err(2);
    EXPECT_EQ(call('r', "empty"), "?? GLBV empty not existing");
    EXPECT_TRUE(fs::exists(g.var("empty")));
    EXPECT_EQ(call('R', "empty"), "?? GLBV empty not existing");
    EXPECT_FALSE(fs::exists(g.var("empty")));  // removed although empty
    // Reasons other than a missing file are reported.
    EXPECT_EQ(call('r', "dir"), "?? GLBV dir not existing: Is a directory");
    EXPECT_EQ(call('w', "dir", "v"), "?? GLBV dir cannot be created: Is a directory");
    EXPECT_EQ(err.finish(), "glbv() read failed: empty file\nglbv() read failed: empty file\n"
                            "glbv() read " + g.var("dir") + " failed: Is a directory (21)\n" +
                                "glbv() write " + g.var("dir") + " failed: Is a directory (21)\n");
    const std::string protocol = rvtest::read_file(g.prot);
    EXPECT_NE(protocol.find("Error: GLBV:"), std::string::npos) << protocol;
    EXPECT_NE(protocol.find("?? GLBV dir not existing: Is a directory"), std::string::npos) << protocol;
    EXPECT_NE(protocol.find("?? GLBV dir cannot be created: Is a directory"), std::string::npos) << protocol;
}

TEST(Glbv, ServiceLettersAndLanguages) {
    GlbvSandbox g;
    LangGuard guard;
    const std::pair<rv::LANGUAGES, const char*> invalid[] = {
        {rv::LANG_EN, "?? invalid service x"},         {rv::LANG_DE, "?? ungültiger Parameter x"},
        {rv::LANG_BA, "?? ungültiga Parameter x"},     {rv::LANG_FR, "?? Le Parametre x est erroné"},
        {rv::LANG_HR, "?? invalid service x"},
    };
    for (const auto& [lang, text] : invalid) {
        rv::eLang = lang;
        EXPECT_EQ(call('x', "v"), text);
    }

    // Without gv_rw_glbv every service gives the fatal text, even a bad one.
    g.sb.set_path_key("gv_rw_glbv", "");
    const std::string english = "Fatal software error FILE=cm_hal_unix LINE=249 ( error reading rv_ini)";
    rv::eLang = rv::LANG_FR;
    EXPECT_EQ(call('r', "v"), english);
    rv::eLang = rv::LANG_EN;
    EXPECT_EQ(call('x', "v"), english);
    rv::eLang = rv::LANG_DE;
    EXPECT_EQ(call('w', "v", "1"), "Fataler Software Fehler FILE=cm_hal_unix ZEILE=249 ( error reading rv_ini)");
    rv::eLang = rv::LANG_BA;
    EXPECT_EQ(call('R', "v"), "do is a ganz a groba Fälla in FILE=cm_hal_unix ZEILE=249 ( error reading rv_ini)");
}

TEST(Glbv, Delete) {
    GlbvSandbox g;
    for (const char* file : {"job_1.rgv", "job_abc.rgv", "job_x.txt", "xjob_1.rgv", "a_b.rgv"}) {
        rvtest::write_file(g.dir + file, "v");
    }
    std::string name = "job_*";
    std::string value = "untouched";
    EXPECT_EQ(&rv::glbv('d', name, value), &name);
    EXPECT_EQ(value, "untouched");
    EXPECT_FALSE(fs::exists(g.dir + "job_1.rgv"));
    EXPECT_FALSE(fs::exists(g.dir + "job_abc.rgv"));
    EXPECT_FALSE(fs::exists(g.dir + "job_x.txt"));  // the whole file name is matched
    EXPECT_TRUE(fs::exists(g.dir + "xjob_1.rgv"));
    EXPECT_EQ(call('d', "a/b"), "a_b");
    EXPECT_FALSE(fs::exists(g.dir + "a_b.rgv"));
    EXPECT_TRUE(fs::exists(g.dir + "xjob_1.rgv"));

    const std::string gone = g.sb.path("gone/");
    g.sb.set_path_key("gv_rw_glbv", gone);
    rvtest::CaptureFd err(2);
    call('d', "missing");  // deletion errors are not reported
    call('d', "job_*");
    EXPECT_EQ(err.finish(), "glbv: Error in opendir( " + gone + " ): No such file or directory\n");
}

TEST(PathNotation, ResolveGlbvAndPath) {
    GlbvSandbox g;
    call('w', "base", "/data/");
    const std::pair<std::string, std::string> glbvCases[] = {
        {"base:x/y", "/data/x/y"}, {"base", "/data/"}, {"no/such:x", "no/such:x"}};
    for (const auto& [in, out] : glbvCases) {
        std::string s = in;
        EXPECT_EQ(rv::resolve_glbv(s), in != out) << in;
        EXPECT_EQ(s, out);
    }

    const std::pair<std::string, std::string> pathCases[] = {
        {"gv_ro_bin:", g.sb.dir("gv_ro_bin")},
        {"GV_RW_WORK:x.dat", g.sb.dir("gv_rw_work") + "x.dat"},
        {"gv_ro", g.sb.dir("gv_ro")},
        {"/tmp/a:b", "/tmp/a:b"},
    };
    for (const auto& [in, out] : pathCases) {
        std::string s = in;
        EXPECT_TRUE(rv::resolve_path(s));
        EXPECT_EQ(s, out);
    }

    std::string s = "C:\\dir\\f";
    rv::SLASH_HAMMER(s);
    EXPECT_EQ(s, "C:/dir/f");
}

}  // namespace
