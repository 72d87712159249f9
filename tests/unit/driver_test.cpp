// The update script driver over the fake runner: which steps run, in which
// order, with which command lines and console lines; nested sections,
// conditions, missing keys, skip, exit, the nesting limit; and a dump,
// change, import and export chain whose children only pretend.
#include "update/driver.hpp"

#include <gtest/gtest.h>

#include <regex>

#include "config/product.hpp"
#include "log/finish.hpp"
#include "support/fake_runner.hpp"
#include "support/product_test.hpp"

namespace {

using Lines = std::vector<std::string>;

class Driver : public rvtest::ProductTest {
  protected:
    void SetUp() override {
        ProductTest::SetUp();
        rv::pathes.version_old = "1.6.3.20";
        rv::pathes.version = "1.6.4.71";
        rv::pathes.var_work = work;
        rv::pathes.bin_db = box.dir("gv_ro_db");
        rv::pathes.bin_ravik = box.dir("gv_ro_bin");
        rv::glbvVersion = "1.6.4.";
        rv::rvdb_ini = box.path("rv_db_update.ini");
        box.set_glbv("gv_db_type", "POSTGRESQL");
    }
    void TearDown() override {
        rv::pathes = rv::x{};
        rv::rvdb_ini.clear();
        rv::glbvVersion.reset();
        ProductTest::TearDown();
    }
    // Runs section [Update 1.6.4.] of `script`; the console into `out`.
    void update(const std::string& script) {
        rvtest::write_file(rv::rvdb_ini, script);
        out = rvtest::capture(1, [] { rv::iDbUpdate("Update 1.6.4."); });
    }
    // `text` with time stamps as "<stamp>".
    static std::string stamped(const std::string& text) {
        return std::regex_replace(text, std::regex("[0-9]{14}"), "<stamp>");
    }

    rvtest::FakeRunner runner;
    std::string work = box.dir("gv_rw_work");
    std::string out;
};

TEST_F(Driver, StepsConditionsSectionsAndTheirEnds) {
    update(R"([Update 1.6.4.]
last_step_nr=11
step_1=[ $old_version < "1.6.4." ] && cmd echo from $old_version to $new_version > gv_rw_work:v_:gv_date:.txt
step_2=[ $old_version >= "1.6.4." ] && cmd touch wrong_old
step_3=[ postgresql ] && cmd echo db
step_4=[ oracle ] && cmd touch wrong_db
step_5=update nested 1
step_6=skip
step_8=[ $new_version == "1.6.4." ] && rmdir gv_rw_work:old
step_9=[ $new_version > "1.6.4." ]&& cmd touch malformed
step_10=cmd  echo $new_version   twice
step_11=exit
step_12=cmd touch beyond_last

[update nested 1]
last_step_nr=3
step_1=cmd echo nested
step_2=exit
step_3=cmd touch after_exit
)");
    EXPECT_EQ(runner.ran.size(), 5u);
    for (std::size_t i = 0; i < runner.ran.size(); ++i) {
        runner.ran[i] = stamped(runner.ran[i]);
    }
    EXPECT_EQ(runner.ran, (Lines{" echo from 1.6.3.20 to 1.6.4.71 > " + work + "v_<stamp>.txt", " echo db",
                                 " echo nested", "rm -rf " + work + "old", " echo 1.6.4.71 twice"}));
    EXPECT_EQ(out.substr(0, out.find("WARNING")),
              "step=1 cmd=echo from 1.6.3.20 to 1.6.4.71 > gv_rw_work:v_:gv_date:.txt\n"
              "step=3 cmd=echo db\n"
              "step=1 cmd=echo nested\n"
              "step=8 rmdir=gv_rw_work:old\n");
    // Step 7 has no key: step 6 (skip) runs again. Step 9 misses " && ".
    EXPECT_NE(out.find(">>>[ $new_version > \"1.6.4.\" ]&& cmd touch malformed<<<\n"), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with("step=10 cmd=echo 1.6.4.71   twice\n")) << out;
}

TEST_F(Driver, FatalScriptsEndTheRun) {
    const std::pair<std::string, std::string> cases[] = {
        {"[Update 1.6.4.]\nlast_step_nr=1\nstep_1=update loop\n[update loop]\nlast_step_nr=1\nstep_1=update loop\n",
         "iDbUpdate: sections nested deeper than 64, section [update loop] not run (does a section call itself?)"},
        {"[Update 1.6.4.]\nlast_step_nr=2\nstep_1=cmd    \nstep_2=cmd touch x\n",
         "CmdExecute: Format error: No token ' ' in ."},
    };
    for (const auto& [script, message] : cases) {
        try {
            update(script);
            ADD_FAILURE() << "ran to its end: " << script;
        } catch (const rv::Fatal& fatal) {
            EXPECT_EQ(fatal.status(), rv::RV_ERROR);
            EXPECT_EQ(fatal.what(), message);
        }
        EXPECT_EQ(runner.ran, Lines{}) << script;
    }
    // The depth is back: a section runs again after the refusal.
    update("[Update 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo again\n");
    EXPECT_EQ(runner.ran, Lines{" echo again"});
    // Without a script, section or step count nothing runs.
    update("[Update 2.0.1.]\nlast_step_nr=1\nstep_1=cmd x\n");
    EXPECT_EQ(runner.ran, Lines{" echo again"});
}

TEST_F(Driver, DumpChangeImportAndExportThroughTheirChildren) {
    const std::string sqo = box.dir("gv_rw_tmp") + "media.sqo";
    runner.on("psql -e -d ravik_db -P null=NULL -A -c \"select distinct * from media\" 2>&1 > " + sqo,
              {0, {}, [&](const std::string&) {
                   rvtest::write_file(sqo, "select distinct * from media\nid|Label\n1|a\n2|NULL\n(2 rows)\n");
               }});
    runner.on("oaisql", {1, {"Error in line 3: duplicate key (x)", "oaisql: 2 statements, 1 succeeded, 1 failed"}, {}});
    runner.on("rv_db", {2, {}, {}});
    update("[Update 1.6.4.]\nlast_step_nr=4\nstep_1=dump ravik_db media,\nstep_2=change media\n"
           "step_3=import ravik_db media\nstep_4=export ravik_db jobs\n"
           "[1.6.4.media]\nADD_COLUMNS=pool\nADD_VALUES='daily'\nDEL_COLUMNS=label\n");
    EXPECT_EQ(runner.ran, (Lines{"psql -e -d ravik_db -P null=NULL -A -c \"select distinct * from media\" 2>&1 > " + sqo,
                                 box.dir("gv_ro_db") + "oaisql -c " + work + "db_media.tmp -e 2>&1",
                                 box.dir("gv_ro_bin") + "rv_db \"select * from jobs\" -e > " + work + "db_jobs.tmp"}));
    EXPECT_EQ(rvtest::read_file(work + "db_media.tmp"),
              "connect ravik_db\n"
              "INSERT INTO media (id,pool) VALUES ('1','daily');\n"
              "INSERT INTO media (id,pool) VALUES ('2','daily');\n");
    EXPECT_EQ(out,
              "step=1 db=ravik_db dump=media,\n"
              "select 2 rows from media\n"
              "step=2 change table=media\n"
              "change table media\n"
              "db_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
              "step=3 db=ravik_db import=media\n"
              "load values into table media\n"
              "Error in line 3: duplicate key (x)\n"
              "oaisql: 2 statements, 1 succeeded, 1 failed\n"
              "import media returned exit state 256 with 1 errors\n"
              "step=4 db=ravik_db export=jobs\n"
              "export jobs returned exit state 512\n");
}

TEST_F(Driver, AFailedDumpLeavesNoImageAndTheRunGoesOn) {
    rvtest::write_file(work + "db_media.tmp", "|id=9|\n");
    runner.on("psql", {2, {}, [&](const std::string&) {
                           rvtest::write_file(box.dir("gv_rw_tmp") + "media.sqo", "psql: error: no server\n");
                       }});
    update("[Update 1.6.4.]\nlast_step_nr=2\nstep_1=dump ravik_db media\nstep_2=cmd echo next\n");
    EXPECT_FALSE(std::filesystem::exists(work + "db_media.tmp")) << "an older image must not be loaded later";
    EXPECT_EQ(runner.ran.back(), " echo next");
    EXPECT_NE(out.find("got error from media select statement\n"), std::string::npos) << out;
    EXPECT_EQ(rvtest::protocol_texts(prot).size(), 1u);
}

}  // namespace
