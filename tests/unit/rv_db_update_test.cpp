// rv_db_update run in-process on a sandbox installation: usage texts and command selection, the downgrade
// paths, how the releases are found, the scripts that end the run, the table steps over the fake runner, and
// a whole update script through the real shell with its console, files and trace.
#include "cli/commands.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <regex>
#include <set>

#include "support/command_test.hpp"
#include "support/fake_runner.hpp"
#include "support/product_test.hpp"
#include "update/driver.hpp"

namespace {

namespace fs = std::filesystem;
using Args = rvtest::CommandTest::Args;
constexpr auto npos = std::string::npos;

class RvDbUpdate : public rvtest::CommandTest {};

// Words select commands, usage or warning; the downgrades end on the scripts that end the run: a section
// calling itself and an empty command line.
TEST_F(RvDbUpdate, WordsSelectCommandsAndDowngradePaths) {
    script("[Update 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n"
           "[Downgrade 1.6.4.]\nlast_step_nr=3\nstep_1=cmd echo\nstep_2=cmd    \nstep_3=cmd echo 3\n"
           "[Downgrade 2.0.1.]\nlast_step_nr=2\nstep_1=cmd echo 2\nstep_2=update loop\n"
           "[update loop]\nlast_step_nr=1\nstep_1=update loop\n");
    const std::string tar = ro + "downgrade/ravik_db.tar", schema = box.dir("gv_rw_db") + "schema/ravik/";
    const std::string update = "Update main version: 1.6.4.\n[Update from 1.6.3.20 to 1.6.4.71]\nstep=1 cmd=echo\n";
    const std::string usage = "Usage:\nrv_db_update update [{old_version} {new_version}]|downgrade|"
                              "db_backup|db_restore|set_params_fix|resume|plan|check [-v 0|1|2]\n";
    const std::string warning = "STATUS=WARNING MSG=Usage:\nrv_db_update "
                                "update|downgrade|db_backup|db_restore|set_params_fix|resume|plan|check [-v 0|1|2]\n\n";
    // The console after the environment report (none with status 1), database errors left out.
    const struct { Args args; int status; std::string after_report; const char *newv = "1.6.4.71", *oldv = "1.6.3.20"; }
    cases[] = {
        {{}, 1, usage}, {{"-h"}, 1, usage}, {{"upgrade"}, 1, usage},
        // "-v" in the command position: the level is set, then usage.
        {{"-v", "2"}, 1, "-v set to 2\n" + usage},
        // A word inside the command list but at no command's start: the warning.
        {{"fix"}, 1, warning}, {{"date"}, 1, warning}, {{"d"}, 1, warning}, {{"s"}, 1, warning}, {{"|"}, 1, warning},
        {{"db"}, 0, "cd " + schema + "; [ -f " + tar + " ] || tar -cvf " + tar + " ."},
        {{"db_r"}, 0, "cd " + schema + " ; tar -xvf " + tar + " ."},
        {{"set"}, 0, "update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'\n"
                     "update params_fix set update_date='<minute>' where kunde='QOR-RAVIK'\n"},
        {{"set"}, 2, "STATUS=ERROR MSG=set_params_fix refused: the version 1',x='y holds a single quote\n", "1',x='y"},
        {{"downgrade"}, 2, "[Downgrade from 1.6.4 to 1.6.2]\nstep=1 cmd=echo\nstep=2 cmd=\n"
         "STATUS=ERROR MSG=CmdExecute: Format error: No token ' ' in .\n", "1.6.4.71", "1.6.2.9"},
        {{"downgrade"}, 2, "[Downgrade from 2.0.1 to 1.6.3]\nstep=1 cmd=echo 2\nSTATUS=ERROR MSG=iDbUpdate: sections "
         "nested deeper than 64, section [update loop] not run (does a section call itself?)\n", "2.0.1.3"},
        // The depth is back after the refusal; "" and "up" are found at the list's start.
        {{""}, 0, update},
        {{"up"}, 0, update},
        // 1.6.4 knows only the way back to 1.6.2: nothing happens.
        {{"do"}, 0, ""},
        {{"downgrade"}, 2, "STATUS=ERROR MSG=Es sind keine Downgrade Informationen fuer diese Version verfuegbar.\n",
         "1.7.0.1"},
    };
    const std::regex db_error(" got error from statement: .*\n"), minute("'[0-9]{12}'");
    for (const auto& c : cases) {
        rvtest::FakeRunner runner;
        fs::remove(box.dir("gv_rw_work") + "rv_db_update.journal");  // runs that failed stay unfinished
        version_file("skel/ravik_srv.1.6.4", c.newv);
        version_file("downgrade/skel/ravik_srv.1.6.3", c.oldv);
        EXPECT_EQ(std::regex_replace(std::regex_replace(said(c.args), db_error, ""), minute, "'<minute>'"),
                  std::to_string(c.status) + (c.status == 1 ? "" : box.checkenv_report(c.newv, c.oldv)) +
                      c.after_report) << testing::PrintToString(c.args);
    }
    // A missing trace directory is reported and the run goes on.
    box.set_path_key("gv_rw_lgc", "");
    EXPECT_EQ(said({}), "1" + usage);
    EXPECT_NE(err.find("FATAL: SET_LOG_MAIN: gv_rw_lgc not set"), npos) << err;
}

TEST_F(RvDbUpdate, VersionFilesTheirPatternsAndTheCommandLine) {
    rvtest::FakeRunner runner;
    fs::remove(ro + "skel/ravik_srv.1.6.4");
    const std::string msg = "rv_db_update breaks because there is no version file: " + ro + "skel/*_srv.*.*";
    EXPECT_EQ(run({"db_backup"}), 2);
    EXPECT_EQ(err + out, "\nERROR: " + msg + "\nSTATUS=ERROR MSG=" + msg + "\n");
    rvtest::write_file(ro + "skel/ravik_srv.1.6.4", "[CVS_UPDATE]\nrelease=1.6.4.71\n");
    EXPECT_EQ(said({"db_backup"}), "2STATUS=ERROR MSG=rv_db_update: couldn't find version file! "
                                   "i_GetPrivateProfileString: KEY NOT FOUND: version\n");
    version_file("skel/ravik_srv.1.6.4", "1.6.4.71");

    // Several files of the first old-version pattern are no error.
    version_file("downgrade/skel/other_srv.1.6.3", "1.6.3.20");
    EXPECT_EQ(run({"db_backup"}), 0);
    // The second pattern must match exactly one file.
    fs::remove_all(ro + "downgrade/skel");
    version_file("downgrade/skel/ravik_srv1.6.3", "1.6.3.5");
    EXPECT_EQ(run({"db_backup"}), 0);
    EXPECT_NE(out.find(box.checkenv_report("1.6.4.71", "1.6.3.5")), npos) << out;
    version_file("downgrade/skel/other_srv2.0.1", "2.0.1.1");
    EXPECT_EQ(run({"db_backup"}), 2);
    EXPECT_TRUE(err.starts_with("\nERROR: rv_db_update breaks because there are several old version files: ") &&
                err.ends_with("!!\n") && out.ends_with("!\n")) << err << out;
    fs::remove_all(ro + "downgrade/skel"), fs::create_directories(ro + "downgrade/skel");
    EXPECT_EQ(said({"db_backup"}), "2STATUS=ERROR MSG=rv_db_update breaks because there is no old version file: " + ro +
                                       "downgrade/skel/*_srv*.?.?\n");

    // Versions on the command line need no version file.
    fs::remove_all(ro + "skel"), fs::remove_all(ro + "downgrade");
    EXPECT_EQ(said({"update", "1.6.3.20", "2.0.1.5"}),
              "0" + box.checkenv_report("2.0.1.5", "1.6.3.20") +
                  "Update main version: 2.0.1.\n[Update from 1.6.3.20 to 2.0.1.5]\n");
    // Backslash paths do not exist here: the version check fails, but the separator reaches the trace first.
    setenv("OS", "Windows_NT", 1), setenv("LD_LIBRARY_PATH", "/old", 1);
    EXPECT_EQ(run({"db_backup", "-v", "2"}), 2);
    const std::string library_path = box.dir("gv_ro_bin") + ";" + box.dir("gv_ro_db") + ";/old";
    EXPECT_NE(err.find("setenv() set LD_LIBRARY_PATH=" + library_path), npos) << err;
    EXPECT_NE(out.find("skel\\*_srv.*.*"), npos) << out;
}

// A dump, change, import and export chain whose children only pretend.
TEST_F(RvDbUpdate, DumpChangeImportAndExportThroughTheirChildren) {
    rvtest::FakeRunner runner;
    const std::string sqo = box.dir("gv_rw_tmp") + "media.sqo", work = box.dir("gv_rw_work");
    const std::string psql = "psql -e -d ravik_db -P null=NULL -A -c \"select distinct * from media\" 2>&1 > " + sqo;
    const std::string dumped = "select distinct * from media\nid|Label\n1|a\n2|NULL\n(2 rows)\n";
    runner.on(psql, {0, {}, [&](const std::string&) { rvtest::write_file(sqo, dumped); }});
    runner.on("oaisql",
              {1, {"Error in line 3: duplicate key (x)", "oaisql: 1200 statements, 1199 succeeded, 1 failed"}, {}});
    runner.on("rv_db", {2, {}, {}});
    box.set_glbv("gv_db_type", "POSTGRESQL");
    script("[Update 1.6.4.]\nlast_step_nr=4\nstep_1=dump ravik_db media,\nstep_2=change media\n"
           "step_3=import ravik_db media\nstep_4=export ravik_db jobs\n"
           "[1.6.4.media]\nADD_COLUMNS=pool\nADD_VALUES='daily'\nDEL_COLUMNS=label\n");
    EXPECT_EQ(run({"update"}), 0) << out;
    EXPECT_EQ(runner.ran, (Args{psql,
                                box.dir("gv_ro_db") + "oaisql -c " + work + "db_media.tmp -e -p " + work +
                                    "db_media.tmp.pos 2>&1",
                                box.dir("gv_ro_bin") + "rv_db \"select * from jobs\" -e > " + work + "db_jobs.tmp"}));
    EXPECT_EQ(rvtest::read_file(work + "db_media.tmp"),
              "connect ravik_db\nINSERT INTO media (id,pool) VALUES ('1','daily');\n"
              "INSERT INTO media (id,pool) VALUES ('2','daily');\n");
    EXPECT_EQ(out.substr(out.find("step=1")),
              "step=1 db=ravik_db dump=media,\nselect 2 rows from media\n"
              "step=2 change table=media\nchange table media\ndb_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
              "step=3 db=ravik_db import=media\nload values into table media\n"
              "Error in line 3: duplicate key (x)\noaisql: 1200 statements, 1199 succeeded, 1 failed\n"
              "import media returned exit state 256 with 1 errors\n"
              "step=4 db=ravik_db export=jobs\nexport jobs returned exit state 512\n");
    // With -v 0 the console keeps them to itself, the trace has them still.
    rvtest::write_file(sqo, dumped);
    fs::remove(box.dir("gv_rw_lgc") + "rv_db_update.lgc");
    EXPECT_EQ(run({"update", "1.6.3.20", "1.6.4.71", "-v", "0"}), 0);
    const std::string trace = rvtest::read_file(box.dir("gv_rw_lgc") + "rv_db_update.lgc");
    for (const char* line : {"select 2 rows from media", "load values into table media", "Error in line 3:",
                             "import media returned exit state 256 with 1 errors", "export jobs returned exit state"}) {
        EXPECT_EQ(out.find(line), npos) << line;
        EXPECT_NE(trace.find(line), npos) << line << " not traced at level 0";
    }
    EXPECT_TRUE(err.ends_with("rv_db_update: 2 steps failed:\n  [Update 1.6.4.] step 3 import media: 1 of 1,200 "
                              "statements failed\n  [Update 1.6.4.] step 4 export jobs: the export tool returned exit "
                              "state 512\n")) << err;

    // Steps that hold the only copy of rows end the run when they fail: a dump of a table that exists (it
    // leaves no image, not even the older one), a change that cannot write its script, an import whose loader
    // stopped. (A dump of a table the database says does not exist goes on: DbSteps.)
    const std::string self = work + "db_media.tmp.new." + std::to_string(getpid());
    const struct { std::string step, answer; int loader; std::string reason; } failures[] = {
        {"dump ravik_db media", "psql: error: no server\n", 0,
         "dump of media failed: didn't find expected strings in database answer; please examine file " + sqo},
        // A quit outside the wait for the client (here: while the answer is written) counts as well.
        {"dump ravik_db media", "quit", 0, "dump of media failed: the statement was broken off by SIGQUIT"},
        {"change media", "", 0,
         "change of media: cannot write the INSERT script: cannot write " + self + ": Is a directory"},
        {"import ravik_db media", "", 2,
         "import of media: the loader stopped before the end of its script (exit state 512)"},
    };
    for (const auto& f : failures) {
        rvtest::FakeRunner failing;
        failing.on("psql", {2, {}, [&](const std::string&) {
                            const bool quit = f.answer == "quit";
                            rvtest::write_file(sqo, quit ? "select distinct * from media\nid\n1\n(1 row)\n" : f.answer);
                            if (quit) raise(SIGQUIT);
                        }});
        failing.on("oaisql", {f.loader, {}, {}});
        rvtest::write_file(work + "db_media.tmp", "|id=9|\n");
        fs::create_directories(self);
        fs::remove(work + "rv_db_update.journal");  // each failure leaves its run unfinished
        script("[Update 1.6.4.]\nlast_step_nr=2\nstep_1=" + f.step + "\nstep_2=cmd echo next\n");
        EXPECT_EQ(run({"update"}), 2) << f.step;
        fs::remove(self);
        const std::string status = "STATUS=ERROR MSG=step 1 (" + f.step + ") failed: " + f.reason;
        EXPECT_TRUE(out.ends_with(status + "; later steps not run\n") && !std::ranges::count(failing.ran, " echo next"))
            << out;
        EXPECT_EQ(fs::exists(work + "db_media.tmp"), !f.step.starts_with("dump")) << f.step << ": image left or lost";
    }
    // The German notice of a malformed image ends without a line feed; the status line still starts a line.
    fs::remove(work + "rv_db_update.journal");
    rvtest::write_file(work + "db_media.tmp", "|x|\n");
    script("[Update 1.6.4.]\nlast_step_nr=1\nstep_1=change media\n");
    EXPECT_EQ(run({"update"}), 2);
    EXPECT_TRUE(out.ends_with("\n\nKein Token '=' verfuegbar.\nSTATUS=ERROR MSG=db_change: line 1 of " + work +
                              "db_media.tmp holds an element without name=value: x; table media not changed\n"))
        << out;
    // An image that cannot be read to its end gives no script.
    fs::remove(work + "rv_db_update.journal");
    fs::remove(work + "db_media.tmp");
    fs::create_directories(work + "db_media.tmp");
    EXPECT_EQ(run({"update"}), 2);
    EXPECT_TRUE(out.ends_with("STATUS=ERROR MSG=db_change: cannot read " + work + "db_media.tmp: Is a directory; "
                              "table media not changed\n")) << out;
}

// A whole update script through the real shell: nested sections, conditions, rmdir, skip, exit, a missing
// step key, a malformed conditional line and a step with runs of blanks.
TEST_F(RvDbUpdate, AnUpdateScriptRunsAsWritten) {
    const std::string work = box.dir("gv_rw_work");
    script(R"([Update 1.6.4.]
last_step_nr=11
step_1=[ $old_version < "1.6.4." ] && cmd echo from $old_version to $new_version > gv_rw_work:versions_:gv_date:.txt
step_2=[ $old_version >= "1.6.4." ] && cmd touch gv_rw_work:wrong_old.txt
step_3=[ postgresql ] && cmd mkdir -p gv_export:sub
step_4=[ oracle ] && cmd touch gv_rw_work:wrong_db.txt
step_5=update nested 1
step_6=skip
step_8=[ $new_version == "1.6.4." ] && rmdir gv_rw_work:old
step_9=[ $new_version > "1.6.4." ]&& cmd touch gv_rw_work:malformed.txt
step_10=cmd  echo $new_version   >>  gv_rw_work:count.txt
step_11=exit
step_12=cmd touch gv_rw_work:beyond_last.txt
[update nested 1]
last_step_nr=3
step_1=cmd echo nested > gv_rw_work:nested.txt
step_2=exit
step_3=cmd touch gv_rw_work:after_exit.txt
)");
    box.set_glbv("gv_db_type", "POSTGRESQL");
    box.set_glbv("gv_export", box.path("export/"));
    rvtest::write_file(work + "old/deep/file", "x");
    // The trace level by -v: "Logging enabled" comes once a process (trace_test).
    EXPECT_EQ(run({"update", "1.6.3.20", "1.6.4.71", "-v", "2"}), 0) << out << err;
    // The step lines keep the blanks of the script; the shell lines join them.
    EXPECT_EQ(out.substr(out.find("Update main version:")),
              "Update main version: 1.6.4.\n[Update from 1.6.3.20 to 1.6.4.71]\n"
              "step=1 cmd=echo from 1.6.3.20 to 1.6.4.71 > gv_rw_work:versions_:gv_date:.txt\n"
              "step=3 cmd=mkdir -p gv_export:sub\nstep=1 cmd=echo nested > gv_rw_work:nested.txt\n"
              "step=8 rmdir=gv_rw_work:old\nWARNING: condition line in illegal format!\n"
              ">>>[ $new_version > \"1.6.4.\" ]&& cmd touch gv_rw_work:malformed.txt<<<\n"
              "format required: [ {argument} {operator} {argument} ] && {keyword} {command}\n"
              " argument: \n     $old_version  >>  current version\n     $new_version  >>  update version\n"
              "     \"{string}\"\n operator:  < | > | <= | >= | == | <>\n"
              " keyword:   change | cmd | dump | export | exit | import | rmdir | sql | skip | update\n"
              " command:   any valid command for given keyword\n"
              "step=10 cmd=echo 1.6.4.71   >>  gv_rw_work:count.txt\n");
    // The trace: conditions, the exact shell lines, sections and their ends. Step 7 has no key, so step 6
    // (skip) runs again; the malformed line names an empty section.
    const std::regex shown("condition is|iCmdExecute =|iRmDir:|breaks|[-+]{3} DbUpdate"), stamp("[0-9]{14}");
    std::vector<std::string> lines;
    for (const auto& line : rvtest::read_lines(box.dir("gv_rw_lgc") + "rv_db_update.lgc")) {
        if (std::regex_search(line, shown)) {
            lines.push_back(regex_replace(line.substr(line.find("# ") + 2), stamp, "<stamp>"));
        }
    }
    const std::string export_dir = box.path("export/");
    const std::string c = "    condition is ", x = "    iCmdExecute =  ", brk = "--- PARSER breaks bcs. of keyword";
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "+++ DbUpdate [Update 1.6.4.]", c + "valid: [ \"1.6.3.20\" < \"1.6.4.\" ]",
                         x + "echo from 1.6.3.20 to 1.6.4.71 > " + work + "versions_<stamp>.txt",
                         c + "not valid: [ \"1.6.3.20\" >= \"1.6.4.\" ]", c + "valid: postgresql",
                         x + "mkdir -p " + export_dir + "sub", c + "not valid: oracle",
                         "    +++ DbUpdate [update nested 1]", "    " + x + "echo nested > " + work + "nested.txt",
                         "      " + brk + " 'exit'", "    --- DbUpdate update nested 1",
                         c + "valid: [ \"1.6.4.71\" == \"1.6.4.\" ]",
                         "    iRmDir: rm -rf " + work + "old", "    +++ DbUpdate []", "    --- DbUpdate ",
                         x + "echo 1.6.4.71 >> " + work + "count.txt", "  " + brk + " 'exit'",
                         "--- DbUpdate Update 1.6.4."}));
    // What the shell made of them: nothing of the steps not taken.
    std::set<std::string> files;
    for (const auto& e : fs::directory_iterator(work)) files.insert(regex_replace(e.path().string(), stamp, "*"));
    EXPECT_EQ(files, (std::set<std::string>{work + "count.txt", work + "nested.txt", work + "rv_db_update.lock",
                                            work + "versions_*.txt"}));
    EXPECT_TRUE(fs::is_directory(export_dir + "sub"));
    EXPECT_EQ(rvtest::read_file(work + "nested.txt") + rvtest::read_file(work + "count.txt"), "nested\n1.6.4.71\n");
}

// A step line indented by tabs keeps its arguments whole.
TEST_F(RvDbUpdate, AStepIndentedByTabsKeepsItsArguments) {
    rvtest::FakeRunner runner;
    rv::pathes.version = "1.6.4.71";
    out = rvtest::capture(1, [] { EXPECT_EQ(rv::parser("\t\tcmd  echo $new_version", 1), 1); });
    EXPECT_EQ(runner.ran, (std::vector<std::string>{" echo 1.6.4.71"}));
    EXPECT_EQ(out, "step=1 cmd=echo 1.6.4.71\n");
}

// A run that a step ended stays unfinished: update is refused, resume skips the steps that ended (in nested
// sections too), runs the interrupted one again (the import continuing, a change already written left alone)
// and the rest; a changed script is refused.
TEST_F(RvDbUpdate, AnInterruptedRunResumesWhereItStopped) {
    const std::string work = box.dir("gv_rw_work"), image = work + "db_media.tmp";
    box.set_glbv("gv_db_type", "POSTGRESQL");
    script("[Update 1.6.4.]\nlast_step_nr=4\nstep_1=cmd echo one\nstep_2=update inner\nstep_3=skip\n"
           "step_4=cmd echo four\n[update inner]\nlast_step_nr=3\nstep_1=cmd echo inner\nstep_2=change media\n"
           "step_3=import ravik_db media\n");
    rvtest::write_file(image, "|id=1|\n");
    {
        rvtest::FakeRunner stopped;
        stopped.on("oaisql", {2, {}, {}});
        EXPECT_EQ(run({"update", "1.6.3.20", "1.6.4.71"}), 2);
    }
    EXPECT_EQ(rvtest::read_file(image), "connect ravik_db\nINSERT INTO media (id) VALUES ('1');\n");
    EXPECT_EQ(run({"update", "1.6.3.20", "1.6.4.71"}), 2);
    EXPECT_NE(out.find("stopped in step 2.3 (import ravik_db media); media: no statement loaded for sure, ended by: "
                       "step 3 (import ravik_db media) failed: import of media: the loader stopped before the end of "
                       "its script (exit state 512); later steps not run; continue it with 'rv_db_update resume' or "
                       "discard it by removing " + work + "rv_db_update.journal\n"), npos) << out;
    rvtest::FakeRunner runner;
    EXPECT_EQ(run({"resume"}), 0) << out;
    const std::string oaisql = box.dir("gv_ro_db") + "oaisql -c " + image + " -e -p " + image + ".pos -r 2>&1";
    EXPECT_EQ(runner.ran, (Args{oaisql, " echo four"}));
    EXPECT_NE(out.find("step=1 ended before the interruption, not run again\nstep=1 ended before the interruption, "
                       "not run again\nstep=2 ended before the interruption, not run again\nstep=3 db=ravik_db "
                       "import=media\n"), npos) << out;
    EXPECT_EQ(run({"resume"}), 0);
    EXPECT_TRUE(out.ends_with("nothing to resume\n") && !fs::exists(work + "rv_db_update.journal")) << out;

    // Again, stopped in the change once its script is in place: resume does not change it twice.
    runner.on("echo inner", {0, {}, [&](const std::string&) { rvtest::write_file(image, "|id=2|\n"); }});
    runner.on("oaisql", {2, {}, {}});
    EXPECT_EQ(run({"update", "1.6.3.20", "1.6.4.71"}), 2);
    const std::string journal = rvtest::read_file(work + "rv_db_update.journal");
    rvtest::write_file(work + "rv_db_update.journal", journal.substr(0, journal.find("end\t2.2")));
    EXPECT_EQ(run({"resume"}), 2);
    EXPECT_NE(out.find("change table media: " + image + " was written before the interruption, not changed again"),
              npos) << out;
    EXPECT_EQ(rvtest::read_file(image), "connect ravik_db\nINSERT INTO media (id) VALUES ('2');\n");
    script("[Update 1.6.4.]\nlast_step_nr=0\n");
    EXPECT_EQ(run({"resume"}), 2);
    EXPECT_NE(out.find("STATUS=ERROR MSG=resume refused: the update script " + ro + "skel/rv_db_update.ini changed"),
              npos) << out;
}

}  // namespace
