// A whole update script run through rv_db_update as an operator runs it:
// nested sections, conditions, command steps, rmdir, skip, exit, a missing
// step key and a malformed conditional line; console, files and status.
#include <gtest/gtest.h>

#include <filesystem>

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
        work = box.dir("gv_rw_work");
        rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini", kScript);
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_db_type.rgv", "POSTGRESQL");
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_export.rgv", box.path("export/"));
        rvtest::write_file(work + "old/deep/file", "x");
    }

    rvtest::RunResult update(std::vector<std::string> extra = {}) {
        std::vector<std::string> args{kTool, "update", "1.6.3.20", "1.6.4.71"};
        args.insert(args.end(), extra.begin(), extra.end());
        return run(args);
    }

    rvtest::Sandbox box;
    std::string work;
};

TEST_F(UpdateScript, RunsTheSectionAsWritten) {
    auto r = update();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    const std::string steps = r.out.substr(r.out.find("Update main version:"));
    EXPECT_EQ(steps,
              "Update main version: 1.6.4.\n"
              "[Update from 1.6.3.20 to 1.6.4.71]\n"
              "step=1 cmd=echo from 1.6.3.20 to 1.6.4.71 > gv_rw_work:versions_:gv_date:.txt\n"
              "step=3 cmd=mkdir -p gv_export:sub\n"
              "step=1 cmd=echo nested > gv_rw_work:nested.txt\n"
              "step=8 rmdir=gv_rw_work:old\n" +
                  kHelp +
                  "step=10 cmd=echo 1.6.4.71 >> gv_rw_work:count.txt\n");

    // The stamped file of step 1.
    std::vector<std::string> stamped;
    for (const auto& entry : fs::directory_iterator(work)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("versions_", 0) == 0) {
            stamped.push_back(name);
        }
    }
    ASSERT_EQ(stamped.size(), 1u);
    EXPECT_EQ(stamped[0].size(), std::string("versions_20261122101500.txt").size());
    EXPECT_EQ(rvtest::read_file(work + stamped[0]), "from 1.6.3.20 to 1.6.4.71\n");

    EXPECT_TRUE(fs::is_directory(box.path("export/sub")));
    EXPECT_EQ(rvtest::read_file(work + "nested.txt"), "nested\n");
    EXPECT_FALSE(fs::exists(work + "old"));
    // Step 7 has no key: step 6 (skip) runs again; nothing else happens.
    EXPECT_EQ(rvtest::read_file(work + "count.txt"), "1.6.4.71\n");
    for (const char* never : {"wrong_old.txt", "wrong_db.txt", "after_exit.txt", "malformed.txt", "beyond_last.txt"}) {
        EXPECT_FALSE(fs::exists(work + never)) << never;
    }
}

TEST_F(UpdateScript, TraceShowsParserAndConditions) {
    box.write_debug_ini("RV_DB_UPDATE=2\n");
    auto r = update();
    EXPECT_EQ(r.status, 0);
    const std::string trace = rvtest::read_file(box.dir("gv_rw_lgc") + "rv_db_update.lgc");
    for (const char* line : {
             "# +++ DbUpdate [Update 1.6.4.]\n",
             "#   +++ PARSER [ $old_version < \"1.6.4.\" ] && cmd echo from $old_version to $new_version > "
             "gv_rw_work:versions_:gv_date:.txt  (1)\n",
             "#     check condition: [$old_version < \"1.6.4.\"]\n",
             "#     condition is valid: [ \"1.6.3.20\" < \"1.6.4.\" ]\n",
             "#     condition is not valid: [ \"1.6.3.20\" >= \"1.6.4.\" ]\n",
             "#     condition is not valid: oracle\n",
             "#       --- PARSER breaks bcs. of keyword 'exit'\n",
             "#   --- PARSER\n",
             "# --- DbUpdate Update 1.6.4.\n",
         }) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
}

TEST_F(UpdateScript, MissingSectionRunsNothing) {
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini", "[Update 2.0.1.]\nlast_step_nr=1\nstep_1=cmd x\n");
    auto r = update();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(r.out.find("Update main version:")),
              "Update main version: 1.6.4.\n[Update from 1.6.3.20 to 1.6.4.71]\n");
}

TEST_F(UpdateScript, SectionCallingItselfStopsWithAnError) {
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                       std::string(kScript) + "[Update 2.0.1.]\nlast_step_nr=1\nstep_1=update loop\n");
    auto r = run({kTool, "update", "1.6.4.71", "2.0.1.3"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.substr(r.out.find("STATUS=")),
              "STATUS=ERROR MSG=iDbUpdate: sections nested deeper than 64, section [update loop] not run "
              "(does a section call itself?)\n");
}

TEST_F(UpdateScript, StepWithoutWordsEndsTheRun) {
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                       "[Update 1.6.4.]\nlast_step_nr=2\nstep_1=cmd    \nstep_2=cmd touch gv_rw_work:x\n");
    auto r = update();
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.substr(r.out.find("step=1")),
              "step=1 cmd=\nSTATUS=ERROR MSG=CmdExecute: Format error: No token ' ' in .\n");
    EXPECT_FALSE(fs::exists(work + "x"));
}

}  // namespace
