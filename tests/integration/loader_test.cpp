// The loader oaisql against a real server: both script forms, exact values,
// failing statements isolated and everything else committed once, file
// order, schema changes in the middle of a script, the exit statuses, what
// it acknowledged before a crash of the server, and the continuation of an
// interrupted load from its position file.
#include <gtest/gtest.h>

#include <algorithm>
#include <signal.h>

#include <functional>
#include <regex>
#include <set>
#include <sstream>

#include "loader/position.hpp"
#include "loader/session.hpp"
#include "support/pgcluster.hpp"

namespace {

using rvtest::pg_query;
using rvtest::PgRows;
using Lines = std::vector<std::string>;

std::string value(const std::string& sql, const std::string& db = "ravik_db") { return *pg_query(db, sql).at(0).at(0); }
// The Error lines of `out`, without their line feeds.
Lines error_lines(const std::string& out) {
    Lines lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) if (line.starts_with("Error")) lines.push_back(line);
    return lines;
}
// Exit status and standard output, to compare at once.
auto outcome(const rvtest::RunResult& r) { return std::tie(r.status, r.out); }

// Rows 1..n of the table ev; those `refused` has a negative val, which the
// check refuses. Without a key, a row committed twice shows. `split`: each
// statement over two lines, a line break in its val literal (which the
// integer ignores).
std::string ev_rows(int n, bool (*refused)(int), bool split = false) {
    std::string script;
    for (int i = 1; i <= n; ++i)
        script += "INSERT INTO ev (seq,val) VALUES ('" + std::to_string(i) + (refused(i) ? "','-1" : "','1") +
                  (split ? "\n');\n" : "');\n");
    return script;
}
// What oaisql without -e reports for the refused row `seq` of ev, on `line`.
std::string ev_refused(int seq, int line = 0) {
    const std::string n = std::to_string(seq);
    return "Error in line " + std::to_string(line > 0 ? line : seq) + ": new row for relation \"ev\" violates check "
           "constraint \"ev_val_check\" (Failing row contains (" + n + ", -1).)\n";
}

class DbLoader : public rvtest::DbTest {
  protected:
    void SetUp() override {
        DbTest::SetUp();
        pg_query("ravik_db", "create table media (id int primary key, label text, pool text, size bigint, "
                             "expires text, note text); create table ev (seq int, val int check (val >= 0))");
    }
    // Runs oaisql on `script` with `args`; it finds the server in the environment.
    rvtest::RunResult load(const std::string& script, Lines args = {"-e"}) {
        rvtest::write_file(file, script);
        args.insert(args.begin(), {rvtest::bin("oaisql"), "-c", file});
        return rvtest::run(args);
    }
    std::string file = box.path("work/script.tmp");
};

TEST_F(DbLoader, BothScriptFormsLoadEveryValueExactly) {
    // As the table change step writes it (connect first), then as the export
    // tool writes it (the count last).
    const std::string insert = "INSERT INTO media (id,label,pool,size,expires,note) VALUES ";
    auto r = load("connect ravik_db\n" + insert + "('1','A''01','Default','100','2026-01-31 12:00:00',NULL);\n" +
                  insert + "('2','a,b (c)','P;1','0','','it''s ''quoted'', (x,y)');\n" + insert +
                  "('3','Grüße 日本 ✓','NULL',NULL,'x','back\\slash');\n" + insert +
                  "('4','L4','P',NULL,NULL,'');\n" + insert +
                  "('5',' padded ','P','5','2027-02-28','a''b');\n\n-- 5 rows found \n");
    EXPECT_EQ(outcome(r), std::make_tuple(0, "oaisql: 5 statements, 5 succeeded, 0 failed\n")) << r.err;
    EXPECT_EQ(pg_query("ravik_db", "select label, pool, size::text, expires, note from media order by id"),
              (PgRows{{"A'01", "Default", "100", "2026-01-31 12:00:00", std::nullopt},
                      {"a,b (c)", "P;1", "0", "", "it's 'quoted', (x,y)"},
                      {"Grüße 日本 ✓", "NULL", std::nullopt, "x", "back\\slash"},
                      {"L4", "P", std::nullopt, std::nullopt, ""}, {" padded ", "P", "5", "2027-02-28", "a'b"}}));

    // A server that reads backslashes in quotes as escapes gets such a row
    // as the text it reads, like any client sending the line would.
    pg_query("ravik_db", "alter database ravik_db set standard_conforming_strings = off");
    r = load("INSERT INTO media (id,label,note) VALUES ('6','L6','a\\tb');\n"
             "INSERT INTO media (id,label,note) VALUES ('7','L7','plain');\n");
    EXPECT_EQ(outcome(r), std::make_tuple(0, "oaisql: 2 statements, 2 succeeded, 0 failed\n")) << r.err;
    EXPECT_EQ(value("select string_agg(note, '|' order by id) from media where id >= 6"), "a\tb|plain");
}

TEST_F(DbLoader, AStatementOverSeveralLinesLoadsItsValuesExactlyAndIsKnownByItsFirstLine) {
    pg_query("ravik_db", "create table ml (id int primary key, t text, j json, a text[])");
    // Parameters, a literal batch statement, two statements run alone; a
    // failing one; a literal the script never closes, the last line.
    const std::string script = "connect ravik_db\nINSERT INTO ml (id,t,j,a) VALUES ('1','a\nb\n\n-- c''d\r\n','{\"k\":"
        "\n \"v\"}','{\"one\ntwo\",three}');\nINSERT INTO ml (id,t) VALUES (2, 'x\ny');\nINSERT INTO ml (id,t) "
        "VALUES (3, 'p\nq'); UPDATE ml SET j = '[\n1]' WHERE id = 3;\nINSERT INTO ml (id,t) VALUES ('1','dup\nline');\n"
        "INSERT INTO ml (id,t) VALUES ('4','never\nclosed);\n";
    const std::string out = "Error in line 14: duplicate key value violates unique constraint \"ml_pkey\" (Key (id)=(1) "
        "already exists.) | statement: INSERT INTO ml (id,t) VALUES ('1','dup line');\nError in line 16: the script "
        "ends inside a quoted literal of this statement | statement: INSERT INTO ml (id,t) VALUES ('4','never closed);\n"
        "oaisql: 5 statements, 3 succeeded, 2 failed\n";
    for (Lines args : {Lines{}, Lines{"-b", "1", "-g", "1", "-p", box.path("work/ml.pos")}}) {
        pg_query("ravik_db", "truncate ml");
        args.push_back("-e");
        EXPECT_EQ(outcome(load(script, args)), std::make_tuple(1, out)) << ::testing::PrintToString(args);
        EXPECT_EQ(pg_query("ravik_db", "select id::text, t, j::text, a[1], a[2] from ml order by id"),
                  (PgRows{{"1", "a\nb\n\n-- c'd\r\n", "{\"k\":\n \"v\"}", "one\ntwo", "three"},
                          {"2", "x\ny", std::nullopt, std::nullopt, std::nullopt},
                          {"3", "p\nq", "[\n1]", std::nullopt, std::nullopt}}));
    }
    const auto recorded = rv::read_load_position(box.path("work/ml.pos"));
    EXPECT_TRUE(recorded && recorded->ended && recorded->durable == 16 && recorded->last == 17);
}

TEST_F(DbLoader, FailingStatementsAreReportedAloneAndTheRestCommittedOnce) {
    // Duplicates at the start and end of a commit group, in a row, and a
    // whole group of them; values holding the word Error.
    const std::set<int> dups{1, 5, 7, 8, 9, 10, 11, 12, 20, 25, 26, 40, 60, 61, 62, 63};
    std::string script = "connect ravik_db\n", errors;
    for (int i = 0, id = 0; i < 64; ++i) {
        const std::string insert = "INSERT INTO media (id,label,note) VALUES ('" +
                                   std::to_string(dups.contains(i) ? 1 : ++id) + "','L" + std::to_string(i) +
                                   "','Error " + std::to_string(i) + "');";
        script += insert + "\n";  // the line number counts the connect line
        errors += !dups.contains(i) ? "" : "Error in line " + std::to_string(i + 2) + ": duplicate key value "
                  "violates unique constraint \"media_pkey\" (Key (id)=(1) already exists.) | statement: " +
                  insert + "\n";
    }
    // Statements per commit and rows per INSERT: one by one, small groups
    // in small commits, the defaults (a group of 50 rows, then single rows).
    // Recording the position changes none of it.
    const std::string pos = box.path("work/db_media.pos");
    const Lines settings[] = {{"-b", "1", "-g", "1"}, {"-b", "4", "-g", "3", "-p", pos}, {"-b", "9", "-g", "2"},
                              {"-b", "1000", "-g", "1"}, {}, {"-p", pos}};
    for (Lines args : settings) {
        args.push_back("-e");
        pg_query("ravik_db", "truncate media");
        const auto r = load(script, args);
        EXPECT_EQ(outcome(r), std::make_tuple(1, errors + "oaisql: 64 statements, 48 succeeded, 16 failed\n"))
            << ::testing::PrintToString(args);
        EXPECT_EQ(value("select count(*) || ' ' || string_agg(label, ',' order by id) filter (where id <= 5) "
                        "from media"), "48 L0,L2,L3,L4,L6");
    }

    std::string refused;  // without -e only the message
    const auto fails = [](int i) { return i % 37 == 0 || i == 299; };
    for (int i = 1; i <= 300; ++i) refused += fails(i) ? ev_refused(i) : "";
    const auto r = load(ev_rows(300, fails) + "INSERT INTO missing_table (seq) VALUES ('1');\n", {"-b", "50"});
    EXPECT_EQ(outcome(r), std::make_tuple(1, refused + "Error in line 301: relation \"missing_table\" does not "
                                                       "exist\noaisql: 301 statements, 291 succeeded, 10 failed\n"));
    EXPECT_EQ(value("select count(*) || ' ' || count(distinct seq) || ' ' || sum(seq) from ev"),
              "291 291 " + std::to_string(300 * 301 / 2 - 37 * (1 + 2 + 3 + 4 + 5 + 6 + 7 + 8) - 299));

    // Failures scattered over a long COPY run, alone and in a burst of 39,
    // while its attempts shrink and grow: the Error lines and rows of the
    // statements.
    std::string many;
    int failing = 0;
    for (int i = 1, id = 0; i <= 6000; ++i) {
        const bool dup = id > 0 && ((static_cast<unsigned>(i) * 2654435761u) % 97 == 0 || (i > 3000 && i < 3040));
        failing += dup ? 1 : 0;
        many += "INSERT INTO media (id,label) VALUES ('" + std::to_string(dup ? id : ++id) + "','L" +
                std::to_string(i) + "');\n";
    }
    std::optional<std::tuple<int, std::string, std::string>> by_statements;
    for (const Lines& args : {Lines{"-s"}, Lines{}, Lines{"-b", "7"}}) {
        pg_query("ravik_db", "truncate media");
        const auto run = load(many, args);
        const auto got = std::make_tuple(run.status, run.out, value("select count(*) || ' ' || md5(string_agg(id || "
                                                                 "label, ',' order by id)) from media"));
        if (!by_statements) by_statements = got;
        EXPECT_EQ(got, *by_statements) << ::testing::PrintToString(args);
    }
    EXPECT_TRUE(std::get<1>(*by_statements).ends_with(std::to_string(6000 - failing) + " succeeded, " +
                                                      std::to_string(failing) + " failed\n")) << failing;
}

TEST_F(DbLoader, CopyLoadsWhatTheStatementsWouldAndLeavesTablesItWouldChangeToThem) {
    // Each row notes which way it came: through COPY, or its own INSERT.
    pg_query("ravik_db",
             "create table cp (id int primary key, t text); create table way (id int, copy bool, t text);"
             "create function noted() returns trigger language plpgsql as $$ begin insert into way values "
             "(new.id, current_query() like '%COPY%', new.t); new.t := new.t || '+'; return new; end $$;"
             "create trigger noted before insert on cp for each row execute function noted();"
             "create table st (id int); create table fired (n int); create function count_fired() returns trigger "
             "language plpgsql as $$ begin insert into fired values (0); return null; end $$;"
             "create trigger per_statement after insert on st for each statement execute function count_fired();"
             "create table ru (id int); create table also (id int);"
             "create rule also_there as on insert to ru do also insert into also values (new.id);"
             // COPY checks foreign keys and fires AFTER row triggers behind its last row.
             "create table sr (id int primary key, up int references sr); create table ar (id int);"
             "create function count_ar() returns trigger language plpgsql as $$ begin insert into fired "
             "select count(*) from ar; return null; end $$;"
             "create trigger per_row after insert on ar for each row execute function count_ar()");
    // Values COPY text has to escape: a backslash (before n, before N and
    // alone), a tab, line breaks in the literal, apostrophes, empty and NULL;
    // two duplicate keys in the middle of the run; 20 plain rows make it a run.
    const char* values[] = {"'back\\slash \\n \\N'", "'\\N'", "'tab\there'", "'two\nlines\r\n'", "'it''s'", "''",
                            "NULL", "'\\'"};
    std::string script, errors;
    const auto plain_rows = [&script](const char* table) {
        for (int i = 1; i <= 20; ++i)
            script += "INSERT INTO " + std::string(table) + " (id) VALUES ('" + std::to_string(i) + "');\n";
    };
    plain_rows("ru");
    for (int i = 1; i <= 28; ++i) {
        const std::string t = i <= 8 ? values[i - 1] : "'row " + std::to_string(i) + "'";
        script += "INSERT INTO cp (id,t) VALUES ('" + std::to_string(i == 15 ? 3 : i == 17 ? 5 : i) + "'," + t + ");\n";
    }
    plain_rows("st");
    plain_rows("ar");
    for (int i = 1; i <= 20; ++i)  // row 10 refers to the row behind it
        script += "INSERT INTO sr (id,up) VALUES ('" + std::to_string(i) + "'," +
                  (i == 1 ? "NULL" : i == 10 ? "'11'" : "'1'") + ");\n";
    const int line_15 = 20 + 15 + 2;  // behind the rows of ru and two line breaks of row 4
    const auto dup = [](int line, int id) {
        return "Error in line " + std::to_string(line) + ": duplicate key value violates unique constraint "
               "\"cp_pkey\" (Key (id)=(" + std::to_string(id) + ") already exists.)\n";
    };
    errors = dup(line_15, 3) + dup(line_15 + 2, 5) + "Error in line " + std::to_string(line_15 + 13 + 40 + 10) +
             ": insert or update on table \"sr\" violates foreign key constraint \"sr_up_fkey\" (Key (up)=(11) is "
             "not present in table \"sr\".)\n";
    const auto loaded = [&] { return pg_query("ravik_db", "select id::text, t from cp order by cp.id"); };
    std::optional<PgRows> by_statements;
    // One row an INSERT statement, so that the statement trigger fires for each.
    // -b 20: the run of cp begins in the second unit and goes on in a third
    // that ends with rows of another table.
    for (const Lines& args : {Lines{"-s", "-g", "1"}, Lines{"-g", "1"}, Lines{"-g", "1", "-p", box.path("work/cp.pos")},
                              Lines{"-g", "1", "-b", "20"}}) {
        pg_query("ravik_db", "truncate cp, way, st, fired, ru, also, sr, ar");
        const auto r = load(script, args);
        EXPECT_EQ(outcome(r), std::make_tuple(1, errors + "oaisql: 108 statements, 105 succeeded, 3 failed\n"))
            << r.err << ::testing::PrintToString(args);
        // -s: every row its statement; else every row of cp through COPY but
        // the failing ones; st, ru, ar and sr always by statements.
        const bool copy = args.front() != "-s";
        EXPECT_EQ(value("select count(*) filter (where copy) || ' ' || count(*) filter (where not copy) from way"),
                  copy ? "26 0" : "0 26") << args.front();
        EXPECT_EQ(value("select (select count(*) from fired) || ' ' || (select count(*) from also) || ' ' || "
                        "(select count(*) from st) || ' ' || (select count(*) from sr)"), "40 20 20 19");
        EXPECT_EQ(value("select sum(n) from fired"), "210");  // ar held 1, 2, ... 20 rows
        if (!by_statements) by_statements = loaded();
        EXPECT_EQ(loaded(), *by_statements);
    }
    EXPECT_EQ(by_statements->at(0), (std::vector<std::optional<std::string>>{"1", "back\\slash \\n \\N+"}));
    EXPECT_EQ(by_statements->at(1).at(1), "\\N+");
    EXPECT_EQ(by_statements->at(3).at(1), "two\nlines\r\n+");
    EXPECT_EQ(by_statements->at(6).at(1), std::nullopt);
    EXPECT_EQ(by_statements->at(7).at(1), "\\+");
}

TEST_F(DbLoader, ATableChangedBeforeARunTakesItsLockIsSeenByTheRun) {
    // The loader asks about a table before its first run. Another session
    // holds the table and changes it while the run waits for it. A statement
    // trigger added then must fire once a row, as for statements, not once
    // for a COPY of all of them; a table dropped then fails every row alone.
    pg_query("ravik_db", "create table lt (id int); create table lt_fired (n bigint); create function lt_count() "
                         "returns trigger language plpgsql as $$ begin insert into lt_fired select count(*) from "
                         "new_rows; return null; end $$");
    std::string script, gone;
    for (int i = 1; i <= 40; ++i) {
        script += "INSERT INTO lt (id) VALUES ('" + std::to_string(i) + "');\n";
        gone += "Error in line " + std::to_string(i) + ": relation \"lt\" does not exist\n";
    }
    rvtest::write_file(file, script);
    const rv::Connection other(PQconnectdb("dbname=ravik_db"));
    const auto in_other = [&other](const std::string& sql) {
        const rv::Result result(PQexec(other.get(), sql.c_str()));
        return PQresultStatus(result.get()) == PGRES_COMMAND_OK;
    };
    const std::pair<std::string, std::string> changes[] = {
        {"create trigger lt_per_statement after insert on lt referencing new table as new_rows for each statement "
         "execute function lt_count()", "oaisql: 40 statements, 40 succeeded, 0 failed\n"},
        {"drop table lt", gone + "oaisql: 40 statements, 0 succeeded, 40 failed\n"},
    };
    for (const auto& [change, out] : changes) {
        ASSERT_TRUE(in_other("begin; lock table lt in share mode")) << PQerrorMessage(other.get());
        rvtest::Background loader({rvtest::bin("oaisql"), "-c", file, "-g", "1"});
        ASSERT_TRUE(rvtest::eventually([] {
            return value("select count(*) from pg_locks where relation = 'lt'::regclass and not granted") != "0";
        }));
        ASSERT_TRUE(in_other(change + "; commit")) << PQerrorMessage(other.get());
        const auto r = loader.wait();
        EXPECT_EQ(outcome(r), std::make_tuple(out.starts_with("Error") ? 1 : 0, out)) << change << r.err;
    }
    EXPECT_EQ(value("select count(*) || ' ' || sum(n) from lt_fired"), "40 40");
}

TEST_F(DbLoader, OneHugeCommitGroupNeitherSideWaitsForTheOther) {
    // 60,000 single-row statements in one transaction: the answers fill the
    // socket long before the last statement is written.
    std::string script;
    for (int i = 1; i <= 60000; ++i)
        script += "INSERT INTO media (id,note) VALUES ('" + std::to_string(i) + "','" + std::string(200, 'n') + "');\n";
    const auto r = load(script, {"-b", "100000", "-g", "1"});
    EXPECT_EQ(outcome(r), std::make_tuple(0, "oaisql: 60000 statements, 60000 succeeded, 0 failed\n")) << r.err;
    EXPECT_EQ(value("select count(*) || ' ' || sum(id) from media"), "60000 1800030000");
}

TEST_F(DbLoader, StatementsAndSchemaChangesTakeEffectInFileOrder) {
    const auto r = load(
        "INSERT INTO media (id,label) VALUES ('1','a');\nINSERT INTO media (id,label) VALUES ('2','b');\n"
        "UPDATE media SET label = label || '+' WHERE id <= 2;\nINSERT INTO media (id,label,size) VALUES (3, 'c', 30);\n"
        "DELETE FROM media WHERE id = 1;\nINSERT INTO media (id,label) VALUES ('1','again');\n"
        "UPDATE media SET size = (SELECT count(*) FROM media);\nINSERT INTO media (id,label) VALUES ('3','dup');\n"
        "ALTER TABLE media ALTER COLUMN size TYPE text;\nINSERT INTO media (id,size) VALUES ('4','big');\n"
        "ALTER TABLE media ADD COLUMN slot int; UPDATE media SET slot = id * 10;\n"
        "INSERT INTO media (id,slot) VALUES ('5','50');\n"
        "DROP TABLE IF EXISTS pool; CREATE TABLE pool (name text);\nINSERT INTO pool (name) VALUES ('p1');\n"
        "ALTER TABLE media DROP COLUMN slot;\nINSERT INTO media (id,slot) VALUES ('6','60');\n"
        "SELECT no_such_function();\nUPDATE media SET note = 'last' WHERE id = 3;\n", {"-e", "-p", box.path("work/p")});
    EXPECT_EQ(outcome(r), std::make_tuple(1,
        "Error in line 8: duplicate key value violates unique constraint \"media_pkey\" (Key (id)=(3) already "
        "exists.) | statement: INSERT INTO media (id,label) VALUES ('3','dup');\nError in line 16: column \"slot\" of "
        "relation \"media\" does not exist | statement: INSERT INTO media (id,slot) VALUES ('6','60');\nError in "
        "line 17: function no_such_function() does not exist | statement: SELECT no_such_function();\n"
        "oaisql: 18 statements, 15 succeeded, 3 failed\n")) << r.err;
    EXPECT_EQ(value("select string_agg(id || '=' || coalesce(label, '-') || '/' || coalesce(size, '-') || '/' || "
                    "coalesce(note, '-'), ',' order by id) from media") + " " + value("select name from pool"),
              "1=again/3/-,2=b+/3/-,3=c/3/last,4=-/big/-,5=-/-/- p1");
}

TEST_F(DbLoader, UnreadableScriptsBadCommandLinesAndFailedConnectsStopWithStatus2) {
    const std::string missing = box.path("work/no_such.tmp"), row = "INSERT INTO media (id) VALUES ('1');\n";
    const std::string stopped = "oaisql: 0 statements, 0 succeeded, 0 failed, stopped\n";
    const std::string usage =
        "usage: oaisql -c FILE [-e] [-b STATEMENTS_PER_COMMIT] [-g ROWS_PER_INSERT] [-p POSFILE [-r]] [-q] [-s]\n";
    const std::string torn = box.path("work/torn.pos"), folder = box.path("work"), ended = box.path("work/e.pos");
    rvtest::write_file(file, row);
    rvtest::write_file(torn, "oaisql-position 1\ncommit 1 700\n");
    rvtest::write_file(ended, "oaisql-position 1\ndurable 1\nend 1\n");
    // The reason of a failed connect is the client library's.
    std::vector<std::tuple<Lines, rvtest::Env, std::string, std::string>> cases{
        {{"-c", missing, "-e"}, {}, stopped, "oaisql: cannot read " + missing + ": No such file or directory\n"},
        {{"-c", file}, {{"PGHOST", box.path("no_socket_here")}}, stopped,
         "oaisql: cannot connect to database ravik_db: "},
        {{"-e"}, {}, "", usage}, {{"-c", missing, "-x"}, {}, "", usage},
        // A position file to continue from that is none: nothing is loaded.
        {{"-c", file, "-p", torn, "-r"}, {}, stopped, "oaisql: " + torn + " is no position file of oaisql: line 2 "},
        {{"-c", file, "-p", folder, "-r"}, {}, stopped, "oaisql: cannot read " + folder + ": Is a directory\n"},
        // A run begun, though it stopped at once: the one before is not to be continued.
        {{"-c", missing, "-p", ended}, {}, stopped, "oaisql: cannot read " + missing},
        {{"-c", file, "-r"}, {}, "", usage}, {{"-c", file, "-p"}, {}, "", usage}, {{"-c", file, "-p", ""}, {}, "", usage},
        // Options without their values, and two scripts.
        {{"-c"}, {}, "", usage}, {{"-c", file, "-b"}, {}, "", usage}, {{"-c", file, "-g"}, {}, "", usage},
        {{"-c", file, "-c", file}, {}, "", usage}, {{}, {}, "", usage}};
    // Counts are digits only and at most a million: no sign, no blank, no wrap.
    for (const char* count : {"-1", " 2", "+2", "0", "1000001", "18446744073709551617"})
        cases.push_back({{"-c", missing, "-b", count}, {}, "", usage});
    for (auto [args, env, out, err] : cases) {
        args.insert(args.begin(), rvtest::bin("oaisql"));
        const auto r = rvtest::run(args, env);
        EXPECT_EQ(std::make_tuple(r.status, r.out, r.err.substr(0, err.size())), std::make_tuple(2, out, err))
            << r.err;
    }
    EXPECT_FALSE(rv::read_load_position(ended)->ended);

    // A later connect to another database: what ran before stays.
    rvtest::pg_recreate_db("ravik_other");
    pg_query("ravik_other", "create table media (id int)");
    const auto r = load(row + "connect ravik_other\n" + row + "connect no_such_db\n" + row);
    EXPECT_EQ(outcome(r), std::make_tuple(2, "oaisql: 2 statements, 2 succeeded, 0 failed, stopped\n"));
    EXPECT_TRUE(r.err.starts_with("oaisql: cannot connect to database no_such_db: ")) << r.err;
    EXPECT_EQ(value("select count(*) from media") + value("select count(*) from media", "ravik_other"), "11");
}

TEST_F(DbLoader, EverythingAcknowledgedBeforeACrashIsThereAfterIt) {
    // The server's processes end at once in the middle of a load: WAL they
    // had not written is gone. The test server runs without fsync, which only
    // a crash of the machine would show; here it is whether a commit waited
    // for its WAL that counts. The WAL writer is held, so that only such a
    // commit (or full WAL buffers) writes it: otherwise a commit that did not
    // wait would be lost only by chance. An advisory lock held here keeps
    // the loader from ending before the crash: the script's last line waits
    // for it, and its rows before take longer than the acknowledgements the
    // crash waits for (one every 200 ms).
    rvtest::write_file(file, ev_rows(600000, [](int i) { return i % 1000 == 0; }) + "SELECT pg_advisory_lock(4711);\n");
    const rv::Connection holder(PQconnectdb("dbname=ravik_db"));
    ASSERT_EQ(PQresultStatus(rv::Result(PQexec(holder.get(), "select pg_advisory_lock(4711)")).get()), PGRES_TUPLES_OK)
        << PQerrorMessage(holder.get());
    const pid_t writer = std::stoi(value("select pid from pg_stat_activity where backend_type = 'walwriter'"));
    struct UpAgain {  // whatever happens, the other tests find the server up
        pid_t writer;
        ~UpAgain() {
            kill(writer, SIGCONT);
            EXPECT_TRUE(rvtest::pg_cluster("restart"));
        }
    } up_again{writer};
    ASSERT_EQ(kill(writer, SIGSTOP), 0);
    rvtest::Background loader({rvtest::bin("oaisql"), "-c", file});
    // The crash comes once the loader has acknowledged three failing lines,
    // so at least one acknowledgement after the first is put to the test.
    ASSERT_TRUE(rvtest::eventually([&] {
        const std::string said = rvtest::read_file(loader.output_file());
        return std::count(said.begin(), said.end(), '\n') >= 3;
    }));
    ASSERT_TRUE(rvtest::pg_cluster("crash", writer));
    const auto r = loader.wait();
    ASSERT_TRUE(rvtest::pg_cluster("restart"));

    std::smatch summary;
    const std::regex stopped("oaisql: (\\d+) statements, (\\d+) succeeded, \\d+ failed, stopped\n$");
    ASSERT_TRUE(std::regex_search(r.out, summary, stopped)) << r.out << r.err;
    EXPECT_EQ(r.status, 2);
    const int settled = std::stoi(summary[1]);
    EXPECT_GT(std::stoi(summary[2]), 0);
    // Every failing statement of those counted has its line, and no other does.
    std::string errors;
    for (int i = 1000; i <= settled; i += 1000) errors += ev_refused(i);
    EXPECT_EQ(r.out, errors + summary.str(0));
    EXPECT_EQ(value("select count(*) || ' ' || count(distinct seq) from ev where seq <= " + std::to_string(settled)),
              summary.str(2) + " " + summary.str(2));
}

TEST_F(DbLoader, AContinuationTakesUpAfterWhatTheRecordedRunCommitted) {
    // Line 3 fails; line 7 runs alone.
    rvtest::write_file(file, ev_rows(6, [](int i) { return i == 3; }) +
                                 "DELETE FROM ev WHERE seq = 1; INSERT INTO ev (seq,val) VALUES ('7','1');\n");
    const std::string pos = box.path("work/db_ev.pos"), head = "oaisql-position 1\n";
    const std::string committed = value("select txid_current()"), later = std::to_string(std::stoll(committed) + 100000);
    const std::string summary = "oaisql: 7 statements, 6 succeeded, 1 failed\n";
    // Position file (none: no file), output and rows of the continuation.
    const std::tuple<std::optional<std::string>, std::string, std::string> cases[] = {
        {std::nullopt, ev_refused(3) + summary, "2 4 5 6 7"},
        // Transactions up to line 4 committed, the one of line 5 never began;
        // a record cut short counts for nothing. The Error line recorded but
        // not yet said comes again.
        {head + "durable 1\nerror 3 Error in line 3: refused\ncommit 4 " + committed + "\ncommit 5 " + later +
             "\ncommit 6 " + committed,
         "Error in line 3: refused\noaisql: 4 statements, 3 succeeded, 1 failed\n", "5 6 7"},
        // What ran alone may not have committed, and runs again.
        {head + "durable 6\npending 7\n", "oaisql: 1 statements, 1 succeeded, 0 failed\n", "7"},
        {head + "durable 7\nend 7\n", "oaisql: 0 statements, 0 succeeded, 0 failed\n", ""},
    };
    for (const auto& [recorded, out, rows] : cases) {
        pg_query("ravik_db", "truncate ev");
        std::remove(pos.c_str());
        if (recorded) rvtest::write_file(pos, *recorded);
        const auto r = rvtest::run({rvtest::bin("oaisql"), "-c", file, "-p", pos, "-r"});
        EXPECT_EQ(std::tie(r.status, r.out), std::make_tuple(out.find("Error") == 0 ? 1 : 0, out)) << r.err;
        EXPECT_EQ(r.err.starts_with("oaisql: no position file " + pos + ": loading " + file + " from its first line"),
                  !recorded) << r.err;
        EXPECT_EQ(value("select coalesce(string_agg(seq::text, ' ' order by seq), '') from ev"), rows);
        const auto now = rv::read_load_position(pos);
        EXPECT_TRUE(now && now->ended && now->durable == 7 && now->last == 7 && now->errors.empty()) << recorded.value_or("no file");
    }
}

TEST_F(DbLoader, AnInterruptedLoadContinuesWithEveryStatementOnce) {
    const auto refused = [](int i) { return i % 997 == 0; };
    const std::string pos = box.path("work/db_ev.pos");
    pid_t writer = 0;  // held, as in the crash test above, so that a crash loses what no commit waited for
    struct UpAgain {  // whatever happens, the other tests find the server up
        const pid_t& writer;
        ~UpAgain() {
            kill(writer, SIGCONT);
            EXPECT_TRUE(rvtest::pg_cluster("restart"));
        }
    } up_again{writer};
    // Killed with its caller, or the server crashed under it; statements of
    // one line, or of two: the first line of each is the one that counts.
    const std::tuple<const char*, int, std::function<void(pid_t)>> interruptions[] = {
        {"killed", 1, [&](pid_t loader) { kill(loader, SIGKILL), kill(writer, SIGCONT); }},
        {"crashed", 1, [&](pid_t) { EXPECT_TRUE(rvtest::pg_cluster("crash", writer)); }},
        {"killed, two lines a statement", 2, [&](pid_t loader) { kill(loader, SIGKILL), kill(writer, SIGCONT); }}};
    for (const auto& [what, span, interrupt] : interruptions) {
        SCOPED_TRACE(what);
        const auto line_of = [span](int seq) { return span * (seq - 1) + 1; };
        rvtest::write_file(file, ev_rows(200000, refused, span == 2));
        Lines all;
        for (int i = 997; i <= 200000; i += 997) all.push_back(ev_refused(i, line_of(i)));
        for (std::string& line : all) line.pop_back();
        pg_query("ravik_db", "truncate ev");
        writer = std::stoi(value("select pid from pg_stat_activity where backend_type = 'walwriter'"));
        ASSERT_EQ(kill(writer, SIGSTOP), 0);
        rvtest::Background loader({rvtest::bin("oaisql"), "-c", file, "-p", pos});
        ASSERT_TRUE(rvtest::eventually([] { return std::stoi(value("select count(*) from ev")) >= 30000; }));
        interrupt(loader.pid());
        const auto first = loader.wait();
        ASSERT_TRUE(rvtest::pg_cluster("restart"));
        const auto recorded = rv::read_load_position(pos);
        ASSERT_TRUE(recorded && !recorded->ended) << first.out << first.err;

        const auto second = rvtest::run({rvtest::bin("oaisql"), "-c", file, "-p", pos, "-r"});
        std::smatch at;
        ASSERT_TRUE(std::regex_search(second.err, at, std::regex("^oaisql: continuing .* after line (\\d+)\n$")))
            << second.err;
        // First the Error lines recorded but maybe not said up to there, then
        // those of the statements after it.
        Lines said;
        for (const auto& [line, text] : recorded->errors) if (line <= std::stoul(at[1])) said.push_back(text);
        for (int i = 997; i <= 200000; i += 997) if (line_of(i) > std::stoi(at[1])) said.push_back(all[i / 997 - 1]);
        EXPECT_EQ((std::stoi(at[1]) - 1) % span, 0) << "not the first line of a statement";
        EXPECT_EQ(error_lines(second.out), said);
        // So every one is said, and only that one again that the first run
        // said and had not recorded as said when it ended.
        said = error_lines(first.out);
        for (const std::string& line : error_lines(second.out))
            if (std::find(said.begin(), said.end(), line) == said.end()) said.push_back(line);
        EXPECT_EQ(said, all);
        EXPECT_EQ(second.status, 1);
        EXPECT_EQ(value("select count(*) || ' ' || count(distinct seq) from ev"), "199800 199800");
        EXPECT_TRUE(rv::read_load_position(pos)->ended);
    }
}

}  // namespace
