// Running shell command lines: exit codes, the decoding of abnormal ends with
// their console, buffer and protocol texts, and the refused environment.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "log/trace.hpp"
#include "support/sandbox.hpp"
#include "sys/console.hpp"
#include "sys/process.hpp"

namespace {

class StartSystem : public ::testing::Test {
protected:
    void SetUp() override {
        saved_path = std::getenv("PATH");
        prot = box.path("prot.log");
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_prot.rgv", prot);
        rv::eLang = rv::LANG_EN;
    }
    void TearDown() override { setenv("PATH", saved_path.c_str(), 1); }

    // Runs `cmd`; returns the code, leaves buffer and stderr in members.
    int call(const std::string& cmd) {
        buffer = cmd;
        rvtest::CaptureFd capture(2);
        const int code = rv::start_system(buffer);
        err = capture.finish();
        return code;
    }

    std::string saved_path;
    rvtest::Sandbox box;
    std::string prot;
    std::string buffer;
    std::string err;
};

TEST_F(StartSystem, OrdinaryExitCodesPassThroughSilently) {
    EXPECT_EQ(call("exit 3"), 3);
    EXPECT_EQ(buffer, "exit 3");
    EXPECT_EQ(err, "");
    EXPECT_EQ(call("true"), 0);
    EXPECT_EQ(rvtest::read_file(prot), "");

    // The child sees the environment prepared for it.
    const std::string out = box.path("path.txt");
    EXPECT_EQ(call("echo \"$PATH\" > " + out), 0);
    EXPECT_NE(rvtest::read_file(out).find(box.dir("gv_ro_bin")), std::string::npos);
}

TEST_F(StartSystem, CommandNotFound) {
    EXPECT_EQ(call("rv_no_such_command_4711"), 127);
    const std::string enoent = std::strerror(ENOENT);
    EXPECT_NE(err.find("start_system: please check: " + enoent + " (2)\n"), std::string::npos) << err;
    EXPECT_EQ(buffer, "could not start: please check" + enoent);
    const std::string log = rvtest::read_file(prot);
    EXPECT_NE(log.find(" E008-BASICS [") , std::string::npos) << log;
    EXPECT_NE(log.find("]: Error in command execution start_system: rv_no_such_command_4711: could not start: please check"),
              std::string::npos)
        << log;
}

TEST_F(StartSystem, SignalEndsAreDecoded) {
    // The shell reports a child killed by SIGTERM as 143.
    EXPECT_EQ(call("sh -c 'kill -TERM $$'; exit $?"), 143);
    EXPECT_NE(err.find("exe terminated due to the receipt of a signal that was not caught: 15\n"), std::string::npos);
    EXPECT_EQ(buffer, "terminated due to receipt of a signal that was not caught: 15");

    // The shell itself killed: two reports, exit code 0.
    EXPECT_EQ(call("kill -KILL $$"), 0);
    EXPECT_NE(err.find("/bin/sh terminated abnormally 0...\n"), std::string::npos) << err;
    EXPECT_NE(err.find("/bin/sh terminated due to receipt of a signal that was not caught: 9\n"), std::string::npos);
    EXPECT_EQ(buffer, "/bin/sh terminated due to receipt of a signal that was not caught: 9");
    const std::string log = rvtest::read_file(prot);
    EXPECT_NE(log.find("start_system: kill -KILL $$: /bin/sh terminated abnormally"), std::string::npos) << log;
}

TEST_F(StartSystem, GermanProtocolText) {
    rv::eLang = rv::LANG_DE;
    call("exit 127");
    rv::eLang = rv::LANG_EN;
    EXPECT_NE(rvtest::read_file(prot).find("E008-BASICS [") , std::string::npos);
    EXPECT_NE(rvtest::read_file(prot).find("Fehler bei Kommandoausführung start_system: exit 127: "), std::string::npos);
}

TEST_F(StartSystem, RefusedEnvironmentRunsNothing) {
    box.set_path_key("gv_ro_bin", "");
    const std::string marker = box.path("ran");
    std::string cmd = "touch " + marker;
    rvtest::CaptureFd out(1);
    EXPECT_EQ(rv::start_system(cmd), rv::kStartSystemNoEnvironment);
    EXPECT_EQ(out.finish(), "error occured in i_setenv_ravik\n");
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(Getline, KeepsTheLastPieceOfALongLine) {
    auto read = [](const std::string& input) {
        std::FILE* f = std::tmpfile();
        std::fputs(input.c_str(), f);
        std::rewind(f);
        std::string s = "old";
        rv::getline(s, 10, f);
        std::fclose(f);
        return s;
    };
    EXPECT_EQ(read("2.0\nrest\n"), "2.0");
    EXPECT_EQ(read("12345678\n"), "12345678");
    EXPECT_EQ(read("123456789\n"), "");          // a multiple of nine leaves nothing
    EXPECT_EQ(read("1234567890ab\n"), "0ab");    // 12 characters: the last 12 mod 9
    EXPECT_EQ(read("\n"), "");
    EXPECT_EQ(read(""), "");                     // end of input ends the wait
    EXPECT_EQ(read("1.7"), "1.7");               // a last line without line feed counts
}

}  // namespace
