// The line-keeping ini reader: each lookup gives what the file reader gives on the same text, and every
// section and key carries its line.
#include "config/ini_listing.hpp"

#include <gtest/gtest.h>

#include "support/sandbox.hpp"

namespace {

TEST(IniListing, LooksUpAsTheFileReaderDoesAndKeepsEveryLine) {
    const std::string text = "top=outside\n# comment=no key\n[DEFAULT]\nbase=/opt\n\n"
                             "[Update 1.6.4.] trailing words\nlast_step_nr=3\nSTEP_1=cmd %(base)/bin\n"
                             "step_1=second\nstep_2=\nstep_3=   \nloop=%(loop)\nref=%(nowhere)x\nstep 4=blank key\n"
                             "trail=x   \nempty=%(step_2)\nlong=" + std::string(1018, 'a') + "tail=two\n"
                             "[update 1.6.4.]\ndup=1\n[cut]\nvalue=abcdefgh";
    rvtest::Sandbox box;
    const std::string file = box.path("script.ini");
    rvtest::write_file(file, text);
    const rv::IniListing listing(text);
    const struct { const char* section; const char* key; std::size_t size = rv::kIniValueSize; } lookups[] = {
        // The first key of a name, regardless of case; a reference from [DEFAULT].
        {"Update 1.6.4.", "step_1"}, {"update 1.6.4.", "last_step_nr"},
        // Empty and blank values; a reference to itself, to nothing or to an empty value leaves the value as it
        // was.
        {"Update 1.6.4.", "step_2"}, {"Update 1.6.4.", "step_3"}, {"Update 1.6.4.", "loop"},
        {"Update 1.6.4.", "ref"}, {"Update 1.6.4.", "empty"}, {"Update 1.6.4.", "step 4"},
        {"Update 1.6.4.", "trail"},
        // A long line goes on as a line of its own.
        {"Update 1.6.4.", "long"}, {"Update 1.6.4.", "tail"},
        // Only the first of two sections of one name is read; a header matches by its beginning.
        {"update 1.6.4.", "dup"}, {"Update 1.6.4", "last_step_nr"}, {"cut", "value", 4}, {"cut", "top"},
        {"none", "value"}, {"DEFAULT", "base"},
    };
    for (const auto& l : lookups) {
        std::string value = "as before", msg;
        rv::i_GetPrivateProfileString(file, "[" + std::string(l.section) + "]", l.key, value, msg, l.size);
        EXPECT_EQ(listing.value(l.section, l.key, l.size).value_or("as before"), value) << l.section << " " << l.key;
    }
    std::string lines;
    for (const auto& section : listing.sections()) {
        lines += "[" + section.name + "]" + std::to_string(section.line);
        for (const auto& key : section.keys) lines += " " + key.key + "=" + std::to_string(key.line);
        lines += "\n";
    }
    EXPECT_EQ(lines, "[DEFAULT]3 base=4\n[Update 1.6.4.]6 last_step_nr=7 STEP_1=8 step_1=9 step_2=10 step_3=11 "
                     "loop=12 ref=13 step 4=14 trail=15 empty=16 long=17 tail=17\n"
                     "[update 1.6.4.]18 dup=19\n[cut]20 value=21\n");
    EXPECT_EQ(listing.long_lines(), std::vector<int>{17});
}

}  // namespace
