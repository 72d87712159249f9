// halt: the report, and which clean-up handler gets control.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "db/session.hpp"

namespace {

using ::testing::ExitedWithCode;

void on_int(int) {
    // Exit 5 when SIGTERM, ignored before halt, is still ignored.
    struct sigaction term {};
    sigaction(SIGTERM, nullptr, &term);
    _exit(term.sa_handler == SIG_IGN ? 5 : 6);
}

void on_quit(int) {
    _exit(7);
}

TEST(SessionHaltDeathTest, ReportsAndExitsWithoutAHandler) {
    EXPECT_EXIT(rv::halt("failed query:  %s\n", "select 1"), ExitedWithCode(1),
                "^failed query:  select 1\n$");
    EXPECT_EXIT(
        {
            errno = ENOENT;
            rv::halt("PERROR : :rest %d\n", 7);
        },
        ExitedWithCode(1), "^rest 7\nNo such file or directory\n$");
}

TEST(SessionHaltDeathTest, CallsTheFirstInstalledHandler) {
    // SIGINT comes before SIGQUIT; an ignored SIGTERM is passed over.
    EXPECT_EXIT(
        {
            std::signal(SIGTERM, SIG_IGN);
            std::signal(SIGINT, on_int);
            std::signal(SIGQUIT, on_quit);
            rv::halt("x\n");
        },
        ExitedWithCode(5), "");
    EXPECT_EXIT(
        {
            std::signal(SIGQUIT, on_quit);
            rv::halt("x\n");
        },
        ExitedWithCode(7), "");
}

TEST(SessionHaltDeathTest, AFailedConnectionHalts) {
    EXPECT_EXIT(rv::connectdb("host=/nonexistent/dir port=1 dbname=ravik_db"), ExitedWithCode(1),
                "^Connection to database using 'host=/nonexistent/dir port=1 dbname=ravik_db' "
                "failed\\.\n.+");
}

}  // namespace
