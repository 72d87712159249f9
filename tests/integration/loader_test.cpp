// The loader oaisql against a real server: both script forms, exact values,
// failing statements isolated and everything else committed once, file
// order, schema changes in the middle of a script, and the exit statuses.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/pgcluster.hpp"

namespace {

using rvtest::pg_query;
using rvtest::PgRows;
using Lines = std::vector<std::string>;

std::string value(const std::string& sql, const std::string& db = "ravik_db") {
    return *pg_query(db, sql).at(0).at(0);
}

struct Load : rvtest::RunResult {
    Lines errors;         // the lines that report a failed statement
    std::string summary;  // the last line
};

class DbLoader : public ::testing::Test {
  protected:
    void SetUp() override {
        rvtest::pg_recreate_db("ravik_db");
        pg_query("ravik_db",
                 "create table media (id int primary key, label text, pool text, size bigint, "
                 "expires text, note text)");
    }
    // Runs oaisql on `script` (or on the file `file`) with the extra arguments.
    Load load(const std::string& script, const Lines& args = {"-e"}, rvtest::Env env = {},
              std::string file = "") {
        if (file.empty()) {
            file = box.path("work/script.tmp");
            rvtest::write_file(file, script);
        }
        Lines argv{rvtest::bin("oaisql"), "-c", file};
        argv.insert(argv.end(), args.begin(), args.end());
        env.emplace("PGPORT", std::to_string(rvtest::pg_server().port));
        Load r{rvtest::run(argv, env), {}, ""};
        for (const auto& line : rvtest::split_lines(r.out)) {
            if (line.find("Error") != std::string::npos) {
                r.errors.push_back(line);
            }
            r.summary = line;
        }
        return r;
    }

    rvtest::Sandbox box;
};

TEST_F(DbLoader, BothScriptFormsLoadEveryValueExactly) {
    const std::string insert = "INSERT INTO media (id,label,pool,size,expires,note) VALUES ";
    // As the table change step writes it, then as the export tool writes it.
    auto r = load("connect ravik_db\n" + insert +
                  "('1','A''01','Default','100','2026-01-31 12:00:00',NULL);\n" + insert +
                  "('2','a,b (c)','P;1','0','','it''s ''quoted'', (x,y)');\n" + insert +
                  "('3','Grüße 日本 ✓','NULL',NULL,'x','back\\slash');\n");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(r.errors.empty()) << r.out;
    EXPECT_EQ(r.summary, "oaisql: 3 statements, 3 succeeded, 0 failed");
    r = load(insert + "('4','L4','P',NULL,NULL,'');\n" + insert +
             "('5',' padded ','P','5','2027-02-28','a''b');\n\n-- 2 rows found \n");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.summary, "oaisql: 2 statements, 2 succeeded, 0 failed");
    const PgRows expected{
        {"A'01", "Default", "100", "2026-01-31 12:00:00", std::nullopt},
        {"a,b (c)", "P;1", "0", "", "it's 'quoted', (x,y)"},
        {"Grüße 日本 ✓", "NULL", std::nullopt, "x", "back\\slash"},
        {"L4", "P", std::nullopt, std::nullopt, ""},
        {" padded ", "P", "5", "2027-02-28", "a'b"},
    };
    EXPECT_EQ(pg_query("ravik_db",
                       "select label, pool, size::text, expires, note from media order by id"),
              expected);

    // A server that reads backslashes in quotes as escapes gets such a row
    // as the text it reads, like any client sending the line would.
    pg_query("ravik_db", "alter database ravik_db set standard_conforming_strings = off");
    r = load(
        "INSERT INTO media (id,label,note) VALUES ('6','L6','a\\tb');\n"
        "INSERT INTO media (id,label,note) VALUES ('7','L7','plain');\n");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(value("select string_agg(note, '|' order by id) from media where id >= 6"),
              "a\tb|plain");
}

TEST_F(DbLoader, FailingStatementsAreReportedAloneAndTheRestCommittedOnce) {
    // Duplicates at the start and end of a commit group, in a row, and a
    // whole group of them; values holding the word Error.
    const std::vector<int> dups{1, 5, 7, 8, 9, 10, 11, 12, 20, 25, 26, 40, 60, 61, 62, 63};
    std::string script = "connect ravik_db\n";
    int id = 0;
    for (int i = 0; i < 64; ++i) {
        const bool dup = std::find(dups.begin(), dups.end(), i) != dups.end();
        script += "INSERT INTO media (id,label,note) VALUES ('" + std::to_string(dup ? 1 : ++id) +
                  "','L" + std::to_string(i) + "','Error " + std::to_string(i) + "');\n";
    }
    // Statements per commit and rows per INSERT: one by one, small groups
    // in small commits, the defaults (a group of 50 rows, then single rows).
    const std::vector<Lines> settings{{"-b", "1", "-g", "1"},
                                      {"-b", "4", "-g", "3"},
                                      {"-b", "9", "-g", "2"},
                                      {"-b", "1000", "-g", "1"},
                                      {}};
    for (const auto& setting : settings) {
        const std::string batch = setting.empty() ? "default" : setting[1] + "/" + setting[3];
        Lines args{"-e"};
        args.insert(args.end(), setting.begin(), setting.end());
        pg_query("ravik_db", "truncate media");
        const auto r = load(script, args);
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        ASSERT_EQ(r.errors.size(), dups.size()) << "batch " << batch << "\n" << r.out;
        for (std::size_t i = 0; i < dups.size(); ++i) {
            // The line number counts the connect line.
            EXPECT_TRUE(r.errors[i].starts_with("Error in line " + std::to_string(dups[i] + 2) +
                                                ": duplicate key value violates unique "
                                                "constraint"))
                << r.errors[i];
            EXPECT_NE(r.errors[i].find(" | statement: INSERT INTO media"), std::string::npos);
        }
        EXPECT_EQ(r.summary, "oaisql: 64 statements, 48 succeeded, 16 failed");
        EXPECT_EQ(value("select count(*) || ' ' || string_agg(label, ',' order by id) from media "
                        "where id <= 5"),
                  "5 L0,L2,L3,L4,L6");
        EXPECT_EQ(value("select count(*) from media"), "48");
    }

    // Without a key, a committed-twice statement would show as an extra row.
    pg_query("ravik_db", "create table ev (seq int, val int check (val >= 0))");
    std::string events;
    for (int i = 1; i <= 300; ++i) {
        events += "INSERT INTO ev (seq,val) VALUES ('" + std::to_string(i) + "','" +
                  (i % 37 == 0 || i == 299 ? "-1" : "1") + "');\n";
    }
    const auto r = load(events + "INSERT INTO missing_table (seq) VALUES ('1');\n", {"-b", "50"});
    EXPECT_EQ(r.status, 1);
    ASSERT_EQ(r.errors.size(), 10U) << r.out;
    EXPECT_TRUE(r.errors[0].starts_with(
        "Error in line 37: new row for relation \"ev\" violates check constraint"))
        << r.errors[0];
    // Without -e only the message.
    EXPECT_EQ(r.errors.back(), "Error in line 301: relation \"missing_table\" does not exist");
    EXPECT_EQ(
        value("select count(*) || ' ' || count(distinct seq) || ' ' || sum(seq) from ev"),
        "291 291 " + std::to_string(300 * 301 / 2 - 37 * (1 + 2 + 3 + 4 + 5 + 6 + 7 + 8) - 299));
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
    const auto r = load(script, {"-b", "100000", "-g", "1"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(value("select count(*) || ' ' || sum(id) from media"), "60000 1800030000");
}

TEST_F(DbLoader, StatementsAndSchemaChangesTakeEffectInFileOrder) {
    const auto r = load(
        "INSERT INTO media (id,label) VALUES ('1','a');\n"
        "INSERT INTO media (id,label) VALUES ('2','b');\n"
        "UPDATE media SET label = label || '+' WHERE id <= 2;\n"
        "INSERT INTO media (id,label,size) VALUES (3, 'c', 30);\n"
        "DELETE FROM media WHERE id = 1;\n"
        "INSERT INTO media (id,label) VALUES ('1','again');\n"
        "UPDATE media SET size = (SELECT count(*) FROM media);\n"
        "INSERT INTO media (id,label) VALUES ('3','dup');\n"
        "ALTER TABLE media ALTER COLUMN size TYPE text;\n"
        "INSERT INTO media (id,size) VALUES ('4','big');\n"
        "ALTER TABLE media ADD COLUMN slot int; UPDATE media SET slot = id * 10;\n"
        "INSERT INTO media (id,slot) VALUES ('5','50');\n"
        "DROP TABLE IF EXISTS pool; CREATE TABLE pool (name text);\n"
        "INSERT INTO pool (name) VALUES ('p1');\n"
        "ALTER TABLE media DROP COLUMN slot;\n"
        "INSERT INTO media (id,slot) VALUES ('6','60');\n"
        "SELECT no_such_function();\n"
        "UPDATE media SET note = 'last' WHERE id = 3;\n");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    ASSERT_EQ(r.errors.size(), 3U) << r.out;
    EXPECT_TRUE(r.errors[0].starts_with("Error in line 8: ")) << r.errors[0];
    EXPECT_TRUE(r.errors[1].starts_with(
        "Error in line 16: column \"slot\" of relation \"media\" does not exist"))
        << r.errors[1];
    EXPECT_TRUE(
        r.errors[2].starts_with("Error in line 17: function no_such_function() does not exist"))
        << r.errors[2];
    EXPECT_EQ(r.summary, "oaisql: 18 statements, 15 succeeded, 3 failed");
    EXPECT_EQ(value("select string_agg(id || '=' || coalesce(label, '-') || '/' || "
                    "coalesce(size, '-') || '/' || coalesce(note, '-'), ',' order by id) "
                    "from media"),
              "1=again/3/-,2=b+/3/-,3=c/3/last,4=-/big/-,5=-/-/-");
    EXPECT_EQ(value("select name from pool"), "p1");
}

TEST_F(DbLoader, UnreadableScriptsAndConnectionFailuresStopWithStatus2) {
    const std::string missing = box.path("work/no_such.tmp");
    auto r = load("", {"-e"}, {}, missing);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("oaisql: cannot read " + missing), std::string::npos) << r.err;
    EXPECT_EQ(r.summary, "oaisql: 0 statements, 0 succeeded, 0 failed, stopped");
    const std::string row = "INSERT INTO media (id) VALUES ('1');\n";
    r = load(row, {"-e"}, {{"PGHOST", box.path("no_socket_here")}});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("oaisql: cannot connect to database ravik_db: "), std::string::npos)
        << r.err;
    EXPECT_EQ(rvtest::run({rvtest::bin("oaisql"), "-e"}).status, 2);
    EXPECT_EQ(rvtest::run({rvtest::bin("oaisql"), "-c", missing, "-x"}).status, 2);
    // Counts are digits only and at most a million: no sign, no blank, no wrap.
    for (const char* count : {"-1", " 2", "+2", "0", "1000001", "18446744073709551617"}) {
        const auto usage = rvtest::run({rvtest::bin("oaisql"), "-c", missing, "-b", count});
        EXPECT_EQ(usage.status, 2) << count;
        EXPECT_EQ(usage.err.rfind("usage: oaisql", 0), 0u) << count << usage.err;
    }

    // A later connect to another database: what ran before stays.
    pg_query("postgres", "drop database if exists ravik_other");
    pg_query("postgres", "create database ravik_other");
    pg_query("ravik_other", "create table media (id int)");
    r = load(row + "connect ravik_other\n" + row + "connect no_such_db\n" + row);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.errors.empty()) << r.out;
    EXPECT_EQ(r.summary, "oaisql: 2 statements, 2 succeeded, 0 failed, stopped");
    EXPECT_EQ(value("select count(*) from media"), "1");
    EXPECT_EQ(value("select count(*) from media", "ravik_other"), "1");
}

}  // namespace
