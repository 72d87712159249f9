// rv_db_update plan and check in-process on the sandbox. A plan lists the steps of the update that follows, for
// several releases and database types, while nothing runs and no file changes; where the script itself ends
// the update, the plan ends alike. The check finds each kind of fault planted in a script, at its line.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>

#include "support/command_test.hpp"
#include "support/fake_runner.hpp"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class Plan : public rvtest::CommandTest {
  protected:
    void SetUp() override {
        CommandTest::SetUp();
        setenv("PGHOST", box.path("no_server").c_str(), 1);  // sql steps reach no server
    }
    // Every file and directory of the sandbox with its content, the trace and the lock file aside.
    std::map<std::string, std::string> listing() const {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(box.root())) {
            const std::string path = entry.path().string();
            if (!path.starts_with(box.dir("gv_rw_lgc")) && entry.path().filename() != "rv_db_update.lock")
                files[path] = entry.is_directory() ? "<dir>" : rvtest::read_file(path);
        }
        return files;
    }
    // The first group of each line of `text` that `pattern` matches.
    static Lines matching(const std::string& text, const std::string& pattern) {
        Lines found;
        std::smatch m;
        for (const std::string& line : rvtest::split_lines(text))
            if (std::regex_match(line, m, std::regex(pattern))) found.push_back(m[1]);
        return found;
    }
    const std::string work = box.dir("gv_rw_work");
};

// The lines a step prints before it acts, as the update prints them.
const std::string kStepLine = " *(step=[0-9]+ (?:cmd|rmdir|change table|db)=.*)";

TEST_F(Plan, ListsTheStepsOfTheUpdateThatFollowsAndRunsNothing) {
    script(R"([Update 1.6.4.]
last_step_nr=12
step_1=[ $old_version < "1.6.4." ] && dump ravik_db media,
step_2=[ postgresql ] && sql ravik_db delete from media
step_3=[ oracle ] && cmd echo oracle > gv_rw_work:oracle_:gv_date:.txt
step_4=[ $old_version < "1.6.4." ] && change media
step_5=[ $old_version < "1.6.4." ] && import ravik_db media
step_6=[ $old_version >= "1.6.4." ] && update tail
step_8=cmd echo $new_version > gv_rw_work:v_:gv_date:.txt
step_9=export ravik_db jobs
step_10=[ $new_version > "1.6.4." ]&& cmd touch gv_rw_work:never
step_11=rmdir gv_rw_work:old
step_12=exit
step_13=cmd echo never
[update tail]
last_step_nr=3
step_1=cmd echo tail $old_version
step_2=KEY_NOT_FOUND
step_3=cmd echo after
[Update 2.0.1.]
last_step_nr=3
step_1=[ $old_version < "2.0.1." ] && update inner
step_2=skip
step_3=cmd echo done
[update inner]
last_step_nr=2
step_1=[ ORACLE ] && sql ravik_db analyze media
step_2=export ravik_db media
[1.6.4.media]
ADD_COLUMNS=pool
ADD_VALUES='daily'
)");
    const std::string sqo = box.dir("gv_rw_tmp") + "media.sqo";
    const struct { const char *oldv, *newv, *type; } cases[] = {
        {"1.6.3.20", "1.6.4.71", "POSTGRESQL"}, {"1.6.4.10", "1.6.4.71", "ORACLE"},
        {"1.6.3.20", "2.0.1.5", "oracle"}, {"2.0.1.1", "2.0.1.5", ""},
    };
    for (const auto& c : cases) {
        if (*c.type)
            box.set_glbv("gv_db_type", c.type);
        else
            fs::remove(box.dir("gv_rw_glbv") + "gv_db_type.rgv");
        const auto before = listing();
        rvtest::FakeRunner planned;
        ASSERT_EQ(run({"plan", c.oldv, c.newv}), 0) << out;
        const std::string plan = out;
        EXPECT_TRUE(planned.ran.empty() && err.empty()) << err;
        EXPECT_EQ(listing(), before) << c.newv << " " << c.type;

        rvtest::FakeRunner runner;
        runner.on("psql", {0, {}, [&](const std::string&) {
                               rvtest::write_file(sqo, "select distinct * from media\nid\n1\n(1 row)\n");
                           }});
        ASSERT_EQ(run({"update", c.oldv, c.newv}), 0) << out;
        EXPECT_EQ(matching(plan, kStepLine), matching(out, "(step=[0-9]+ .*)")) << plan << "\n" << out;
        // What the plan says cmd and rmdir steps run is what the update ran, gv_date aside.
        Lines shell;
        const std::regex table_step("^psql |oaisql -c |rv_db \""), stamp("[0-9]{14}");
        for (const std::string& line : runner.ran)
            if (!std::regex_search(line, table_step))
                shell.push_back(std::regex_replace(line.substr(line.front() == ' '), stamp, "<date>"));
        EXPECT_EQ(matching(plan, " *runs: (.*)"), shell) << plan;
    }
}

// The plan of a small script whole: nesting, verdicts, a repeated step, a change's columns, the ends.
TEST_F(Plan, ShowsConditionsRepeatsChangesAndSectionEnds) {
    script("[Update 1.6.4.]\nlast_step_nr=5\nstep_1=[ $old_version < \"1.6.4.\" ] && change media\n"
           "step_2=[ oracle ] && cmd echo no\nstep_4=update inner\nstep_5=cmd never\n"
           "[update inner]\nlast_step_nr=1\nstep_1=exit\n[1.6.4.media]\nADD_COLUMNS=pool\nADD_VALUES=O'Brien\n"
           "DEL_COLUMNS=old\n");
    box.set_glbv("gv_db_type", "POSTGRESQL");
    EXPECT_EQ(run({"plan", "1.6.3.20", "1.6.4.71"}), 0);
    EXPECT_EQ(out.substr(out.find("Update main version")),
              "Update main version: 1.6.4.\n[Plan of the update from 1.6.3.20 to 1.6.4.71: nothing is run]\n"
              "[Update 1.6.4.] last_step_nr=5\nstep=1 change table=media\n"
              "    condition [ \"1.6.3.20\" < \"1.6.4.\" ] holds\n    image: " + work + "db_media.tmp\n"
              "    [1.6.4.media] adds pool = 'O''Brien'\n    [1.6.4.media] drops old\n"
              "step=2 skipped: [ oracle ] && cmd echo no\n    condition oracle does not hold (gv_db_type POSTGRESQL)\n"
              "step=3 skipped: [ oracle ] && cmd echo no\n    no key step_3: the text before runs again\n"
              "    condition oracle does not hold (gv_db_type POSTGRESQL)\nstep=4 runs [update inner]\n"
              "  [update inner] last_step_nr=1\n  step=1 exit: the section ends\nstep=5 cmd=never\n    runs: never\n");
}

// Where the script ends the update, the plan ends at the same step with the same status line; an unfinished
// run (the update's) neither refuses the plan nor is touched by it.
TEST_F(Plan, EndsWhereTheScriptEndsTheUpdate) {
    const struct { std::string script, last_step, status; } cases[] = {
        {"[Update 1.6.4.]\nlast_step_nr=1\nstep_1=update loop\n[update loop]\nlast_step_nr=1\nstep_1=update loop\n",
         "step=1 runs [update loop]", "iDbUpdate: sections nested deeper than 64, section [update loop] not run "
         "(does a section call itself?)"},
        {"[Update 1.6.4.]\nlast_step_nr=2\nstep_1=cmd echo first\nstep_2=cmd   \n", "step=2 cmd=",
         "CmdExecute: Format error: No token ' ' in ."},
        {"[Update 1.6.4.]\nlast_step_nr=1\nstep_1=change media\n[1.6.4.media]\nADD_COLUMNS=pool\nADD_VALUES=\n",
         "step=1 change table=media", "db_change: Format error: No further token ',' in value list"},
        // A step count beyond the limit (it would run the last text again and again) ends the run before a step.
        {"[Update 1.6.4.]\nlast_step_nr=1\nstep_1=update many\n[update many]\nlast_step_nr=2147483647\n"
         "step_1=cmd echo\n", "step=1 runs [update many]",
         "iDbUpdate: section [update many] has last_step_nr=2147483647, more than 999 steps; none of them runs"},
    };
    for (const auto& c : cases) {
        script(c.script);
        rvtest::FakeRunner runner;
        EXPECT_EQ(run({"update", "1.6.3.20", "1.6.4.71"}), 2);
        const std::string status = "STATUS=ERROR MSG=" + c.status + "\n";
        EXPECT_TRUE(out.ends_with(status) && fs::exists(work + "rv_db_update.journal")) << out;
        const auto before = listing();
        const std::size_t ran = runner.ran.size();
        EXPECT_EQ(run({"plan", "1.6.3.20", "1.6.4.71"}), 2);
        EXPECT_TRUE(out.ends_with(status)) << out;
        EXPECT_EQ(matching(out, " *(step=.*)").back(), c.last_step) << out;
        EXPECT_EQ(listing(), before);
        EXPECT_EQ(runner.ran.size(), ran);
        fs::remove(work + "rv_db_update.journal");
    }
}

class Check : public rvtest::CommandTest {};

// Each kind of fault, planted in a script, is found at its line; the findings come in the order of the lines.
TEST_F(Check, FindsEachPlantedFaultAtItsLine) {
    const std::string file = box.path("faults.ini");
    rvtest::write_file(file, "# faults, one kind a line\n[Update 1.6.4.]\nlast_step_nr=15\n"
        "step_1=[ $old_version < \"1.6.4.\" ]&& cmd echo no blank\n"             // 4
        "step_2=[ $old_version  < \"1.6.4.\" ] && cmd echo two blanks\n"         // 5
        "step_3=[ $old_version < 1.6.4. ] && dump ravik_db media,\n"             // 6
        "step_4=[ $old_version ~ \"1.6.4.\" ] && sql ravik_db delete from media\n"
        "step_6=import ravik_db drives\nstep_7=frobnicate the tables\nstep_8=update loop\n"
        "step_9=change media\nstep_10=change drives\nstep_11=dump ravik_db media, drives\n"   // 11 .. 13
        "step_12=cmd echo " + std::string(1100, 'x') + "\nstep_13=dump ravik_db me$dia\n"    // 14, 15
        "step_14=rmdir gv_rw_work:" + std::string(510, 'd') + "\n"
        "step_15=export ravik_db a_table_name_of_thirty_chars_x\nstep_16=skip\n"               // 17, 18
        "[update loop]\nlast_step_nr=2\nstep_1=update ring\nstep_2=update count\n"          // 19 .. 22
        "[update ring]\nlast_step_nr=1\nstep_1=update loop\n"                               // 23 .. 25
        "[update count]\nlast_step_nr=1x\nstep_1=skip\n"                                    // 26 .. 28
        "[1.6.4.media]\nADD_COLUMNS=pool,owner\nADD_VALUES='daily'\n"                       // 29 .. 31
        "[Downgrade 1.6.4.]\nlast_step_nr=1\nstep_1=change media\n"                         // 32 .. 34
        "[Update 9.9.9.]\nlast_step_nr=99999999999999999999\n");                            // 35, 36
    const char* const found[] = {
        "4: error: no \" && \" behind the condition: the update prints a format help and runs nothing of this step",
        "5: error: two blanks or a tab in the condition [ $old_version  < \"1.6.4.\" ]: its words are not found, "
        "it tests the database type",
        "6: error: unquoted literal 1.6.4. in the condition: releases compare in double quotes",
        "7: error: operator ~ holds none of =, < and >: the condition never holds",
        "7: warning: step_5 is missing: the text of step_4 runs again as step 5",
        "8: warning: import of drives: no earlier step of this section dumps, exports or changes it",
        "9: error: frobnicate is no keyword, and there is no section [frobnicate the tables]",
        "12: warning: change of drives: no section [1.6.4.drives], no column is added or dropped",
        "13: error: table list \"media, drives\" holds a blank: tables are separated by commas alone",
        "14: error: line longer than 1023 characters: the tool reads the rest as a line of its own, and no step or "
        "statement is longer",
        "15: error: dump of me$dia: the name holds a character the shell would change (\" $ ` \\), dump refuses it",
        "16: error: removal command of 528 characters: rmdir refuses more than 511",
        "17: error: export of a_table_name_of_thirty_chars_x: the export tool refuses table names longer than 29 "
        "characters",
        "18: warning: step_16 stands behind last_step_nr=15: it never runs",
        "25: error: section [update loop] calls itself (update loop -> update ring -> update loop): the update ends "
        "at the nesting limit of 64",
        "27: error: last_step_nr=1x is no number: the update runs 1 step of [update count]",
        "31: error: ADD_COLUMNS names 2 columns, ADD_VALUES gives 1 value: they are paired in order, the rest is lost",
        "34: warning: change of media: no section [media], no column is added or dropped",
        "36: error: last_step_nr=99999999999999999999 is more than 999 steps: the update refuses [Update 9.9.9.]",
    };
    std::string expected;
    for (const char* line : found) expected += file + ":" + line + "\n";
    // A script named on the command line needs no installation.
    setenv("RAVIK_INI", box.path("nowhere.ini").c_str(), 1);
    EXPECT_EQ(run({"check", file}), 2);
    EXPECT_EQ(out + err, expected);
}

// Warnings alone give status 1, a clean script none and no word; without a file the installation's script is
// checked; a file that cannot be read ends the run.
TEST_F(Check, StatusByTheWorstFinding) {
    const std::string clean =
        "[Update 1.6.4.]\nlast_step_nr=2\nstep_1=dump ravik_db media,\nstep_2=import ravik_db media\n";
    const std::string script_file = ro + "skel/rv_db_update.ini";
    const struct { std::string text; Args args; std::string said; } cases[] = {
        {clean, {"check"}, "0"},
        {clean + "step_3=skip\n", {"ch", "-v", "0"}, "1-v set to 0\n" + script_file +
             ":5: warning: step_3 stands behind last_step_nr=2: it never runs\n"},
        {"[1.6.4.media]\nADD_COLUMNS=pool\n", {"check"}, "1" + script_file +
             ":1: warning: no [Update ...] or [Downgrade ...] section: the script runs nothing\n"},
        {clean, {"check", box.path("none.ini")}, "2STATUS=ERROR MSG=check: cannot read the update script " +
             box.path("none.ini") + ": No such file or directory\n"},
    };
    for (const auto& c : cases) {
        script(c.text);
        EXPECT_EQ(said(c.args), c.said);
    }
}

}  // namespace
