// The loader's reading of script lines: the fixed INSERT form, statements
// that may join a batch, directives, and server messages on one line.
#include <gtest/gtest.h>

#include "loader/copy_text.hpp"
#include "loader/insert_shapes.hpp"
#include "loader/script.hpp"
#include "loader/statement.hpp"
#include "support/sandbox.hpp"

namespace {

using Kind = rv::ScriptLineKind;

// The form as "<table>(<columns>) [<value>]..." with NULL bare.
std::string text(const rv::InsertForm& form) {
    std::string out = std::string(form.table) + "(";
    for (const auto column : form.columns) out += std::string(column) + ",";
    out.back() = ')';
    for (const auto& value : form.values) out += value ? " [" + *value + "]" : " NULL";
    return out;
}

TEST(LoaderStatement, InsertFormsAndExactValues) {
    const std::pair<std::string, std::string> cases[] = {
        // As the table change step writes it.
        {"INSERT INTO media (id,label,note) VALUES ('1','A01','x');", "media(id,label,note) [1] [A01] [x]"},
        // As the export tool writes it, NULL bare, any case.
        {"INSERT INTO pool (name,size,note) VALUES ('p1',NULL,null);", "pool(name,size,note) [p1] NULL NULL"},
        // Blanks between tokens, lower case, a qualified table, no semicolon, a CR.
        {"  insert into rv.media ( id , label )values( '2' ,  'B' )\r", "rv.media(id,label) [2] [B]"},
        {"INSERT INTO t (a,b,c,d,e,f) VALUES ('it''s','a,b','(x)',''''' ; NULL','','Grüße 日本');",
         "t(a,b,c,d,e,f) [it's] [a,b] [(x)] ['' ; NULL] [] [Grüße 日本]"},
        // The text NULL in quotes is a value; backslashes stay.
        {"INSERT INTO t (a,b) VALUES ('NULL','c:\\tmp\\');", "t(a,b) [NULL] [c:\\tmp\\]"},
        {"INSERT INTO t (a) VALUES (E'x\\'y');", "refused"},            // a bare word, 1 or DEFAULT alike
        {"INSERT INTO t (a) VALUES (NULLx);", "refused"},               // not the word NULL
        {"INSERT INTO t (a,b) VALUES ('1');", "refused"},               // counts differ
        {"INSERT INTO t VALUES ('1');", "refused"},                     // no column list
        {"INSERT INTO \"T\" (a) VALUES ('1');", "refused"},             // quoted identifier
        {"INSERT INTO t (a) VALUES ('1'); DELETE FROM t;", "refused"},  // anything after the list
        {"INSERT INTO t (a) VALUES ('open);", "refused"},               // unterminated quote
        {"INSERT INTO t (a) VALUES ('a' 'b');", "refused"},             // adjacent literals
        {"INSERT INTO t (a) SELECT '1';", "refused"}, {"INSERTINTO t (a) VALUES ('1');", "refused"}, {"", "refused"},
        {std::string("INSERT INTO t (a) VALUES ('x\0y');", 33), "refused"},
    };
    for (const auto& [line, form] : cases) {
        const auto parsed = rv::parse_insert(line);
        EXPECT_EQ(parsed ? text(*parsed) : "refused", form) << line;
    }
}

TEST(LoaderStatement, OnlyOneCertainStatementGoesIntoABatch) {
    const std::pair<const char*, bool> cases[] = {
        {"UPDATE t SET a = 'x;y' WHERE b = 1;", true}, {"delete from t where a = 'it''s'", true},
        {"INSERT INTO t VALUES (1, \"x\"\"y\" );  ", true}, {"UPDATE t SET a = 1; UPDATE t SET b = 2;", false},
        {"UPDATE t SET a = 'x' -- note", false}, {"UPDATE t SET a = /* c */ 1", false},
        {"UPDATE t SET a = $$x$$", false}, {"UPDATE t SET a = E'x\\';DELETE FROM t;'", false},
        {"UPDATE t SET a = 'open", false}, {"WITH x AS (SELECT 1) DELETE FROM t", false},
    };
    for (const auto& [sql, single] : cases) EXPECT_EQ(rv::is_single_dml(sql), single) << sql;
}

TEST(LoaderStatement, LineKindsAndOneLineMessages) {
    const std::tuple<const char*, Kind, std::string> cases[] = {
        {"", Kind::Skip, ""}, {"-- 3 rows found ", Kind::Skip, ""},
        {"connect ravik_db", Kind::Connect, "ravik_db"},
        {"CONNECT  other_db ;\r", Kind::Connect, "other_db"},
        {"connect", Kind::Alone, "connect"},
        {"INSERT INTO t (a) VALUES ('1');  \r", Kind::Insert, "INSERT INTO t (a) VALUES ('1');"},
        {"INSERT INTO t (a) VALUES (1);", Kind::Pipelined, "INSERT INTO t (a) VALUES (1);"},
        {"ALTER TABLE t ADD b text;", Kind::Alone, "ALTER TABLE t ADD b text;"},
    };
    for (const auto& [in, kind, rest] : cases) {
        const auto line = rv::classify_line(in);
        EXPECT_EQ(line.kind, kind) << in;
        EXPECT_EQ(rv::holds_statement(in), kind != Kind::Skip && kind != Kind::Connect) << in;
        EXPECT_TRUE(kind == Kind::Skip || line.text == rest) << in;
    }
    EXPECT_EQ(text(rv::classify_line("INSERT INTO t (a) VALUES ('1');").insert), "t(a) [1]");

    EXPECT_EQ(rv::one_line("duplicate key\nDETAIL:  Key (id)=(5)\n"),
              "duplicate key DETAIL: Key (id)=(5)");
    EXPECT_EQ(rv::one_line("\r\n\t a \t b  \n"), "a b");
}

// Where a statement's line leaves it: only a single-quoted literal goes on
// in the next line; comments, identifiers and dollar quotes end with it.
TEST(LoaderStatement, OnlyAnOpenQuotedLiteralGoesOnInTheNextLine) {
    using Q = rv::Quoting;
    const std::tuple<const char*, Q, Q> cases[] = {
        {"INSERT INTO t (a) VALUES ('x');", Q::None, Q::None}, {"INSERT INTO t (a) VALUES ('x", Q::None, Q::Plain},
        {"VALUES ('it''s", Q::None, Q::Plain}, {"VALUES ('it''", Q::None, Q::Plain}, {"'", Q::None, Q::Plain},
        {"VALUES ('it'''", Q::None, Q::None}, {"a'');", Q::Plain, Q::Plain}, {"a');", Q::Plain, Q::None},
        {"", Q::Plain, Q::Plain}, {"'' 'b", Q::Plain, Q::None},
        {"SET a = E'x\\'", Q::None, Q::Escaped}, {"SET a = E'x\\\\'", Q::None, Q::None},  // E'x\'  and E'x\\'
        {"SET a = e'\\'';", Q::None, Q::None}, {"\\';", Q::Escaped, Q::Escaped}, {"\\';", Q::Plain, Q::None},
        {"SET a = name'x", Q::None, Q::Plain}, {"SET note'x", Q::None, Q::Plain},  // no E of its own
        {"SET a = 1; -- don't", Q::None, Q::None}, {"SET a = /* it's */ 'x", Q::None, Q::Plain},
        {"SET a = /* it's", Q::None, Q::None}, {"SET \"it's\" = 'x", Q::None, Q::Plain},
        {"SET \"it's", Q::None, Q::None}, {"AS $$ it's $$ 'x", Q::None, Q::Plain},
        {"AS $f$ it's $$ $f$;", Q::None, Q::None}, {"AS $$ it's", Q::None, Q::None},
        {"WHERE a = $1 AND b = 'x", Q::None, Q::Plain}, {"WHERE a$b = 'x", Q::None, Q::Plain},
    };
    for (const auto& [line, before, after] : cases) EXPECT_EQ(rv::quoting_after(line, before), after) << line;
}

// A statement is read with the lines its literals go on in, known by its
// first line; its values come back with their line feeds (and carriage
// returns) exactly.
TEST(LoaderStatement, AStatementOverSeveralLinesIsOneKnownByItsFirstLine) {
    rvtest::Sandbox box;
    const std::string file = box.path("script.sql");
    rvtest::write_file(file, "connect ravik_db\nINSERT INTO t (a,b) VALUES ('x\n\n-- y\r\nconnect z','2');\n"
                             "-- note\nUPDATE t SET a = 'it''s\n'' b' WHERE c = 1;\nINSERT INTO t (a) VALUES ("
                             "'{\"k\": \"v\n\"}');\nINSERT INTO t (a) VALUES ('one');\nINSERT INTO t (a) VALUES ('o\n\n");
    rv::InsertShapes shapes(1);
    rv::UnitReader units(rv::FilePtr(std::fopen(file.c_str(), "r")), 100, shapes);
    std::vector<std::tuple<std::size_t, Kind, std::string>> read;
    std::vector<std::optional<std::string>> values;
    for (auto unit = units.next(); unit.kind != rv::Unit::Kind::End; unit = units.next()) {
        for (const auto& statement : unit.statements) {
            read.emplace_back(statement.line, statement.kind, statement.unterminated ? "open" : statement.text);
            values.insert(values.end(), statement.values.begin(), statement.values.end());
        }
    }
    EXPECT_EQ(read, (std::vector<std::tuple<std::size_t, Kind, std::string>>{
                        {2, Kind::Insert, "INSERT INTO t (a,b) VALUES ('x\n\n-- y\r\nconnect z','2');"},
                        {7, Kind::Pipelined, "UPDATE t SET a = 'it''s\n'' b' WHERE c = 1;"},
                        {9, Kind::Insert, "INSERT INTO t (a) VALUES ('{\"k\": \"v\n\"}');"},
                        {11, Kind::Insert, "INSERT INTO t (a) VALUES ('one');"}, {12, Kind::Alone, "open"}}));
    EXPECT_EQ(values, (std::vector<std::optional<std::string>>{"x\n\n-- y\r\nconnect z", "2", "{\"k\": \"v\n\"}", "one"}));
    EXPECT_EQ(units.lines(), 13u);

    // Reading ahead (as the loader does while the server works) changes
    // nothing of the units, and stops at a batch.
    const auto units_of = [&file, &shapes](std::size_t batch, bool ahead) {
        rv::UnitReader reader(rv::FilePtr(std::fopen(file.c_str(), "r")), batch, shapes);
        std::vector<std::vector<std::size_t>> lines;
        std::size_t most_ahead = 0;
        for (;;) {
            std::size_t now_ahead = 0;
            while (ahead && reader.read_ahead()) ++now_ahead;
            most_ahead = std::max(most_ahead, now_ahead);
            const rv::Unit unit = reader.next();
            if (unit.kind == rv::Unit::Kind::End) break;
            lines.emplace_back();
            for (const auto& statement : unit.statements) lines.back().push_back(statement.line);
        }
        EXPECT_LE(most_ahead, batch);
        return lines;
    };
    for (const std::size_t batch : {1, 2, 100}) {
        EXPECT_EQ(units_of(batch, true), units_of(batch, false)) << "batch " << batch;
    }
    EXPECT_EQ(units_of(2, false), (std::vector<std::vector<std::size_t>>{{}, {2, 7}, {9, 11}, {12}}));

    const auto count = rv::count_statements(file);
    ASSERT_TRUE(count);
    EXPECT_EQ(count->statements, 5u);
    const std::pair<std::size_t, std::size_t> through[] = {{1, 0}, {2, 1}, {6, 1}, {7, 2}, {9, 3}, {11, 4}, {12, 5}, {13, 5}};
    for (const auto& [line, statements] : through) EXPECT_EQ(count->statements_through(line), statements) << line;
}

// The count behind a progress line: statements, and those up to a line of
// the script (what a position file names).
TEST(LoaderStatement, StatementsAreCountedUpToAnyLine) {
    rvtest::Sandbox box;
    const std::string file = box.path("script.sql");
    rvtest::write_file(file, "connect ravik_db\nINSERT INTO t (a) VALUES ('1');\n\n-- note\n"
                             "UPDATE t SET a = 2;\nALTER TABLE t ADD b text;\n-- 3 rows found \n");
    const auto count = rv::count_statements(file);
    ASSERT_TRUE(count);
    EXPECT_EQ(count->statements, 3u);
    const std::pair<std::size_t, std::size_t> through[] = {{0, 0}, {1, 0}, {2, 1}, {4, 1},
                                                           {5, 2}, {6, 3}, {7, 3}, {100, 3}};
    for (const auto& [line, statements] : through) {
        EXPECT_EQ(count->statements_through(line), statements) << "line " << line;
    }
    EXPECT_FALSE(rv::count_statements(box.path("missing.sql")));
}

}  // namespace

namespace {

// The row a failed COPY names: only its own context line counts, functions
// it called come first; anything else names none.
TEST(LoaderCopy, FailingRowsAndCopyText) {
    const std::pair<const char*, std::optional<std::size_t>> contexts[] = {
        {"COPY media, line 1001", 1001},
        {"COPY media, line 7, column id: \"x\"", 7},
        {"PL/pgSQL function noted() line 3 at RAISE\nCOPY cp2, line 12: \"12\tfoo\"", 12},
        {"COPY rv.media, Zeile 5", 5},  // another language of the server's messages
        {"PL/pgSQL function f() line 3 at RAISE", std::nullopt},
        {"COPY media", std::nullopt},
        {"COPY media, line 0", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [context, row] : contexts) EXPECT_EQ(rv::copy_failure_row(context), row) << context;

    // A failure every 1,000 rows makes attempts of a few hundred rows; a long
    // stretch without one lets them grow back; a failure in every row never
    // makes them smaller than the least run worth a COPY.
    rv::AttemptSize size;
    EXPECT_EQ(size.rows(), rv::kCopyRows);
    for (std::uint64_t row = 999; row < 100000; row += 1000) {
        size.failed_at(row);
        size.reached(row + 1000);
    }
    EXPECT_GT(size.rows(), 150u);
    EXPECT_LT(size.rows(), 300u);
    size.reached(50000000);
    EXPECT_EQ(size.rows(), rv::kCopyRows);
    for (std::uint64_t row = 50000000; row < 50000100; ++row) size.failed_at(row);
    size.failed_at(7);  // behind the last failure: another session changed a row
    EXPECT_EQ(size.rows(), rv::kCopyMinRows);

    rv::Statement row;
    row.values = {"a\\b", std::nullopt, "\\N", "t\tab", "two\nlines\r", "", "it's"};
    std::string data = "before\n";
    rv::append_copy_row(row, data);
    EXPECT_EQ(data, "before\na\\\\b\t\\N\t\\\\N\tt\\tab\ttwo\\nlines\\r\t\tit's\n");
}

}  // namespace
