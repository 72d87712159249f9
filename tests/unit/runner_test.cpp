// The child runner: a child that must stop (a quit signal while waiting, a
// reader that gives up) is stopped with everything it started; names put
// into shell lines survive the shell.
#include "sys/runner.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

class Runner : public ::testing::Test {
  protected:
    // A shell line whose grandchild writes its pid to `pidfile`, then waits
    // for ever, so that only a stop of the whole group ends it.
    std::string forever() const {
        return "sh -c 'echo $$ > " + pidfile + ".new; mv " + pidfile + ".new " + pidfile +
               "; echo started; exec sleep 600'; echo not reached";
    }
    pid_t grandchild() const { return std::stoi(rvtest::read_file(pidfile)); }
    bool gone() const {
        const pid_t pid = grandchild();
        return rvtest::eventually([pid] { return rvtest::process_gone(pid); });
    }

    rvtest::Sandbox box;
    std::string pidfile = box.path("grandchild.pid");
};

TEST_F(Runner, AQuitSignalStopsTheChildAndEverythingItStarted) {
    const pthread_t waiter = pthread_self();
    std::thread quitter([&] {
        if (rvtest::eventually([&] { return std::filesystem::exists(pidfile); })) {
            pthread_kill(waiter, SIGQUIT);
        }
    });
    rv::ChildEnd end;
    const std::string err =
        rvtest::capture(2, [&] { end = rv::child_runner().run({forever(), {}, "quit!\n", false}); });
    quitter.join();
    EXPECT_TRUE(end.how == rv::ChildEnd::How::interrupted && err == "quit!\n") << err;
    EXPECT_TRUE(gone()) << "the client ran on after the quit signal";
    EXPECT_EQ(std::signal(SIGQUIT, SIG_DFL), SIG_DFL) << "the handler is gone with the wait";
}

TEST_F(Runner, AReaderThatGivesUpStopsTheChild) {
    const auto stop_reading = [](const std::string& line) {
        if (line == "started\n") {
            throw std::runtime_error("enough");
        }
    };
    EXPECT_THROW(rv::child_runner().run({forever(), stop_reading, nullptr, false}), std::runtime_error);
    EXPECT_TRUE(gone()) << "the child ran on after its reader gave up";
}

// Names put into shell lines survive the shell; lines come whole, line feed
// kept, a last one without it too; the exit code and a death by signal come
// through the guardian unchanged.
TEST_F(Runner, NamesLinesAndEndsComeThroughTheShell) {
    std::string shell_line = "printf '%s\\n'";
    std::vector<std::string> lines, expected;
    for (const std::string name : {"/plain/b-c_1.tmp", "with blank", "it's", "$HOME;`x`", "a\"b\\c", ""}) {
        shell_line += " " + rv::shell_quote(name), expected.push_back(name + "\n");
    }
    expected.push_back("c");
    auto end = rv::child_runner().run(
        {shell_line + "; printf c; exit 3", [&](const std::string& l) { lines.push_back(l); }, nullptr, false});
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(end.exit_code(), 3);
    end = rv::child_runner().run({"kill -TERM $$", {}, nullptr, false});
    EXPECT_TRUE(WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGTERM) << end.status;
    EXPECT_EQ(rv::shell_quote("/plain/b-c_1.tmp"), "/plain/b-c_1.tmp") << "plain names stay as they are";
    EXPECT_EQ(std::to_string(rv::shell_double_quotable("select * from media")) +
                  std::to_string(rv::shell_double_quotable("select \"x\" from t")), "10");
}

// A child that ends only once the tool's on_tick has made a file: ticks
// come while the tool waits, while it reads lines, and in a quittable wait.
TEST_F(Runner, TicksComeWhileTheToolWaitsForItsChild) {
    const std::string flag = box.path("ticked");
    const std::string child = "i=0; while [ ! -e " + flag + " ] && [ $i -lt 1000 ]; do sleep 0.01; i=$((i+1)); done; " +
                              "test -e " + flag + " && echo seen";
    struct Case {
        const char* what;
        bool lines;
        const char* quit_notice;
    };
    for (const Case& c : {Case{"plain wait", false, nullptr}, Case{"reading lines", true, nullptr},
                          Case{"quittable wait", false, "quit!\n"}}) {
        std::filesystem::remove(flag);
        int ticks = 0;
        std::string out;
        rv::ChildCommand command{child + (c.lines ? "" : " > /dev/null"), {}, c.quit_notice, false};
        command.on_tick = [&] {
            ++ticks;
            rvtest::write_file(flag, "");
        };
        if (c.lines) {
            command.on_line = [&out](const std::string& line) { out += line; };
        }
        const rv::ChildEnd end = rv::child_runner().run(command);
        EXPECT_EQ(end.exit_code(), 0) << c.what << ": the child saw no tick";
        EXPECT_GE(ticks, 1) << c.what;
        EXPECT_EQ(out, c.lines ? "seen\n" : "") << c.what;
    }
}

}  // namespace
