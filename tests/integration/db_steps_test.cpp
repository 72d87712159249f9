// A table's way through an update against a real server: dump through the
// database client, schema change by sql steps, change of the image, import
// through the loader, export through the export tool; and the dumps and
// imports that must fail loudly instead of loading wrong data.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/pgcluster.hpp"
#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;
using rvtest::pg_query;

const std::string kTool = rvtest::bin("rv_db_update");

class DbSteps : public ::testing::Test {
protected:
    void SetUp() override {
        rvtest::pg_server();
        box.make_installation();
        rvtest::point_at_server(box);
        fs::create_symlink(rvtest::bin("rv_db"), box.dir("gv_ro_bin") + "rv_db");
        fs::create_symlink(rvtest::bin("oaisql"), box.dir("gv_ro_db") + "oaisql");
        rvtest::write_file(box.dir("gv_rw_glbv") + "gv_prot.rgv", box.path("protocol.log"));
        work = box.dir("gv_rw_work");
        tmp = box.dir("gv_rw_tmp");
        rvtest::pg_recreate_db("ravik_db");
        pg_query("ravik_db",
                 "create table media (id int primary key, label text, size_mb int, note text, obsolete text);"
                 "insert into media values (1, ' MON-0001 ', 400000, NULL, 'x'),"
                 " (2, 'O''Brien weekly', NULL, 'Bänder = tapes', NULL), (3, 'a=b,c', 7, '', 'y');"
                 "create table empty (id int)");
    }

    rvtest::RunResult update(const std::string& steps) {
        rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini", "[Update 1.6.4.]\n" + steps +
                                                                           "[1.6.4.media]\nADD_COLUMNS=pool\n"
                                                                           "ADD_VALUES='daily'\nDEL_COLUMNS=obsolete\n");
        return rvtest::run({kTool, "update", "1.6.3.20", "1.6.4.71"}, {{"PGPORT", ""}});
    }

    static std::string steps_of(const rvtest::RunResult& r) {
        const auto at = r.out.find("step=1 ");
        return at == std::string::npos ? r.out : r.out.substr(at);
    }

    rvtest::Sandbox box;
    std::string work;
    std::string tmp;
};

TEST_F(DbSteps, DumpChangeImportCarriesEveryRow) {
    const auto r = update(
        "last_step_nr=7\n"
        "step_1=dump ravik_db media,empty,\n"
        "step_2=sql ravik_db delete from media\n"
        "step_3=sql ravik_db alter table media add column pool varchar(20)\n"
        "step_4=sql ravik_db alter table media drop column obsolete\n"
        "step_5=change media\n"
        "step_6=import ravik_db media\n"
        "step_7=export ravik_db media\n");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(steps_of(r),
              "step=1 db=ravik_db dump=media,empty,\n"
              "select 3 rows from media\n"
              "select 0 rows from empty\n"
              "step=2 db=ravik_db sql=delete from media\n"
              "delete from media\n"
              "step=3 db=ravik_db sql=alter table media add column pool varchar(20)\n"
              "alter table media add column pool varchar(20)\n"
              "step=4 db=ravik_db sql=alter table media drop column obsolete\n"
              "alter table media drop column obsolete\n"
              "step=5 change table=media\n"
              "change table media\n"
              "db_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
              "step=6 db=ravik_db import=media\n"
              "load values into table media\n"
              "oaisql: 3 statements, 3 succeeded, 0 failed\n"
              "import media returned exit state 0 with 0 errors\n"
              "step=7 db=ravik_db export=media\n"
              "export media returned exit state 0\n");

    // Values come back trimmed, as the image carries them; NULLs, quotes,
    // '=', ',' and unicode exactly.
    const rvtest::PgRows expected = {
        {"1", "MON-0001", "400000", std::nullopt, "daily"},
        {"2", "O'Brien weekly", std::nullopt, "Bänder = tapes", "daily"},
        {"3", "a=b,c", "7", "", "daily"},
    };
    EXPECT_EQ(pg_query("ravik_db", "select id, label, size_mb, note, pool from media order by id"), expected);
    // The empty table left no image; the client's files are gone after success.
    EXPECT_FALSE(fs::exists(work + "db_empty.tmp"));
    EXPECT_FALSE(fs::exists(tmp + "media.sqo"));
    EXPECT_FALSE(fs::exists(tmp + "media.sqi"));
    // The export file loads as the same rows.
    const std::string exported = rvtest::read_file(work + "db_media.tmp");
    EXPECT_NE(exported.find("'O''Brien weekly'"), std::string::npos) << exported;
    EXPECT_NE(exported.find("\n-- 3 rows found \n"), std::string::npos) << exported;
}

TEST_F(DbSteps, DumpsThatCannotBeFaithfulFail) {
    pg_query("ravik_db", "create table piped (id int, note text);"
                         "insert into piped values (1, 'a|b');"
                         "create table broken (id int, note text);"
                         "insert into broken values (1, E'two\\nlines')");
    rvtest::write_file(work + "db_piped.tmp", "|id=9|note=stale|\n");
    const auto r = update("last_step_nr=3\nstep_1=dump ravik_db nosuch,media,\nstep_2=dump ravik_db piped\n"
                          "step_3=dump ravik_db broken\n");
    EXPECT_EQ(r.status, 0) << r.err;
    // The client's error output reaches the console, not its answer file.
    EXPECT_EQ(steps_of(r),
              "step=1 db=ravik_db dump=nosuch,media,\n"
              "ERROR:  relation \"nosuch\" does not exist\n"
              "LINE 1: select distinct * from nosuch\n"
              "                               ^\n"
              "got error from nosuch select statement\n"
              "step=2 db=ravik_db dump=piped\n"
              "got error from piped select statement\n"
              "step=3 db=ravik_db dump=broken\n"
              "got error from broken select statement\n");
    // A failed select keeps the client's files; the list stops at it.
    EXPECT_EQ(rvtest::read_file(tmp + "nosuch.sqi"), "select distinct * from nosuch\n");
    EXPECT_EQ(rvtest::read_file(tmp + "nosuch.sqo"), "select distinct * from nosuch\n");
    EXPECT_FALSE(fs::exists(work + "db_media.tmp"));
    // No image, not even an older one, is left for an import to load.
    EXPECT_FALSE(fs::exists(work + "db_piped.tmp"));
    EXPECT_FALSE(fs::exists(work + "db_broken.tmp"));
    const std::string protocol = rvtest::read_file(box.path("protocol.log"));
    EXPECT_NE(protocol.find("select distinct * from nosuch with unexpected result: didn't find expected strings in "
                            "database answer; please examine file " + tmp + "nosuch.sqo."),
              std::string::npos)
        << protocol;
    EXPECT_NE(protocol.find("select distinct * from piped with unexpected result: iPGSQL_MAKE_DB_GET_FILE: row 1 of "
                            "piped has 3 fields for 2 columns"),
              std::string::npos)
        << protocol;
}

TEST_F(DbSteps, ImportCountsFailingStatements) {
    rvtest::write_file(work + "db_media.tmp",
                       "connect ravik_db\n"
                       "INSERT INTO media (id,label) VALUES ('1','dup');\n"
                       "INSERT INTO media (id,label) VALUES ('4','new');\n"
                       "INSERT INTO media (id,label) VALUES ('2','dup');\n");
    const auto r = update("last_step_nr=1\nstep_1=import ravik_db media\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(steps_of(r).find("import media returned exit state 256 with 2 errors\n"), std::string::npos)
        << r.out;
    EXPECT_EQ(pg_query("ravik_db", "select count(*) from media"), (rvtest::PgRows{{"4"}}));
}

}  // namespace
