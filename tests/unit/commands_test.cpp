#include "cli/commands.hpp"

#include <gtest/gtest.h>

#include "log/finish.hpp"

namespace {

TEST(MainVersion, CutsBehindTheLastDot) {
    EXPECT_EQ(rv::main_version("2.0.1.5"), "2.0.1.");
    EXPECT_EQ(rv::main_version("1.6.4.71"), "1.6.4.");
    EXPECT_EQ(rv::main_version("1.6.4."), "1.6.4.");
    EXPECT_EQ(rv::main_version("3"), "3");
    EXPECT_EQ(rv::main_version(""), "");
}

TEST(CommandList, PositionsSelectTheCommands) {
    // The loose substring selection depends on these positions.
    EXPECT_EQ(rv::kCommandList.find("up"), 0u);
    EXPECT_EQ(rv::kCommandList.find("do"), 7u);
    EXPECT_EQ(rv::kCommandList.find("db"), 17u);
    EXPECT_EQ(rv::kCommandList.find("db_r"), 27u);
    EXPECT_EQ(rv::kCommandList.find("set"), 38u);
    EXPECT_EQ(rv::kCommandList.find("fix"), 49u);
    EXPECT_EQ(rv::kCommandList.find("d"), 2u);
}

TEST(Finish, StatusWords) {
    EXPECT_STREQ(rv::status_word(rv::RV_SUCCESS), "SUCCESS");
    EXPECT_STREQ(rv::status_word(rv::RV_WARNING), "WARNING");
    EXPECT_STREQ(rv::status_word(rv::RV_ERROR), "ERROR");
    EXPECT_STREQ(rv::status_word(rv::RV_FATAL), "FATAL");
    EXPECT_STREQ(rv::status_word(7), "FATAL");
    EXPECT_STREQ(rv::status_word(-1), "FATAL");
}

TEST(FinishDeathTest, PrintsStatusLineAndExits) {
    EXPECT_EXIT(rv::FINISH(rv::RV_ERROR, "boom"), ::testing::ExitedWithCode(2), "");
    EXPECT_EXIT(rv::FINISH(7, "odd"), ::testing::ExitedWithCode(7), "");
}

}  // namespace
