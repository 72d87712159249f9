// The file lock that says who holds it.
#include "sys/file_lock.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;

// `sleep 600` in the background, once it runs the program (no longer a copy
// of the test).
pid_t start_sleep(rvtest::Background& sleeper) {
    EXPECT_TRUE(rvtest::eventually(
        [&] { return rvtest::read_file("/proc/" + std::to_string(sleeper.pid()) + "/comm") == "sleep\n"; }));
    return sleeper.pid();
}

TEST(FileLock, OthersAreToldWhoHoldsItUntilTheHolderAndItsForksEnd) {
    rvtest::Sandbox box;
    const std::string path = box.path("run.lock");
    rv::FileLock first, second;
    ASSERT_EQ(first.acquire(path), rv::FileLock::Outcome::locked);
    ASSERT_EQ(second.acquire(path), rv::FileLock::Outcome::busy);
    EXPECT_FALSE(second.held());
    EXPECT_EQ(second.holder().pid, std::to_string(getpid()));
    EXPECT_TRUE(std::regex_match(second.holder().started, std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9] [0-9:]{8}")))
        << second.holder().started;
    EXPECT_NE(second.holder().command.find("unit_tests"), std::string::npos) << second.holder().command;

    // A fork that does not exec shares the lock until it ends; a program the
    // holder executes does not keep it.
    int gate[2];
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    const pid_t fork_pid = fork();
    if (fork_pid == 0) {
        char c;
        close(gate[1]);
        _exit(read(gate[0], &c, 1) < 0 ? 1 : 0);
    }
    close(gate[0]);
    rvtest::Background sleeper({"/bin/sleep", "600"});
    start_sleep(sleeper);
    first.release();
    EXPECT_EQ(second.acquire(path), rv::FileLock::Outcome::busy) << "the fork let the lock go";
    close(gate[1]);
    waitpid(fork_pid, nullptr, 0);
    EXPECT_EQ(second.acquire(path), rv::FileLock::Outcome::locked) << "the sleeping program keeps the lock";

    EXPECT_EQ(first.acquire(box.path("no/such/dir/run.lock")), rv::FileLock::Outcome::failed);
    EXPECT_EQ(first.error(), ENOENT);
}

}  // namespace
