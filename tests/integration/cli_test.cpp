// rv_db_update as a program on a sandbox installation: exit statuses of the real binary, its trace file and -v
// echo, db_backup and db_restore with the real archiver, the operator's answer on standard input, the child of
// a step that must not outlive a stopped or killed tool, and one run of an installation at a time.
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
bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Tool : public ::testing::Test {
  protected:
    void SetUp() override { box.make_installation(); }
    rvtest::RunResult tool(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), kTool);
        return rvtest::run(args, env, input);
    }
    // The update's first step writes its pid and process group to `started` and waits for the file `go`;
    // the second touches `after`.
    void waiting_update() {
        rvtest::write_file(wait_sh, "read -r pid _ _ _ group _ < /proc/$$/stat\necho $pid $group > " + started +
                                        ".new && mv " + started + ".new " + started + "\nwhile [ ! -f " + go +
                                        " ]; do sleep 0.05; done\n");
        rvtest::write_file(ro + "skel/rv_db_update.ini", "[Update 1.6.4.]\nlast_step_nr=2\nstep_1=cmd sh " + wait_sh +
                                                             "\nstep_2=cmd touch " + box.path("after") + "\n");
    }
    // The waiting step's pid and process group, once it runs.
    std::pair<pid_t, pid_t> waiting_step() {
        if (!rvtest::eventually([&] { return fs::exists(started); })) throw std::runtime_error("no step started");
        pid_t pid = 0, group = 0;
        std::istringstream(rvtest::read_file(started)) >> pid >> group;
        fs::remove(started);
        EXPECT_FALSE(rvtest::process_gone(pid));
        return {pid, group};
    }
    void expect_gone(std::pair<pid_t, pid_t> step) {
        for (const pid_t pid : {step.first, step.second}) {
            EXPECT_TRUE(rvtest::eventually([&] { return rvtest::process_gone(pid); })) << pid << " outlived the tool";
            if (!rvtest::process_gone(pid)) kill(pid, SIGKILL);
        }
    }

    const rvtest::Env env = {{"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}};
    const std::vector<std::string> update = {kTool, "update", "1.6.3.20", "1.6.4.71"};
    rvtest::Sandbox box;
    std::string ro = box.dir("gv_ro"), schema = box.dir("gv_rw_db") + "schema/ravik/";
    std::string trace = box.dir("gv_rw_lgc") + "rv_db_update.lgc", wait_sh = box.path("wait.sh");
    std::string started = box.path("started"), go = box.path("go");
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
    const std::string log = rvtest::read_file(trace);
    EXPECT_TRUE(has(log, "Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID=") &&
                has(log, "# rv_db_update 1.0.0 called with: " + kTool + " update 1.6.3.20 1.6.4.71 \n")) << log;

    // -v overrides the level and echoes the trace to standard error.
    box.write_debug_ini("RV_DB_UPDATE=0\n");
    fs::remove(ro + "skel/ravik_srv.1.6.4");
    r = tool({"db_backup", "-v", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.starts_with("-v set to 1\n")) << r.out;
    EXPECT_TRUE(has(r.err, "+++ FINISH  2  rv_db_update breaks because there is no version file: ") &&
                has(r.err, "--- FINISH ERROR: rv_db_update breaks ")) << r.err;
    EXPECT_TRUE(has(rvtest::read_file(trace), "+++ FINISH"));
}

// Their console is the one of the in-process runs (RvDbUpdate.WordsSelectCommandsAndDowngradePaths).
TEST_F(Tool, BackupCreatesTheArchiveOnceAndRestoreBringsFilesBack) {
    const std::string tar = ro + "downgrade/ravik_db.tar";
    auto r = tool({"db_backup"});
    EXPECT_TRUE(r.status == 0 && !has(r.out, "STATUS=")) << r.status << r.out << r.err;
    ASSERT_TRUE(fs::exists(tar));
    const auto size = fs::file_size(tar);
    const auto stamp = fs::last_write_time(tar);

    // A second backup never overwrites the archive.
    rvtest::write_file(schema + "later.dat", "later\n");
    EXPECT_EQ(tool({"db"}).status, 0);
    EXPECT_TRUE(fs::file_size(tar) == size && fs::last_write_time(tar) == stamp) << "the archive was overwritten";

    fs::remove(schema + "base.dat");
    fs::remove_all(schema + "sub");
    r = tool({"db_restore"});
    EXPECT_TRUE(r.status == 0 && !has(r.out, "STATUS=")) << r.status << r.out << r.err;
    EXPECT_EQ(rvtest::read_file(schema + "base.dat") + rvtest::read_file(schema + "sub/media.dat"), "base\nmedia\n");
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

// Killed, it takes its step along too: the killed run below. A stopped run stays unfinished: a new update is
// refused, `resume` runs the interrupted step again (stopped again by the next signal) and then the rest.
TEST_F(Tool, ToldToStopTheRunStopsItsChildAndEndsWithTheStatusLine) {
    waiting_update();
    const std::string journal = box.dir("gv_rw_work") + "rv_db_update.journal";
    const std::regex time("started [0-9-]{10} [0-9:]{8}");
    std::vector<std::string> command = update;
    for (const auto& [signo, name] : {std::pair{SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}, {SIGHUP, "SIGHUP"}}) {
        rvtest::Background run(command, env);
        const auto step = waiting_step();
        kill(run.pid(), signo);
        const auto r = run.wait();
        EXPECT_EQ(r.status, 2) << name;
        const std::string status = "step 1 (cmd sh " + wait_sh + ") failed: stopped by " + name +
                                   " while running  sh " + wait_sh + "; later steps not run";
        EXPECT_TRUE(r.out.ends_with("STATUS=ERROR MSG=" + status + "\n")) << r.out;
        expect_gone(step);
        EXPECT_FALSE(fs::exists(box.path("after"))) << "a step ran after " << name;
        const auto refused = tool({"update", "1.6.3.20", "1.6.4.71"});
        EXPECT_EQ(refused.status, 2);
        EXPECT_TRUE(std::regex_replace(refused.out, time, "started <t>").ends_with(
            "STATUS=ERROR MSG=an unfinished update from 1.6.3.20 to 1.6.4.71 (started <t>) stopped in step 1 (cmd sh " +
            wait_sh + "), ended by: " + status + "; continue it with 'rv_db_update resume' or discard it by removing " +
            journal + "\n")) << refused.out;
        command = {kTool, "resume"};
    }
    rvtest::write_file(go, "");
    auto r = tool({"resume"});
    EXPECT_TRUE(r.status == 0 && has(r.out, "[Resume update from 1.6.3.20 to 1.6.4.71, started ") &&
                fs::exists(box.path("after"))) << r.out;
    r = tool({"resume"});
    EXPECT_TRUE(r.status == 0 && r.out.ends_with("nothing to resume\n")) << r.out;
    // A run started with SIGHUP ignored (nohup) goes on ignoring it.
    fs::remove(go);
    fs::remove(started);
    rvtest::Background nohup({"/bin/sh", "-c", "trap '' HUP; exec " + kTool + " update 1.6.3.20 1.6.4.71"}, env);
    waiting_step();
    kill(nohup.pid(), SIGHUP);
    rvtest::write_file(go, "");
    EXPECT_EQ(nohup.wait().status, 0);
}

TEST_F(Tool, OneRunOfAnInstallationAtATimeAndLeftoversOfAKilledOneGo) {
    const std::string work = box.dir("gv_rw_work");
    waiting_update();
    rvtest::Background first(update, env);
    waiting_step();
    const std::regex time("started [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8} ");
    for (const char* command : {"update", "db_backup"}) {
        const auto r = tool({command});
        EXPECT_EQ(r.status, 2) << command;
        const auto at = r.out.find("STATUS=");
        ASSERT_NE(at, std::string::npos) << r.out;
        EXPECT_FALSE(has(r.out, "[Check enviroment]")) << "refused only after the check: " << r.out;
        EXPECT_EQ(std::regex_replace(r.out.substr(at), time, "started <time> "),
                  "STATUS=ERROR MSG=rv_db_update is already running for this installation: process " +
                      std::to_string(first.pid()) + ", started <time> (" + kTool +
                      " update 1.6.3.20 1.6.4.71); lock file " + work + "rv_db_update.lock\n");
    }
    ASSERT_FALSE(rvtest::process_gone(first.pid())) << "the refused runs ended the first";
    rvtest::write_file(go, "");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(tool({"db_backup"}).status, 0) << "the lock outlived its run";

    // A run killed while its step runs takes the step's group along; the next run removes the file it left.
    fs::remove(go);
    rvtest::Background killed(update, env);
    const auto step = waiting_step();
    const std::string leftover = work + "db_media.tmp.new." + std::to_string(killed.pid());
    rvtest::write_file(leftover, "half an image");
    kill(killed.pid(), SIGKILL);
    EXPECT_EQ(killed.wait().status, 128 + SIGKILL);
    expect_gone(step);
    rvtest::write_file(go, "");
    const auto r = tool({"resume"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r.out, "removed " + leftover + ", left by an ended run\n")) << r.out;
    EXPECT_FALSE(fs::exists(leftover));
}

}  // namespace
