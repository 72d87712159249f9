// The file lock that says who holds it, and the clean-up of the temporary
// files of atomic replacements whose process is gone.
#include "sys/file_lock.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>

#include "support/run.hpp"
#include "support/sandbox.hpp"
#include "sys/atomic_file.hpp"

namespace {

namespace fs = std::filesystem;
using Outcome = rv::FileLock::Outcome;

// The pid of `sleeper` (`sleep 600`) once it runs the program, no longer a copy of the test.
pid_t sleeping(const rvtest::Background& sleeper) {
    const std::string comm = "/proc/" + std::to_string(sleeper.pid()) + "/comm";
    EXPECT_TRUE(rvtest::eventually([&] { return rvtest::read_file(comm) == "sleep\n"; }));
    return sleeper.pid();
}

TEST(FileLock, OthersAreToldWhoHoldsItUntilTheHolderAndItsForksEnd) {
    rvtest::Sandbox box;
    const std::string path = box.path("run.lock");
    rv::FileLock first, second;
    ASSERT_EQ(first.acquire(path), Outcome::locked);
    ASSERT_EQ(second.acquire(path), Outcome::busy);
    EXPECT_FALSE(second.held());
    EXPECT_EQ(second.holder().pid, std::to_string(getpid()));
    EXPECT_TRUE(std::regex_match(second.holder().started, std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9] [0-9:]{8}")))
        << second.holder().started;
    EXPECT_NE(second.holder().command.find("unit_tests"), std::string::npos) << second.holder().command;

    // A fork that does not exec shares the lock until it ends; a program the
    // holder executes does not keep it.
    const pid_t fork_pid = fork();
    if (fork_pid == 0) {
        pause();
        _exit(0);
    }
    rvtest::Background sleeper({"/bin/sleep", "600"});
    sleeping(sleeper);
    first.release();
    EXPECT_EQ(second.acquire(path), Outcome::busy) << "the fork let the lock go";
    kill(fork_pid, SIGKILL);
    waitpid(fork_pid, nullptr, 0);
    EXPECT_EQ(second.acquire(path), Outcome::locked) << "the sleeping program keeps the lock";

    EXPECT_EQ(first.acquire(box.path("no/such/dir/run.lock")), Outcome::failed);
    EXPECT_EQ(first.error(), ENOENT);
}

TEST(AbandonedTemporaries, OnlyThoseOfProcessesOfThisProgramStay) {
    rvtest::Sandbox box;
    rvtest::Background done({"/bin/true"}), sleeper({"/bin/sleep", "600"});
    const std::string dir = box.path("work/"), ended = std::to_string(done.pid());
    done.wait();
    const std::string gone = dir + "db_media.tmp.new." + ended;
    const std::string other = dir + "db_jobs.tmp.new." + std::to_string(sleeping(sleeper));
    std::set<std::string> kept = {dir + "db_drives.tmp.new." + std::to_string(getpid()), dir + "notes.new.12a" + ended,
                                  dir + "db_media.tmp"};
    for (const auto& file : kept) rvtest::write_file(file, "x");
    for (const auto& file : {gone, other}) rvtest::write_file(file, "x");
    kept.insert(dir + "old.new." + ended);
    fs::create_directory(dir + "old.new." + ended);

    const auto removed = rv::remove_abandoned_temporaries(dir);
    EXPECT_EQ(std::set<std::string>(removed.begin(), removed.end()), (std::set<std::string>{gone, other}));
    std::set<std::string> left;
    for (const auto& e : fs::directory_iterator(dir)) left.insert(e.path().string());
    EXPECT_EQ(left, kept);
    EXPECT_TRUE(rv::remove_abandoned_temporaries(box.path("missing/")).empty());
}

}  // namespace
