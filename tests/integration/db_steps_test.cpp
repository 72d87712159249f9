// Update scripts against a real server: a table dumped through the database
// client, changed by sql steps and its image, imported through the loader
// and exported through the export tool; the dumps that must fail instead of
// leaving an image; sql steps that fail or are cut short by SIGQUIT.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <regex>

#include "support/pgcluster.hpp"

namespace {

namespace fs = std::filesystem;
using rvtest::pg_query;
using rvtest::PgRows;

class DbSteps : public rvtest::DbTest {
  protected:
    void SetUp() override {
        DbTest::SetUp();
        fs::create_symlink(rvtest::bin("rv_db"), box.dir("gv_ro_bin") + "rv_db");
        fs::create_symlink(rvtest::bin("oaisql"), box.dir("gv_ro_db") + "oaisql");
        pg_query("ravik_db",
                 "create table media (id int primary key, label text, size_mb int, note text, obsolete text);"
                 "insert into media values (1, ' MON-0001 ', 400000, NULL, 'x'),"
                 " (2, 'O''Brien weekly', NULL, 'Bänder = tapes', NULL), (3, 'a=b,c', 7, '', 'y'),"
                 " (4, 'kept', 1, 'k', 'z');"
                 "create table empty (id int)");
    }
    // Writes section [Update 1.6.4.] with `steps` and the change of table
    // media; returns the command line that runs it.
    std::vector<std::string> script(const std::string& steps) {
        rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                           "[Update 1.6.4.]\n" + steps +
                               "[1.6.4.media]\nADD_COLUMNS=pool\nADD_VALUES='daily'\nDEL_COLUMNS=obsolete\n");
        return {rvtest::bin("rv_db_update"), "update", "1.6.3.20", "1.6.4.71"};
    }
    // The console from the first step on.
    static std::string steps_of(const std::string& out) {
        return out.substr(std::min(out.find("step=1 "), out.size()));
    }

    std::string work = box.dir("gv_rw_work");
    std::string tmp = box.dir("gv_rw_tmp");
};

TEST_F(DbSteps, DumpChangeImportCarriesEveryRowOnce) {
    // The operator's own client settings (here: no footer, which the dump needs) do not reach the dump.
    rvtest::write_file(box.path("home/.psqlrc"), "\\pset footer off\n");
    rvtest::Env env = rvtest::kToolEnv;
    env["HOME"] = box.path("home");
    const auto r = rvtest::run(script("last_step_nr=7\n"
                                      "step_1=dump ravik_db media,empty,\n"
                                      "step_2=sql ravik_db delete from media where id < 4\n"
                                      "step_3=sql ravik_db alter table media add pool varchar(20), drop obsolete\n"
                                      "step_4=change media\n"
                                      "step_5=import ravik_db media\n"
                                      "step_6=export ravik_db media\n"
                                      "step_7=sql ravik_db drop table nosuch\n"),
                               env);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    // The image lists the rows in the server's order, which fixes no line number.
    EXPECT_EQ(std::regex_replace(steps_of(r.out), std::regex("line [0-9]+:"), "line N:"),
              "step=1 db=ravik_db dump=media,empty,\n"
              "select 4 rows from media\n"
              "select 0 rows from empty\n"
              "step=2 db=ravik_db sql=delete from media where id < 4\n"
              "delete from media where id < 4\n"
              "step=3 db=ravik_db sql=alter table media add pool varchar(20), drop obsolete\n"
              "alter table media add pool varchar(20), drop obsolete\n"
              "step=4 change table=media\n"
              "change table media\n"
              "db_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
              "step=5 db=ravik_db import=media\n"
              "load values into table media\n"
              "Error in line N: duplicate key value violates unique constraint \"media_pkey\" (Key (id)=(4) "
              "already exists.) | statement: INSERT INTO media (id,label,size_mb,note,pool) VALUES "
              "('4','kept','1','k','daily');\n"
              "oaisql: 4 statements, 3 succeeded, 1 failed\n"
              "import media returned exit state 256 with 1 errors\n"
              "step=6 db=ravik_db export=media\n"
              "export media returned exit state 0\n"
              "step=7 db=ravik_db sql=drop table nosuch\n"
              "drop table nosuch\n"
              " got error from statement: ERROR: table \"nosuch\" does not exist\n");
    // The failures, in order, closing standard error; the run still ends with 0.
    EXPECT_TRUE(r.err.ends_with("rv_db_update: 2 steps failed:\n"
                                "  [Update 1.6.4.] step 5 import media: 1 of 4 statements failed\n"
                                "  [Update 1.6.4.] step 7 sql drop table nosuch: ERROR: table \"nosuch\" does not "
                                "exist\n")) << r.err;

    // Values come back trimmed, as the image carries them; NULLs, quotes,
    // '=', ',' and unicode exactly; the row that stayed is not doubled.
    const PgRows expected = {
        {"1", "MON-0001", "400000", std::nullopt, "daily"},
        {"2", "O'Brien weekly", std::nullopt, "Bänder = tapes", "daily"},
        {"3", "a=b,c", "7", "", "daily"},
        {"4", "kept", "1", "k", std::nullopt},
    };
    EXPECT_EQ(pg_query("ravik_db", "select id, label, size_mb, note, pool from media order by id"), expected);
    // The empty table left no image; the client's files are gone after success.
    EXPECT_FALSE(fs::exists(work + "db_empty.tmp"));
    EXPECT_FALSE(fs::exists(tmp + "media.sqo"));
    EXPECT_FALSE(fs::exists(tmp + "media.sqi"));
    EXPECT_FALSE(fs::exists(tmp + "media.psqlrc"));
    const std::string exported = rvtest::read_file(work + "db_media.tmp");
    EXPECT_NE(exported.find("'O''Brien weekly'"), std::string::npos) << exported;
    EXPECT_TRUE(exported.ends_with("\n-- 4 rows found \n")) << exported;
}

// A keyed table's image lists its rows in key order, however they were inserted (the dump has the server sort
// to find distinct rows), and the operator's own server options still reach the client.
TEST_F(DbSteps, TheImageOfAKeyedTableComesInKeyOrder) {
    pg_query("ravik_db", "create schema other; create table other.keyed (id int primary key, label text);"
                         "insert into other.keyed select g * 7919 % 3001, 'r' from generate_series(1, 3000) g;"
                         "analyze other.keyed");
    rvtest::Env env = rvtest::kToolEnv;
    env["PGOPTIONS"] = "-c search_path=other";  // the only way to the table
    const auto r = rvtest::run(script("last_step_nr=1\nstep_1=dump ravik_db keyed\n"), env);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    std::vector<int> ids;
    std::istringstream image(rvtest::read_file(work + "db_keyed.tmp"));
    for (std::string line; std::getline(image, line);) ids.push_back(std::stoi(line.substr(4)));
    EXPECT_EQ(ids.size(), 3000u);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
}

// A table whose values the server cannot compare (json, point) is dumped without distinct, said on the console,
// and comes back whole, a duplicate row included.
TEST_F(DbSteps, ValuesWithoutEqualityAreDumpedWithoutDistinct) {
    pg_query("ravik_db", "create table shapes (id int, doc json, at point);"
                         "insert into shapes values (1, '{\"a\": [1, 2]}', '(1,2)'), (2, NULL, '(0.5,-3)'),"
                         " (2, NULL, '(0.5,-3)')");
    const auto r = rvtest::run(script("last_step_nr=4\nstep_1=dump ravik_db shapes\nstep_2=sql ravik_db delete from "
                                      "shapes\nstep_3=change shapes\nstep_4=import ravik_db shapes\n"),
                               rvtest::kToolEnv);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("shapes holds values the server cannot compare: dumped without distinct\n"
                         "select 3 rows from shapes\n"), std::string::npos) << r.out;
    EXPECT_EQ(pg_query("ravik_db", "select id, doc::text, at::text from shapes order by id"),
              (PgRows{{"1", "{\"a\": [1, 2]}", "(1,2)"}, {"2", std::nullopt, "(0.5,-3)"},
                      {"2", std::nullopt, "(0.5,-3)"}}));
}

TEST_F(DbSteps, DumpsThatCannotBeFaithfulFailAndLeaveNoImage) {
    pg_query("ravik_db", "create table piped (id int, note text); insert into piped values (1, 'a|b');"
                         "create table broken (id int, note text); insert into broken values (1, E'two\\nlines')");
    rvtest::write_file(work + "db_piped.tmp", "|id=9|note=stale|\n");
    // A table that does not exist fails its dump and the run goes on; one
    // that exists ends the run when its dump fails.
    const std::string tail = " (a value holding '|' or a line break cannot be dumped): ";
    const std::pair<std::string, std::string> runs[] = {
        {"last_step_nr=3\nstep_1=dump ravik_db nosuch,media,\nstep_2=dump ravik_db piped\nstep_3=cmd touch x\n",
         "step=1 db=ravik_db dump=nosuch,media,\n"
         "ERROR:  relation \"nosuch\" does not exist\n"
         // The client fetches through a cursor: the select is the second line of what it sends.
         "LINE 2: select distinct * from nosuch\n"
         "                               ^\n"
         "got error from nosuch select statement\n"
         "step=2 db=ravik_db dump=piped\n"
         "got error from piped select statement\n"
         "STATUS=ERROR MSG=step 2 (dump ravik_db piped) failed: dump of piped failed: iPGSQL_MAKE_DB_GET_FILE: row 1 "
         "of piped has 3 fields for 2 columns" + tail + "1|a|b; later steps not run\n"},
        {"last_step_nr=1\nstep_1=dump ravik_db broken\n",
         "step=1 db=ravik_db dump=broken\ngot error from broken select statement\n"
         "STATUS=ERROR MSG=step 1 (dump ravik_db broken) failed: dump of broken failed: iPGSQL_MAKE_DB_GET_FILE: row 2 "
         "of broken has 1 fields for 2 columns" + tail + "lines; later steps not run\n"},
    };
    for (const auto& [steps, console] : runs) {
        fs::remove(work + "rv_db_update.journal");  // the first run stays unfinished
        const auto r = rvtest::run(script(steps), rvtest::kToolEnv);
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_EQ(steps_of(r.out), console);  // the client's error output reaches the console
    }
    EXPECT_FALSE(fs::exists(work + "x")) << "a step after a failed dump of an existing table ran";
    // A failed select keeps the client's files; the list stops at it.
    EXPECT_EQ(rvtest::read_file(tmp + "nosuch.sqi"), "select distinct * from nosuch\n");
    EXPECT_EQ(rvtest::read_file(tmp + "nosuch.sqo"), "select distinct * from nosuch\n");
    // No image, not even an older one, is left for an import to load.
    for (const char* table : {"media", "piped", "broken"}) {
        EXPECT_FALSE(fs::exists(work + "db_" + table + ".tmp")) << table;
    }
    const std::string row = " with unexpected result: iPGSQL_MAKE_DB_GET_FILE: row ";
    EXPECT_EQ(rvtest::protocol_texts(prot),
              (std::vector<std::string>{
                  "E018-DATABAS select distinct * from nosuch with unexpected result: didn't find expected strings in "
                  "database answer; please examine file " + tmp + "nosuch.sqo.",
                  "E018-DATABAS select distinct * from piped" + row + "1 of piped has 3 fields for 2 columns" + tail +
                      "1|a|b.",
                  "E018-DATABAS select distinct * from broken" + row + "2 of broken has 1 fields for 2 columns" +
                      tail + "lines."}));
}

// Steps go on after a statement that fails and after one that SIGQUIT cuts
// short; a stray quote is stored as the accent (a LATIN1 database here).
TEST_F(DbSteps, FailedAndInterruptedStatementsLetTheRunGoOn) {
    rvtest::pg_recreate_db("ravik_db", "LATIN1");
    pg_query("ravik_db", "create table steps (id int primary key, note text)");
    // The server's reason with its detail, or the SIGQUIT, on one line.
    const std::string duplicate =
        "ERROR: duplicate key value violates unique constraint \"steps_pkey\" DETAIL: Key (id)=(1) already exists.";
    const std::pair<std::string, std::string> sqls[] = {  // a statement, its reason of failure
        {"insert into steps values (1, 'one')", ""},
        {"insert into steps values (1, 'again')", duplicate},
        {"select pg_sleep(5)", "broken off by SIGQUIT"},
        {"update steps set note='it's done' where id=1", ""},
        {"INSERT INTO steps VALUES (5, NULL)", ""},
    };
    std::string steps = "last_step_nr=7\nstep_6=cmd touch gv_rw_work:done.txt\nstep_7=exit\n";
    std::string console;
    std::vector<std::string> protocol;
    for (std::size_t i = 0; i < std::size(sqls); ++i) {
        const auto& [sql, reason] = sqls[i];
        steps += "step_" + std::to_string(i + 1) + "=sql ravik_db " + sql + "\n";
        console += "step=" + std::to_string(i + 1) + " db=ravik_db sql=" + sql + "\n" + sql + "\n";
        if (!reason.empty()) {
            console += " got error from statement: " + reason + "\n";
            protocol.push_back("E018-DATABAS " + sql + " with unexpected result: " + reason + ".");
        }
    }
    const auto r = rvtest::quit_during(script(steps), "select pg_sleep(5)");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(steps_of(r.out), console + "step=6 cmd=touch gv_rw_work:done.txt\n");
    // Once through halt for the failed insert, once for the real SIGQUIT.
    const std::string& quit = rvtest::kQuitLine;
    EXPECT_NE(r.err.find("query error:  ERROR:  duplicate key value"), std::string::npos) << r.err;
    EXPECT_EQ(rvtest::protocol_texts(prot), protocol);
    EXPECT_NE(r.err.find(quit, r.err.find(quit) + 1), std::string::npos) << r.err;
    EXPECT_EQ(pg_query("ravik_db", "select id, note = 'it' || chr(180) || 's done' from steps order by id"),
              (PgRows{{"1", "t"}, {"5", std::nullopt}}));
    EXPECT_TRUE(fs::exists(work + "done.txt"));
}

}  // namespace
