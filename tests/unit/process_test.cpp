// Running shell command lines: exit codes, the decoding of abnormal ends with
// their console, buffer and protocol texts, and the refused environment.
#include "config/process.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "support/product_test.hpp"

namespace {

class StartSystem : public rvtest::ProductTest {
  protected:
    void TearDown() override {
        setenv("PATH", saved_path.c_str(), 1);
        ProductTest::TearDown();
    }
    // Runs `cmd`; returns the code, leaves buffer and standard error in members.
    int call(const std::string& cmd) {
        buffer = cmd;
        int code = -1;
        err = rvtest::capture(2, [&] { code = rv::start_system(buffer); });
        return code;
    }

    std::string saved_path = std::getenv("PATH");
    std::string buffer;
    std::string err;
};

TEST_F(StartSystem, OrdinaryExitCodesPassThroughSilently) {
    EXPECT_EQ(call("exit 3"), 3);
    EXPECT_EQ(buffer, "exit 3");
    EXPECT_EQ(err, "");
    EXPECT_EQ(rvtest::read_file(prot), "");
}

TEST_F(StartSystem, AbnormalEndsAreDecodedAndReported) {
    const std::string enoent = std::strerror(ENOENT);
    EXPECT_EQ(call("rv_no_such_command_4711"), 127);
    EXPECT_NE(err.find("start_system: please check: " + enoent + " (2)\n"), std::string::npos)
        << err;
    EXPECT_EQ(buffer, "could not start: please check" + enoent);

    // The shell reports a child killed by SIGTERM as 143.
    EXPECT_EQ(call("sh -c 'kill -TERM $$'; exit $?"), 143);
    EXPECT_NE(err.find("exe terminated due to the receipt of a signal that was not caught: 15\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(buffer, "terminated due to receipt of a signal that was not caught: 15");

    // The shell itself killed: two reports, exit code 0.
    EXPECT_EQ(call("kill -KILL $$"), 0);
    EXPECT_NE(err.find("/bin/sh terminated abnormally 0...\n"), std::string::npos) << err;
    EXPECT_NE(err.find("/bin/sh terminated due to receipt of a signal that was not caught: 9\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(buffer, "/bin/sh terminated due to receipt of a signal that was not caught: 9");

    rv::eLang = rv::LANG_DE;
    call("exit 127");
    const auto texts = rvtest::protocol_texts(prot);
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_TRUE(
        texts[0].starts_with("E008-BASICS  Error in command execution start_system: "
                             "rv_no_such_command_4711: could not start: please check"))
        << texts[0];
    EXPECT_NE(texts[2].find("start_system: kill -KILL $$: /bin/sh terminated abnormally"),
              std::string::npos)
        << texts[2];
    EXPECT_TRUE(
        texts[4].starts_with("E008-BASICS  Fehler bei Kommandoausführung start_system: exit 127: "))
        << texts[4];
}

TEST_F(StartSystem, RefusedEnvironmentRunsNothing) {
    box.set_path_key("gv_ro_bin", "");
    std::string cmd = "touch " + box.path("ran");
    EXPECT_EQ(rvtest::capture(
                  1, [&] { EXPECT_EQ(rv::start_system(cmd), rv::kStartSystemNoEnvironment); }),
              "error occured in i_setenv_ravik\n");
    EXPECT_FALSE(std::filesystem::exists(box.path("ran")));
}

}  // namespace
