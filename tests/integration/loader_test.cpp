// The loader oaisql against a real server: both script forms, exact values,
// failing statements isolated and everything else committed once, file
// order, schema changes in the middle of a script, and the exit statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "support/pgcluster.hpp"
#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

using rvtest::pg_query;
using rvtest::PgRows;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> error_lines(const std::string& out) {
    std::vector<std::string> errors;
    for (const auto& line : lines_of(out)) {
        if (line.find("Error") != std::string::npos) {
            errors.push_back(line);
        }
    }
    return errors;
}

std::string last_line(const std::string& out) {
    const auto lines = lines_of(out);
    return lines.empty() ? "" : lines.back();
}

std::string count(const std::string& sql) {
    return *pg_query("ravik_db", sql).at(0).at(0);
}

class DbLoader : public ::testing::Test {
  protected:
    void SetUp() override {
        port = std::to_string(rvtest::pg_server().port);
        rvtest::pg_recreate_db("ravik_db");
        pg_query("ravik_db",
                 "create table media (id int primary key, label text, pool text, size bigint, "
                 "expires text, note text)");
    }

    // Runs oaisql on `script` with the extra arguments.
    rvtest::RunResult load(const std::string& script, const std::vector<std::string>& args = {"-e"},
                           const std::map<std::string, std::string>& env = {}) {
        const std::string file = box.path("work/script.tmp");
        rvtest::write_file(file, script);
        return load_file(file, args, env);
    }

    rvtest::RunResult load_file(const std::string& file, const std::vector<std::string>& args,
                                std::map<std::string, std::string> env = {}) {
        std::vector<std::string> argv{rvtest::bin("oaisql"), "-c", file};
        argv.insert(argv.end(), args.begin(), args.end());
        env.emplace("PGPORT", port);
        return rvtest::run(argv, env);
    }

    rvtest::Sandbox box;
    std::string port;
};

TEST_F(DbLoader, BothScriptFormsLoadEveryValueExactly) {
    // As the table change step writes it.
    const auto changed = load(
        "connect ravik_db\n"
        "INSERT INTO media (id,label,pool,size,expires,note) VALUES "
        "('1','A''01','Default','100','2026-01-31 12:00:00',NULL);\n"
        "INSERT INTO media (id,label,pool,size,expires,note) VALUES "
        "('2','a,b (c)','P;1','0','','it''s ''quoted'', (x,y)');\n"
        "INSERT INTO media (id,label,pool,size,expires,note) VALUES "
        "('3','Grüße 日本 ✓','NULL',NULL,'x','back\\slash');\n");
    EXPECT_EQ(changed.status, 0) << changed.out << changed.err;
    EXPECT_TRUE(error_lines(changed.out).empty()) << changed.out;
    EXPECT_EQ(last_line(changed.out), "oaisql: 3 statements, 3 succeeded, 0 failed");

    // As the export tool writes it: no connect line, a closing row count.
    const auto exported = load(
        "INSERT INTO media (id,label,pool,size,expires,note) VALUES "
        "('4','L4','P',NULL,NULL,'');\n"
        "INSERT INTO media (id,label,pool,size,expires,note) VALUES "
        "('5',' padded ','P','5','2027-02-28','a''b');\n"
        "\n-- 2 rows found \n");
    EXPECT_EQ(exported.status, 0) << exported.out << exported.err;
    EXPECT_EQ(last_line(exported.out), "oaisql: 2 statements, 2 succeeded, 0 failed");

    const PgRows rows = pg_query(
        "ravik_db", "select label, pool, size::text, expires, note from media order by id");
    const PgRows expected{
        {"A'01", "Default", "100", "2026-01-31 12:00:00", std::nullopt},
        {"a,b (c)", "P;1", "0", "", "it's 'quoted', (x,y)"},
        {"Grüße 日本 ✓", "NULL", std::nullopt, "x", "back\\slash"},
        {"L4", "P", std::nullopt, std::nullopt, ""},
        {" padded ", "P", "5", "2027-02-28", "a'b"},
    };
    EXPECT_EQ(rows, expected);

    // A server that reads backslashes in quotes as escapes gets such a row
    // as the text it reads, like any client sending the line would.
    pg_query("ravik_db", "alter database ravik_db set standard_conforming_strings = off");
    const auto escaped = load(
        "INSERT INTO media (id,label,note) VALUES ('6','L6','a\\tb');\n"
        "INSERT INTO media (id,label,note) VALUES ('7','L7','plain');\n");
    EXPECT_EQ(escaped.status, 0) << escaped.out << escaped.err;
    EXPECT_EQ(count("select string_agg(note, '|' order by id) from media where id >= 6"),
              "a\tb|plain");
}

TEST_F(DbLoader, FailingStatementsAreReportedAloneAndTheRestCommittedOnce) {
    // Duplicates at the start and end of a commit group, in a row, and a
    // whole group of them; values holding the word Error.
    const std::vector<int> dups{1, 5, 7, 8, 9, 10, 11, 12, 20, 25, 26, 40, 60, 61, 62, 63};
    std::string script = "connect ravik_db\n";
    std::vector<std::size_t> failing_lines;
    int id = 0;
    for (int i = 0; i < 64; ++i) {
        const bool dup = std::find(dups.begin(), dups.end(), i) != dups.end();
        const int key = dup ? 1 : ++id;
        if (dup) {
            failing_lines.push_back(static_cast<std::size_t>(i) + 2);  // after the connect line
        }
        script += "INSERT INTO media (id,label,note) VALUES ('" + std::to_string(key) + "','L" +
                  std::to_string(i) + "','Error " + std::to_string(i) + "');\n";
    }

    // Statements per commit and rows per INSERT: one by one, small groups
    // in small commits, the defaults (a group of 50 rows, then single rows).
    const std::vector<std::vector<std::string>> settings{{"-b", "1", "-g", "1"},
                                                         {"-b", "4", "-g", "3"},
                                                         {"-b", "9", "-g", "2"},
                                                         {"-b", "1000", "-g", "1"},
                                                         {}};
    for (const auto& setting : settings) {
        const std::string batch = setting.empty() ? "default" : setting[1] + "/" + setting[3];
        std::vector<std::string> args{"-e"};
        args.insert(args.end(), setting.begin(), setting.end());
        pg_query("ravik_db", "truncate media");
        const auto result = load(script, args);
        EXPECT_EQ(result.status, 1) << result.out << result.err;
        const auto errors = error_lines(result.out);
        ASSERT_EQ(errors.size(), dups.size()) << "batch " << batch << "\n" << result.out;
        for (std::size_t i = 0; i < errors.size(); ++i) {
            const std::string prefix = "Error in line " + std::to_string(failing_lines[i]) +
                                       ": duplicate key value violates unique constraint";
            EXPECT_EQ(errors[i].rfind(prefix, 0), 0U) << errors[i];
            EXPECT_NE(errors[i].find(" | statement: INSERT INTO media"), std::string::npos)
                << errors[i];
        }
        EXPECT_EQ(last_line(result.out), "oaisql: 64 statements, 48 succeeded, 16 failed");
        EXPECT_EQ(count("select count(*) from media"), "48");
        EXPECT_EQ(count("select label from media where id = 1"), "L0");
        EXPECT_EQ(
            count("select string_agg(label, ',' order by id) from media where id between 2 and 5"),
            "L2,L3,L4,L6");
    }

    // Without a key, a committed-twice statement would show as an extra row.
    pg_query("ravik_db", "create table ev (seq int, val int check (val >= 0))");
    std::string events;
    for (int i = 1; i <= 300; ++i) {
        events += "INSERT INTO ev (seq,val) VALUES ('" + std::to_string(i) + "','" +
                  (i % 37 == 0 || i == 299 ? "-1" : "1") + "');\n";
    }
    events += "INSERT INTO missing_table (seq) VALUES ('1');\n";
    const auto result = load(events, {"-b", "50"});
    EXPECT_EQ(result.status, 1);
    const auto errors = error_lines(result.out);
    ASSERT_EQ(errors.size(), 10U) << result.out;
    EXPECT_EQ(errors[0].rfind(
                  "Error in line 37: new row for relation \"ev\" violates check constraint", 0),
              0U)
        << errors[0];
    EXPECT_EQ(errors.back().find("statement:"), std::string::npos) << "without -e only the message";
    EXPECT_EQ(
        errors.back().rfind("Error in line 301: relation \"missing_table\" does not exist", 0), 0U)
        << errors.back();
    EXPECT_EQ(count("select count(*) || ' ' || count(distinct seq) || ' ' || sum(seq) from ev"),
              "291 291 " + std::to_string(300 * 301 / 2 -
                                          (37 + 74 + 111 + 148 + 185 + 222 + 259 + 296) - 299));
}

TEST_F(DbLoader, OneHugeCommitGroupNeitherSideWaitsForTheOther) {
    // 60,000 single-row statements in one transaction: the answers fill the
    // socket long before the last statement is written.
    std::string script;
    const std::string note(200, 'n');
    for (int i = 1; i <= 60000; ++i) {
        script +=
            "INSERT INTO media (id,note) VALUES ('" + std::to_string(i) + "','" + note + "');\n";
    }
    const auto result = load(script, {"-b", "100000", "-g", "1"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(count("select count(*) || ' ' || sum(id) from media"), "60000 1800030000");
}

TEST_F(DbLoader, StatementsTakeEffectInFileOrder) {
    const auto result = load(
        "INSERT INTO media (id,label) VALUES ('1','a');\n"
        "INSERT INTO media (id,label) VALUES ('2','b');\n"
        "UPDATE media SET label = label || '+' WHERE id <= 2;\n"
        "INSERT INTO media (id,label,size) VALUES (3, 'c', 30);\n"
        "DELETE FROM media WHERE id = 1;\n"
        "INSERT INTO media (id,label) VALUES ('1','again');\n"
        "UPDATE media SET size = (SELECT count(*) FROM media);\n"
        "INSERT INTO media (id,label) VALUES ('3','dup');\n"
        "UPDATE media SET note = 'last' WHERE id = 3;\n");
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    ASSERT_EQ(error_lines(result.out).size(), 1U) << result.out;
    EXPECT_EQ(error_lines(result.out)[0].rfind("Error in line 8: ", 0), 0U);
    const PgRows rows =
        pg_query("ravik_db", "select id::text, label, size::text, note from media order by id");
    const PgRows expected{
        {"1", "again", "3", std::nullopt},
        {"2", "b+", "3", std::nullopt},
        {"3", "c", "3", "last"},
    };
    EXPECT_EQ(rows, expected);
}

TEST_F(DbLoader, SchemaChangesInTheMiddleOfAScript) {
    const auto result = load(
        "INSERT INTO media (id,size) VALUES ('1','10');\n"
        "INSERT INTO media (id,size) VALUES ('2','20');\n"
        "ALTER TABLE media ALTER COLUMN size TYPE text;\n"
        "INSERT INTO media (id,size) VALUES ('3','big');\n"
        "ALTER TABLE media ADD COLUMN slot int; UPDATE media SET slot = id * 10;\n"
        "INSERT INTO media (id,slot) VALUES ('4','40');\n"
        "DROP TABLE IF EXISTS pool; CREATE TABLE pool (name text);\n"
        "INSERT INTO pool (name) VALUES ('p1');\n"
        "ALTER TABLE media DROP COLUMN slot;\n"
        "INSERT INTO media (id,slot) VALUES ('5','50');\n"
        "SELECT no_such_function();\n"
        "INSERT INTO media (id,size) VALUES ('6','x');\n");
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    const auto errors = error_lines(result.out);
    ASSERT_EQ(errors.size(), 2U) << result.out;
    EXPECT_EQ(errors[0].rfind(
                  "Error in line 10: column \"slot\" of relation \"media\" does not exist", 0),
              0U)
        << errors[0];
    EXPECT_EQ(errors[1].rfind("Error in line 11: function no_such_function() does not exist", 0),
              0U)
        << errors[1];
    EXPECT_EQ(last_line(result.out), "oaisql: 12 statements, 10 succeeded, 2 failed");
    EXPECT_EQ(count("select string_agg(id || '=' || size, ',' order by id) from media"),
              "1=10,2=20,3=big,6=x");
    EXPECT_EQ(count("select name from pool"), "p1");
}

TEST_F(DbLoader, UnreadableScriptsAndConnectionFailuresStopWithStatus2) {
    const auto missing = load_file(box.path("work/no_such.tmp"), {"-e"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("oaisql: cannot read " + box.path("work/no_such.tmp")),
              std::string::npos)
        << missing.err;
    EXPECT_EQ(last_line(missing.out), "oaisql: 0 statements, 0 succeeded, 0 failed, stopped");

    const auto directory = load_file(box.path("work"), {});
    EXPECT_EQ(directory.status, 2) << directory.out << directory.err;

    const std::string row = "INSERT INTO media (id) VALUES ('1');\n";
    const auto no_db = load("connect no_such_db\n" + row);
    EXPECT_EQ(no_db.status, 2);
    EXPECT_NE(no_db.err.find("oaisql: cannot connect to database no_such_db: "), std::string::npos)
        << no_db.err;
    EXPECT_TRUE(error_lines(no_db.out).empty()) << no_db.out;

    const auto no_server = load(row, {"-e"}, {{"PGHOST", box.path("no_socket_here")}});
    EXPECT_EQ(no_server.status, 2);
    EXPECT_NE(no_server.err.find("cannot connect to database ravik_db"), std::string::npos)
        << no_server.err;
    EXPECT_EQ(load("", {}, {{"PGHOST", box.path("no_socket_here")}}).status, 2)
        << "an empty script still needs the database";
    EXPECT_EQ(count("select count(*) from media"), "0");

    EXPECT_EQ(rvtest::run({rvtest::bin("oaisql"), "-e"}).status, 2);
    EXPECT_EQ(rvtest::run({rvtest::bin("oaisql"), "-c", box.path("x"), "-x"}).status, 2);

    // A later connect to another database: what ran before stays.
    pg_query("postgres", "drop database if exists ravik_other");
    pg_query("postgres", "create database ravik_other");
    pg_query("ravik_other", "create table media (id int)");
    const auto switched = load(row + "connect ravik_other\n" + row + "connect no_such_db\n" + row);
    EXPECT_EQ(switched.status, 2);
    EXPECT_EQ(last_line(switched.out), "oaisql: 2 statements, 2 succeeded, 0 failed, stopped");
    EXPECT_EQ(count("select count(*) from media"), "1");
    EXPECT_EQ(*pg_query("ravik_other", "select count(*) from media").at(0).at(0), "1");
}

}  // namespace
