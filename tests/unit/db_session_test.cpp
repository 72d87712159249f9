// halt: the report, and the clean-up handler that gets control.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "db/session.hpp"

namespace {

using ::testing::ExitedWithCode;

TEST(SessionHaltDeathTest, ReportsAndCallsTheFirstInstalledHandler) {
    EXPECT_EXIT(rv::halt("failed query:  %s\n", "select 1"), ExitedWithCode(1),
                "^failed query:  select 1\n$");
    EXPECT_EXIT(
        {
            errno = ENOENT;
            rv::halt("PERROR : :rest %d\n", 7);
        },
        ExitedWithCode(1), "^rest 7\nNo such file or directory\n$");
    // SIGINT comes before SIGQUIT; an ignored SIGTERM is passed over.
    EXPECT_EXIT(
        {
            std::signal(SIGTERM, SIG_IGN);
            std::signal(SIGINT, [](int) { _exit(5); });
            std::signal(SIGQUIT, [](int) { _exit(7); });
            rv::halt("x\n");
        },
        ExitedWithCode(5), "");
    EXPECT_EXIT(rv::connectdb("host=/nonexistent/dir port=1 dbname=ravik_db"), ExitedWithCode(1),
                "^Connection to database using 'host=/nonexistent/dir port=1 dbname=ravik_db' "
                "failed\\.\n.+");
}

}  // namespace
