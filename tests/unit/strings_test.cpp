#include "sys/strings.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log/trace.hpp"
#include "support/sandbox.hpp"

namespace {

// All fields of one tokenization, the first one included.
std::vector<std::string> all_fields(std::string_view input, char delim) {
    std::vector<std::string> fields{std::string(rv::cm_strtok(input, delim))};
    while (auto next = rv::cm_strtok_next()) {
        fields.emplace_back(*next);
    }
    return fields;
}

using Fields = std::vector<std::string>;

}  // namespace

TEST(StrTrim, RemovesBlanksAndTabsAtBothEndsOnly) {
    std::string s = "  a b \t";
    EXPECT_EQ(rv::str_trim(s), "a b");
    EXPECT_EQ(s, "a b");
    s = "   ";
    EXPECT_EQ(rv::str_trim(s), "");
    s = "\t x\ty \t";
    EXPECT_EQ(rv::str_trim(s), "x\ty");
    s = "\nz\n";
    EXPECT_EQ(rv::str_trim(s), "\nz\n");
}

TEST(CmStrtok, EmptyFieldsAreKept) {
    EXPECT_EQ(all_fields("a,,b", ','), (Fields{"a", "", "b"}));
    EXPECT_EQ(all_fields("a,", ','), (Fields{"a", ""}));
    EXPECT_EQ(all_fields(",a", ','), (Fields{"", "a"}));
    EXPECT_EQ(all_fields("", ','), (Fields{""}));
    EXPECT_EQ(all_fields("a b", ','), (Fields{"a b"}));
    // Once finished, the tokenization stays finished.
    EXPECT_FALSE(rv::cm_strtok_next().has_value());
    // A new input replaces the previous tokenization.
    EXPECT_EQ(rv::cm_strtok("x:y:z", ':'), "x");
    EXPECT_EQ(rv::cm_strtok("p:q", ':'), "p");
    EXPECT_EQ(rv::cm_strtok_next(), std::optional<std::string_view>("q"));
    EXPECT_FALSE(rv::cm_strtok_next().has_value());
}

TEST(CmStrtok, OverlongInputIsCutWithNotice) {
    const std::string fits(rv::kTokenizerLimit, 'a');
    rvtest::CaptureFd quiet(2);
    EXPECT_EQ(all_fields(fits, ','), (Fields{fits}));
    EXPECT_EQ(quiet.finish(), "");

    // The cut falls just behind "b": ",c" is lost.
    const std::string head(rv::kTokenizerLimit - 2, 'a');
    const std::string longer = head + ",b,c";
    rvtest::CaptureFd err(2);
    const Fields fields = all_fields(longer, ',');
    ASSERT_EQ(fields.size(), 2u);
    EXPECT_TRUE(fields[0] == head);
    EXPECT_EQ(fields[1], "b");
    EXPECT_EQ(err.finish(), "string shortend to 8191 chars bcs. of string overflow: strlen(" + longer + ") > 8191\n");
}

TEST(StrElem, FieldsFollowTheTokenizer) {
    std::string elem = "junk";
    EXPECT_FALSE(rv::str_elem(2, ':', "a:b", elem));
    EXPECT_EQ(elem, "");
    EXPECT_TRUE(rv::str_elem(0, ':', "abc", elem));
    EXPECT_EQ(elem, "abc");
    EXPECT_TRUE(rv::str_elem(1, ',', "a,,b", elem));
    EXPECT_EQ(elem, "");
    // One leading delimiter is skipped, a second one gives an empty field.
    EXPECT_TRUE(rv::str_elem(0, ',', ",a,b", elem));
    EXPECT_EQ(elem, "a");
    EXPECT_TRUE(rv::str_elem(0, ',', ",,a", elem));
    EXPECT_EQ(elem, "");
    elem = "junk";
    EXPECT_FALSE(rv::str_elem(0, ',', "", elem));
    EXPECT_EQ(elem, "");
    EXPECT_FALSE(rv::str_elem(0, ',', ",", elem));
}

TEST(StrElem, LooksAtTheFirst767CharactersOnly) {
    std::string elem;
    const std::string head(rv::kStrElemLimit - 1, 'x');
    EXPECT_TRUE(rv::str_elem(1, ',', head + ",yz", elem));
    EXPECT_EQ(elem, "");
    EXPECT_FALSE(rv::str_elem(1, ',', head + "x,yz", elem));
    EXPECT_TRUE(rv::str_elem(0, ',', head + "xyz", elem));
    EXPECT_EQ(elem.size(), rv::kStrElemLimit);
}

TEST(StrChain, AppendsUntilTheFirstEmptyPiece) {
    std::string s = "pre-";
    EXPECT_EQ(rv::str_chain(s, false, {"a", "b", "c"}), "pre-abc");
    EXPECT_EQ(rv::str_chain(s, true, {"x", "y"}), "xy");
    EXPECT_EQ(rv::str_chain(s, true, {"1", "", "2"}), "1");
    EXPECT_EQ(rv::str_chain(s, true, {"", "2"}), "");
}

TEST(StrChain, OverflowSkipsThePieceAndReportsIt) {
    rvtest::Sandbox box;
    const std::string prot = box.path("prot.log");
    rvtest::write_file(box.dir("gv_rw_glbv") + "gv_prot.rgv", prot);
    const rv::LANGUAGES savedLang = rv::eLang;

    const std::string base(500, 'f');
    std::string s = base;
    rvtest::CaptureFd err(2);
    rv::str_chain(s, false, {"0123456789a", "0123456789ab", "z"});
    const std::string out = err.finish();
    // 500 + 11 = 511 fits; 511 + 12 does not, 511 + 1 neither.
    EXPECT_EQ(s, base + "0123456789a");
    const std::string first = "FATAL: STR_CHAIN: string overflow strlen(filled_string) + strlen(new_string) > 512\n"
                              "  filled_string: " + s + "\n";
    EXPECT_EQ(out, first + "  new_string: 0123456789ab\n" + first + "  new_string: z\n");

    s = std::string(511, 'f');
    rv::eLang = rv::LANG_DE;
    rvtest::CaptureFd err2(2);
    rv::str_chain(s, false, {"q"});
    err2.finish();
    rv::eLang = rv::LANG_BA;
    rvtest::CaptureFd err3(2);
    rv::str_chain(s, false, {"q"});
    err3.finish();
    rv::eLang = savedLang;

    const auto lines = rvtest::read_lines(prot);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].find("E001-BASICS [") , std::string::npos);
    EXPECT_NE(lines[0].find("]: STR_CHAIN string overflow"), std::string::npos);
    EXPECT_NE(lines[2].find("]: STR_CHAIN Stringüberlauf"), std::string::npos);
    EXPECT_NE(lines[3].find("]: STR_CHAIN Stringübalauf"), std::string::npos);
}

TEST(Strlcpy, CopiesBoundedAndReportsTheSourceLength) {
    char buf[8] = "zzzzzzz";
    EXPECT_EQ(rv::strlcpy(buf, "abcdef", 4), 6u);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(rv::strlcpy(buf, "xyz", 0), 3u);
    EXPECT_STREQ(buf, "abc");

    EXPECT_EQ(rv::bounded("abcdef", 4), "abc");
    EXPECT_EQ(rv::bounded("ab", 0), "");
}

TEST(GetCallParam, JoinsArgumentsEachWithABlank) {
    std::string a0 = "rv_db_update", a1 = "update", a2 = "-v";
    char* argv[] = {a0.data(), a1.data(), a2.data(), nullptr};
    EXPECT_EQ(rv::GET_CALL_PARAM(2, argv), "rv_db_update update ");
    EXPECT_EQ(rv::GET_CALL_PARAM(0, argv), "");
}

TEST(GetCallParam, OverlongCommandLineEndsInTruncationMark) {
    std::string big(509, 'a'), two = "bc", one = "b", more = "more";
    // 510 + 2 reaches the buffer size: the mark replaces the end.
    char* cut[] = {big.data(), two.data(), more.data(), nullptr};
    const std::string line = rv::GET_CALL_PARAM(3, cut);
    EXPECT_EQ(line.size(), 511u);
    EXPECT_EQ(line, std::string(498, 'a') + "... truncated");
    EXPECT_EQ(line[510], 'd');
    // 510 + 1 still fits, followed by its blank.
    char* fits[] = {big.data(), one.data(), nullptr};
    EXPECT_EQ(rv::GET_CALL_PARAM(2, fits), big + " b ");
    // A mark beyond the end of a short line stays unseen.
    std::string shortArg = "short", huge(600, 'h');
    char* hidden[] = {shortArg.data(), huge.data(), more.data(), nullptr};
    EXPECT_EQ(rv::GET_CALL_PARAM(3, hidden), "short ");
}
