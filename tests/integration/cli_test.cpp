// rv_db_update as a program on a sandbox installation: exit statuses of the
// real binary, its trace file and -v echo, db_backup and db_restore with the
// real archiver, the operator's answer on standard input, the child of a
// step that must not outlive a killed tool, and one run of an installation
// at a time.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;
const std::string kTool = rvtest::bin("rv_db_update");

class Tool : public ::testing::Test {
  protected:
    void SetUp() override { box.make_installation(); }
    const rvtest::Env env = {{"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}};
    rvtest::RunResult tool(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), kTool);
        return rvtest::run(args, env, input);
    }
    bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

    rvtest::Sandbox box;
    std::string ro = box.dir("gv_ro");
    std::string schema = box.dir("gv_rw_db") + "schema/ravik/";
    std::string trace = box.dir("gv_rw_lgc") + "rv_db_update.lgc";
};

TEST_F(Tool, UsageTraceFileAndVerboseEcho) {
    auto r = tool({});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.starts_with("Usage:\n" + kTool + " update [")) << r.out;
    box.write_debug_ini("OTHER=1\nRV_DB_UPDATE=2\n");
    r = tool({"update", "1.6.3.20", "1.6.4.71"});
    EXPECT_EQ(r.status, 0);
    EXPECT_FALSE(has(r.err, "DbUpdate")) << "no echo without -v or STDERR=1";
    EXPECT_FALSE(has(r.out, "version file")) << "versions given, none detected";
    EXPECT_TRUE(has(rvtest::read_file(trace), "Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID="));
    EXPECT_TRUE(has(rvtest::read_file(trace),
                    "# rv_db_update 1.0.0 called with: " + kTool + " update 1.6.3.20 1.6.4.71 \n"));

    // -v overrides the level and echoes the trace to standard error.
    box.write_debug_ini("RV_DB_UPDATE=0\n");
    fs::remove(ro + "skel/ravik_srv.1.6.4");
    r = tool({"db_backup", "-v", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.starts_with("-v set to 1\n")) << r.out;
    EXPECT_TRUE(has(r.err, "+++ FINISH  2  rv_db_update breaks because there is no version file: ")) << r.err;
    EXPECT_TRUE(has(r.err, "--- FINISH ERROR: rv_db_update breaks ")) << r.err;
    EXPECT_TRUE(has(rvtest::read_file(trace), "+++ FINISH"));
}

TEST_F(Tool, BackupCreatesTheArchiveOnceAndRestoreBringsFilesBack) {
    const std::string tar = ro + "downgrade/ravik_db.tar";
    const std::string report = box.checkenv_report("1.6.4.71", "1.6.3.20");
    auto r = tool({"db_backup"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(r.out.starts_with(report + "cd " + schema + "; [ -f " + tar + " ] || tar -cvf " + tar + " ."))
        << r.out;
    EXPECT_FALSE(has(r.out, "STATUS="));
    ASSERT_TRUE(fs::exists(tar));
    const auto size = fs::file_size(tar);
    const auto stamp = fs::last_write_time(tar);

    // A second backup never overwrites the archive.
    rvtest::write_file(schema + "later.dat", "later\n");
    EXPECT_EQ(tool({"db"}).status, 0);
    EXPECT_EQ(fs::file_size(tar), size);
    EXPECT_EQ(fs::last_write_time(tar), stamp);

    fs::remove(schema + "base.dat");
    fs::remove_all(schema + "sub");
    r = tool({"db_restore"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out.starts_with(report + "cd " + schema + " ; tar -xvf " + tar + " .")) << r.out;
    EXPECT_EQ(rvtest::read_file(schema + "base.dat"), "base\n");
    EXPECT_EQ(rvtest::read_file(schema + "sub/media.dat"), "media\n");
}

TEST_F(Tool, OperatorIsAskedForAnUnreadableOldVersion) {
    rvtest::write_file(ro + "downgrade/skel/ravik_srv.1.6.3", "[CVS_UPDATE]\n");
    const std::string ask = "Die alte QOR ravik2000 Version konnte nicht erkannt werden.\n"
                            "Bitte geben Sie die Versionsnummer an (default: 1.6.4.71):\n";
    for (const auto& [input, version] : {std::pair{"2.0\n", "2.0"}, std::pair{"", "1.6.4.71"}}) {
        const auto r = tool({"db_backup"}, input);
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(r.out.starts_with(ask + "Update von Version: " + version + "\n" +
                                      box.checkenv_report("1.6.4.71", version))) << r.out;
    }
}

// A step's child that waits for ever: `pidfile` names it once it runs.
class Stopping : public Tool {
  protected:
    void SetUp() override {
        Tool::SetUp();
        rvtest::write_file(box.path("child.sh"),
                           "echo $$ > " + pidfile + ".new && mv " + pidfile + ".new " + pidfile + "\nexec sleep 600\n");
        rvtest::write_file(ro + "skel/rv_db_update.ini", "[Update 1.6.4.]\nlast_step_nr=2\nstep_1=cmd sh " +
                                                             box.path("child.sh") + "\nstep_2=cmd touch " + box.path("after") + "\n");
    }
    // The child of `tool`'s first step, once it runs.
    pid_t child_of(const rvtest::Background&) {
        EXPECT_TRUE(rvtest::eventually([&] { return fs::exists(pidfile); })) << "the step's child never started";
        const pid_t child = std::stoi(rvtest::read_file(pidfile));
        EXPECT_FALSE(rvtest::process_gone(child));
        fs::remove(pidfile);
        return child;
    }
    void expect_gone(pid_t child) {
        EXPECT_TRUE(rvtest::eventually([&] { return rvtest::process_gone(child); })) << child << " outlived the tool";
        if (!rvtest::process_gone(child)) {
            kill(child, SIGKILL);
        }
    }
    std::string pidfile = box.path("child.pid");
};

TEST_F(Stopping, AChildDoesNotOutliveTheTool) {
    rvtest::Background tool({kTool, "update", "1.6.3.20", "1.6.4.71"});
    const pid_t child = child_of(tool);
    kill(tool.pid(), SIGKILL);
    EXPECT_EQ(tool.wait().status, 128 + SIGKILL);
    expect_gone(child);
}

TEST_F(Stopping, ToldToStopTheRunStopsItsChildAndEndsWithTheStatusLine) {
    for (const auto& [signo, name] : {std::pair{SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}, {SIGHUP, "SIGHUP"}}) {
        rvtest::Background tool({kTool, "update", "1.6.3.20", "1.6.4.71"});
        const pid_t child = child_of(tool);
        kill(tool.pid(), signo);
        const auto r = tool.wait();
        EXPECT_EQ(r.status, 2) << name;
        EXPECT_TRUE(r.out.ends_with("STATUS=ERROR MSG=step 1 (cmd sh " + box.path("child.sh") + ") failed: stopped by " +
                                    name + " while running  sh " + box.path("child.sh") + "; later steps not run\n"))
            << r.out;
        expect_gone(child);
        EXPECT_FALSE(fs::exists(box.path("after"))) << "a step ran after " << name;
    }
}

TEST_F(Tool, OneRunOfAnInstallationAtATimeAndLeftoversOfAKilledOneGo) {
    // The update's one step tells its pid and process group, then waits for
    // the file go.
    const std::string started = box.path("started"), go = box.path("go");
    const std::string work = box.dir("gv_rw_work"), lock = work + "rv_db_update.lock";
    rvtest::write_file(box.path("wait.sh"), "read -r pid _ _ _ group _ < /proc/$$/stat\necho $pid $group > " +
                                                started + ".new && mv " + started + ".new " + started +
                                                "\nwhile [ ! -f " + go + " ]; do sleep 0.05; done\n");
    rvtest::write_file(ro + "skel/rv_db_update.ini",
                       "[Update 1.6.4.]\nlast_step_nr=1\nstep_1=cmd sh " + box.path("wait.sh") + "\n");
    const std::vector<std::string> update = {kTool, "update", "1.6.3.20", "1.6.4.71"};

    rvtest::Background first(update, env);
    ASSERT_TRUE(rvtest::eventually([&] { return fs::exists(started); })) << "the first run's step never started";
    const std::string refusal = "STATUS=ERROR MSG=rv_db_update is already running for this installation: process " +
                                std::to_string(first.pid()) + ", started ";
    for (const char* command : {"update", "db_backup"}) {
        const auto r = tool({command});
        EXPECT_EQ(r.status, 2) << command;
        const auto at = r.out.find(refusal);
        ASSERT_NE(at, std::string::npos) << r.out;
        EXPECT_FALSE(has(r.out, "[Check enviroment]")) << "refused only after the check: " << r.out;
        const std::string rest = r.out.substr(at + refusal.size());
        EXPECT_TRUE(std::regex_match(rest.substr(0, 19), std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}"))) << rest;
        EXPECT_EQ(rest.substr(19), " (" + kTool + " update 1.6.3.20 1.6.4.71); lock file " + lock + "\n");
    }
    ASSERT_FALSE(rvtest::process_gone(first.pid())) << "the refused runs ended the first";
    rvtest::write_file(go, "");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(tool({"db_backup"}).status, 0) << "the lock outlived its run";

    // A run killed while its step runs: once it and its step's group are
    // gone, the next run goes and removes the temporary file it left.
    fs::remove(go);
    fs::remove(started);
    rvtest::Background killed(update, env);
    ASSERT_TRUE(rvtest::eventually([&] { return fs::exists(started); }));
    std::istringstream ids(rvtest::read_file(started));
    pid_t child = 0, group = 0;
    ids >> child >> group;
    const std::string leftover = work + "db_media.tmp.new." + std::to_string(killed.pid());
    rvtest::write_file(leftover, "half an image");
    kill(killed.pid(), SIGKILL);
    EXPECT_EQ(killed.wait().status, 128 + SIGKILL);
    ASSERT_TRUE(rvtest::eventually([&] { return rvtest::process_gone(child) && rvtest::process_gone(group); }));
    rvtest::write_file(go, "");
    const auto r = tool({"update", "1.6.3.20", "1.6.4.71"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r.out, "removed " + leftover + ", left by an ended run\n")) << r.out;
    EXPECT_FALSE(fs::exists(leftover));
}

}  // namespace
