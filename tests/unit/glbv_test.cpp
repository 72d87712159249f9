// Reading file-based global variables, and the two resolvers of the path
// notation.
#include "config/glbv.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/product_test.hpp"

namespace {

class Glbv : public rvtest::ProductTest {
  protected:
    // The text of a read, prefixed by "found: ", "missing: " or "failed: ".
    std::string read(const std::string& name) {
        std::string n = name;
        const rv::GlbvResult r = rv::glbv('r', n);
        const char* status[] = {"found: ", "missing: ", "failed: "};
        return status[static_cast<int>(r.status)] + r.text;
    }
    std::string var(const std::string& name) const { return box.dir("gv_rw_glbv") + name + ".rgv"; }
};

TEST_F(Glbv, ReadJoinsLinesAndCutsLongValues) {
    std::string text;
    for (int i = 0; i < 600; ++i) {
        text.push_back(static_cast<char>('a' + i % 26));
    }
    const std::size_t max = rv::kGlbvValueMax;
    const std::pair<std::string, std::string> cases[] = {
        {"hello", "hello"},
        {"x\ny\n", "xy"},
        {"\n", ""},  // a line was read: not missing
        {text.substr(0, max) + "\n", text.substr(0, max)},
        {text.substr(0, max + 1), text.substr(0, max - 1) + ">"},
        // The joined lines count, not the single ones.
        {text.substr(0, 300) + "\n" + text.substr(300) + "\n", text.substr(0, max - 1) + ">"},
    };
    for (const auto& [content, value] : cases) {
        rvtest::write_file(var("a_b_c"), content);
        EXPECT_EQ(read("a_b_c"), "found: " + value) << content;
    }
    // '/' and '\' in the name become '_', in the caller's string too.
    std::string name = "a/b\\c";
    EXPECT_EQ(rv::glbv('r', name).text, text.substr(0, max - 1) + ">");
    EXPECT_EQ(name, "a_b_c");
}

TEST_F(Glbv, MissingAndFailedReadsAreToldApart) {
    rvtest::write_file(var("empty"), "");
    std::filesystem::create_directory(var("dir"));
    EXPECT_EQ(rvtest::capture(2,
                              [&] {
                                  EXPECT_EQ(read("missing"), "missing: ?? GLBV missing not existing");
                                  EXPECT_EQ(read("empty"), "missing: ?? GLBV empty not existing");
                                  EXPECT_EQ(read("dir"),
                                            "failed: ?? GLBV dir not existing: Is a directory");
                              }),
              "glbv() read failed: empty file\nglbv() read " + var("dir") +
                  " failed: Is a directory (21)\n");
    EXPECT_EQ(rvtest::protocol_texts(prot),
              std::vector<std::string>{"Error: GLBV: ?? GLBV dir not existing: Is a directory"});

    // Without gv_rw_glbv the fatal text in the user's language.
    box.set_path_key("gv_rw_glbv", "");
    const std::pair<rv::LANGUAGES, std::string> fatal[] = {
        {rv::LANG_EN, "Fatal software error FILE=cm_hal_unix LINE=249 ( error reading rv_ini)"},
        {rv::LANG_FR, "Fatal software error FILE=cm_hal_unix LINE=249 ( error reading rv_ini)"},
        {rv::LANG_DE, "Fataler Software Fehler FILE=cm_hal_unix ZEILE=249 ( error reading rv_ini)"},
        {rv::LANG_BA,
         "do is a ganz a groba Fälla in FILE=cm_hal_unix ZEILE=249 ( error reading rv_ini)"},
    };
    for (const auto& [lang, text] : fatal) {
        rv::eLang = lang;
        EXPECT_EQ(read("v"), "missing: " + text);
    }
}

TEST_F(Glbv, PathNotation) {
    box.set_glbv("base", "/data/");
    const std::pair<std::string, std::string> glbvCases[] = {
        {"base:x/y", "/data/x/y"}, {"base", "/data/"}, {"no/such:x", "no/such:x"}};
    for (const auto& [in, out] : glbvCases) {
        std::string s = in;
        EXPECT_EQ(rv::resolve_glbv(s), in != out) << in;
        EXPECT_EQ(s, out);
    }
    const std::pair<std::string, std::string> pathCases[] = {
        {"GV_RW_WORK:x.dat", box.dir("gv_rw_work") + "x.dat"},
        {"gv_ro", box.dir("gv_ro")},
        {"/tmp/a:b", "/tmp/a:b"},
    };
    for (const auto& [in, out] : pathCases) {
        std::string s = in;
        EXPECT_TRUE(rv::resolve_path(s));
        EXPECT_EQ(s, out);
    }
}

}  // namespace
