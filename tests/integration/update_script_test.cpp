// A whole update script run through rv_db_update as an operator runs it:
// nested sections, conditions, command steps, rmdir, skip, exit, a missing
// step key and a malformed conditional line; console, files and status.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;
using rvtest::run;

const std::string kTool = rvtest::bin("rv_db_update");

const char* const kScript = R"([Update 1.6.4.]
last_step_nr=11
step_1=[ $old_version < "1.6.4." ] && cmd echo from $old_version to $new_version > gv_rw_work:versions_:gv_date:.txt
step_2=[ $old_version >= "1.6.4." ] && cmd touch gv_rw_work:wrong_old.txt
step_3=[ postgresql ] && cmd mkdir -p gv_export:sub
step_4=[ oracle ] && cmd touch gv_rw_work:wrong_db.txt
step_5=update nested 1
step_6=skip
step_8=[ $new_version == "1.6.4." ] && rmdir gv_rw_work:old
step_9=[ $new_version > "1.6.4." ]&& cmd touch gv_rw_work:malformed.txt
step_10=cmd  echo $new_version >> gv_rw_work:count.txt
step_11=exit
step_12=cmd touch gv_rw_work:beyond_last.txt

[update nested 1]
last_step_nr=3
step_1=cmd echo nested > gv_rw_work:nested.txt
step_2=exit
step_3=cmd touch gv_rw_work:after_exit.txt

[update loop]
last_step_nr=1
step_1=update loop
)";

const std::string kHelp =
    "WARNING: condition line in illegal format!\n"
    ">>>[ $new_version > \"1.6.4.\" ]&& cmd touch gv_rw_work:malformed.txt<<<\n"
    "format required: [ {argument} {operator} {argument} ] && {keyword} {command}\n"
    " argument: \n"
    "     $old_version  >>  current version\n"
    "     $new_version  >>  update version\n"
    "     \"{string}\"\n"
    " operator:  < | > | <= | >= | == | <>\n"
    " keyword:   change | cmd | dump | export | exit | import | rmdir | sql | skip | update\n"
    " command:   any valid command for given keyword\n";

class UpdateScript : public ::testing::Test {
  protected:
    void SetUp() override {
        box.make_installation();
        script(kScript);
        box.set_glbv("gv_db_type", "POSTGRESQL");
        box.set_glbv("gv_export", box.path("export/"));
        rvtest::write_file(work + "old/deep/file", "x");
    }
    void script(const std::string& text) {
        rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini", text);
    }

    rvtest::Sandbox box;
    std::string work = box.dir("gv_rw_work");
};

TEST_F(UpdateScript, RunsTheSectionAsWritten) {
    box.write_debug_ini("RV_DB_UPDATE=2\n");
    auto r = run({kTool, "update", "1.6.3.20", "1.6.4.71"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.substr(r.out.find("Update main version:")),
              "Update main version: 1.6.4.\n"
              "[Update from 1.6.3.20 to 1.6.4.71]\n"
              "step=1 cmd=echo from 1.6.3.20 to 1.6.4.71 > gv_rw_work:versions_:gv_date:.txt\n"
              "step=3 cmd=mkdir -p gv_export:sub\n"
              "step=1 cmd=echo nested > gv_rw_work:nested.txt\n"
              "step=8 rmdir=gv_rw_work:old\n" +
                  kHelp + "step=10 cmd=echo 1.6.4.71 >> gv_rw_work:count.txt\n");

    // What the steps did: the stamped file of step 1 and the others.
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(work)) {
        files.push_back(std::regex_replace(entry.path().filename().string(),
                                           std::regex("_[0-9]{14}\\."), "_<stamp>."));
    }
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::string>{"count.txt", "nested.txt", "versions_<stamp>.txt"}));
    EXPECT_TRUE(fs::is_directory(box.path("export/sub")));
    EXPECT_EQ(rvtest::read_file(work + "nested.txt"), "nested\n");
    // Step 7 has no key: step 6 (skip) runs again; nothing else happens.
    EXPECT_EQ(rvtest::read_file(work + "count.txt"), "1.6.4.71\n");

    const std::string trace = rvtest::read_file(box.dir("gv_rw_lgc") + "rv_db_update.lgc");
    for (const char* line : {
             "# +++ DbUpdate [Update 1.6.4.]\n",
             "#   +++ PARSER [ $old_version < \"1.6.4.\" ] && cmd echo from $old_version to "
             "$new_version > gv_rw_work:versions_:gv_date:.txt  (1)\n",
             "#     condition is valid: [ \"1.6.3.20\" < \"1.6.4.\" ]\n",
             "#     condition is not valid: [ \"1.6.3.20\" >= \"1.6.4.\" ]\n",
             "#     condition is not valid: oracle\n",
             "#       --- PARSER breaks bcs. of keyword 'exit'\n",
             "# --- DbUpdate Update 1.6.4.\n",
         }) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
}

TEST_F(UpdateScript, AFatalScriptEndsWithTheStatusLine) {
    script(std::string(kScript) + "[Update 2.0.1.]\nlast_step_nr=1\nstep_1=update loop\n");
    const auto r = run({kTool, "update", "1.6.3.20", "2.0.1.3"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.substr(std::min(r.out.find("STATUS="), r.out.size())),
              "STATUS=ERROR MSG=iDbUpdate: sections nested deeper than 64, section [update loop] not "
              "run (does a section call itself?)\n");
}

TEST_F(UpdateScript, AChildDoesNotOutliveTheTool) {
    const std::string pidfile = box.path("child.pid");
    rvtest::write_file(box.path("child.sh"),
                       "echo $$ > " + pidfile + ".new && mv " + pidfile + ".new " + pidfile + "\nexec sleep 600\n");
    script("[Update 1.6.4.]\nlast_step_nr=1\nstep_1=cmd sh " + box.path("child.sh") + "\n");
    rvtest::Background tool({kTool, "update", "1.6.3.20", "1.6.4.71"});
    ASSERT_TRUE(rvtest::eventually([&] { return fs::exists(pidfile); })) << "the step's child never started";
    const pid_t child = std::stoi(rvtest::read_file(pidfile));
    ASSERT_FALSE(rvtest::process_gone(child));
    kill(tool.pid(), SIGKILL);
    EXPECT_EQ(tool.wait().status, 128 + SIGKILL);
    EXPECT_TRUE(rvtest::eventually([&] { return rvtest::process_gone(child); })) << "the child " << child << " outlived the tool";
    if (!rvtest::process_gone(child)) {
        kill(child, SIGKILL);
    }
}

}  // namespace
