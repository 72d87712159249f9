// halt: the report, the clean-up handler that gets control, and the
// exception when there is none.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <utility>

#include "db/session.hpp"

namespace {

using ::testing::ExitedWithCode;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// What `call` throws as SessionHalted, and what it wrote on standard error.
template <typename Call>
std::pair<std::string, std::string> halted(Call call) {
    CaptureStderr();
    try {
        call();
    } catch (const rv::SessionHalted& halted) {
        return {halted.what(), GetCapturedStderr()};
    }
    GetCapturedStderr();
    ADD_FAILURE() << "SessionHalted was not thrown";
    return {};
}

TEST(SessionHalt, WithoutHandlerThrowsTheTextItWrote) {
    const auto [text, written] = halted([] { rv::halt("failed query:  %s\n", "select 1"); });
    EXPECT_EQ(text, "failed query:  select 1\n");
    EXPECT_EQ(written, text);

    const auto [perror_text, perror_written] = halted([] {
        errno = ENOENT;
        rv::halt("PERROR : :rest %d\n", 7);
    });
    EXPECT_EQ(perror_text, "rest 7\nNo such file or directory\n");
    EXPECT_EQ(perror_written, perror_text);
}

TEST(SessionHalt, FailedConnectionThrowsItsReport) {
    const auto [text, written] =
        halted([] { rv::connectdb("host=/nonexistent/dir port=1 dbname=ravik_db"); });
    rv::release_session();
    EXPECT_TRUE(text.starts_with(
        "Connection to database using 'host=/nonexistent/dir port=1 dbname=ravik_db' failed.\n"))
        << text;
    EXPECT_GT(text.size(), text.find('\n') + 1) << "no reason after the first line";
    EXPECT_EQ(written, text);
}

TEST(SessionHalt, ThrowsWhenTheHandlerReturns) {
    static int received = -1;
    std::signal(SIGINT, [](int signo) { received = signo; });
    EXPECT_EQ(halted([] { rv::halt("x\n"); }).first, "x\n");
    EXPECT_EQ(received, 0);
    // halt has put the default action back.
    EXPECT_EQ(std::signal(SIGINT, SIG_DFL), SIG_DFL);
}

TEST(SessionHaltDeathTest, CallsTheFirstInstalledHandler) {
    // SIGINT comes before SIGQUIT; an ignored SIGTERM is passed over.
    EXPECT_EXIT(
        {
            std::signal(SIGTERM, SIG_IGN);
            std::signal(SIGINT, [](int) { _exit(5); });
            std::signal(SIGQUIT, [](int) { _exit(7); });
            rv::halt("x\n");
        },
        ExitedWithCode(5), "^x\n$");
}

}  // namespace
