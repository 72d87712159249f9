// The file lock that says who holds it, atomic replacements, and the
// clean-up of their temporary files whose process is gone.
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

// A file larger than the writes the disk is asked to begin on the way
// arrives whole, byte for byte, or not at all: the target keeps its old
// content until the commit.
TEST(AtomicFile, TheTargetHasAllOfTheNewContentOrStaysAsItWas) {
    rvtest::Sandbox box;
    const std::string target = box.path("db_media.tmp");
    rvtest::write_file(target, "old\n");
    std::string content;
    for (std::size_t i = 0; content.size() < 2 * rv::kAtomicFileWriteBehind + 12345; ++i)
        content += "|id=" + std::to_string(i) + "|label=L" + std::to_string(i * 7) + "|\n";
    {
        rv::AtomicFile dropped(target);
        ASSERT_TRUE(dropped.ok()) << dropped.why();
        ASSERT_EQ(std::fwrite(content.data(), 1, content.size(), dropped.stream()), content.size());
        EXPECT_TRUE(fs::exists(dropped.temp()));
    }
    EXPECT_EQ(rvtest::read_file(target), "old\n");
    rv::AtomicFile file(target);
    ASSERT_TRUE(file.ok()) << file.why();
    for (std::size_t at = 0; at < content.size(); at += 1000)  // pieces that do not fill the buffer evenly
        ASSERT_EQ(std::fwrite(content.data() + at, 1, std::min<std::size_t>(1000, content.size() - at), file.stream()),
                  std::min<std::size_t>(1000, content.size() - at));
    ASSERT_TRUE(file.commit()) << file.why();
    EXPECT_TRUE(rvtest::read_file(target) == content);
    EXPECT_FALSE(fs::exists(file.temp()));
    rv::AtomicFile nowhere(box.path("missing/db_media.tmp"));
    EXPECT_FALSE(nowhere.ok());
    EXPECT_EQ(nowhere.why(), "cannot write " + nowhere.temp() + ": No such file or directory");
}

}  // namespace
