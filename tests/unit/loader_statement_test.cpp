#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "loader/statement.hpp"

namespace {

using Values = std::vector<std::optional<std::string>>;

std::vector<std::string> columns_of(const rv::InsertForm& form) {
    return {form.columns.begin(), form.columns.end()};
}

}  // namespace

TEST(LoaderParseInsert, SplitsBothWrittenForms) {
    // As the table change step writes it.
    auto form = rv::parse_insert("INSERT INTO media (id,label,note) VALUES ('1','A01','x');");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->table, "media");
    EXPECT_EQ(columns_of(*form), (std::vector<std::string>{"id", "label", "note"}));
    EXPECT_EQ(form->values, (Values{"1", "A01", "x"}));

    // As the export tool writes it, NULL bare, any case.
    form = rv::parse_insert("INSERT INTO pool (name,size,note) VALUES ('p1',NULL,null);");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->values, (Values{"p1", std::nullopt, std::nullopt}));

    // Blanks between tokens, lower-case keywords, a qualified table, no
    // semicolon, a carriage return at the end.
    form = rv::parse_insert("  insert into rv.media ( id , label )values( '2' ,  'B' )\r");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->table, "rv.media");
    EXPECT_EQ(columns_of(*form), (std::vector<std::string>{"id", "label"}));
    EXPECT_EQ(form->values, (Values{"2", "B"}));
}

TEST(LoaderParseInsert, QuotedValuesKeepEveryByte) {
    auto form = rv::parse_insert(
        "INSERT INTO t (a,b,c,d,e,f) VALUES ('it''s','a,b','(x)',''''' ; NULL','','Grüße 日本');");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->values, (Values{"it's", "a,b", "(x)", "'' ; NULL", "", "Grüße 日本"}));

    // The text NULL in quotes is a value, not SQL NULL; backslashes stay.
    form = rv::parse_insert("INSERT INTO t (a,b) VALUES ('NULL','c:\\tmp\\');");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->values, (Values{"NULL", "c:\\tmp\\"}));
}

TEST(LoaderParseInsert, AnythingUncertainIsNotTheFixedForm) {
    const char* const refused[] = {
        "INSERT INTO t (a) VALUES (1);",                   // unquoted number
        "INSERT INTO t (a) VALUES (E'x\\'y');",            // escape string
        "INSERT INTO t (a) VALUES (DEFAULT);",             // other bare word
        "INSERT INTO t (a) VALUES (NULLx);",               // not the word NULL
        "INSERT INTO t (a,b) VALUES ('1');",               // counts differ
        "INSERT INTO t (a) VALUES ('1','2');",             // counts differ
        "INSERT INTO t VALUES ('1');",                     // no column list
        "INSERT INTO \"T\" (a) VALUES ('1');",             // quoted identifier
        "INSERT INTO t (a) VALUES ('1'); DELETE FROM t;",  // a second statement
        "INSERT INTO t (a) VALUES ('1') RETURNING a;",     // more after the list
        "INSERT INTO t (a) VALUES ('1'),('2');",           // several rows
        "INSERT INTO t (a) VALUES ('open);",               // unterminated quote
        "INSERT INTO t (a) VALUES ('a' 'b');",             // adjacent literals
        "INSERT INTO t (a) SELECT '1';",
        "INSERTINTO t (a) VALUES ('1');",
        "UPDATE t SET a = '1';",
        "",
    };
    for (const char* line : refused) {
        EXPECT_FALSE(rv::parse_insert(line)) << line;
    }
    constexpr char kWithNul[] = "INSERT INTO t (a) VALUES ('x\0y');";
    const std::string with_nul(kWithNul, sizeof kWithNul - 1);
    EXPECT_FALSE(rv::parse_insert(with_nul));
}

TEST(LoaderSingleDml, OnlyOneCertainStatementGoesIntoABatch) {
    EXPECT_TRUE(rv::is_single_dml("UPDATE t SET a = 'x;y' WHERE b = 1;"));
    EXPECT_TRUE(rv::is_single_dml("delete from t where a = 'it''s'"));
    EXPECT_TRUE(rv::is_single_dml("INSERT INTO t VALUES (1, \"x\"\"y\" );  "));
    EXPECT_FALSE(rv::is_single_dml("UPDATE t SET a = 1; UPDATE t SET b = 2;"));
    EXPECT_FALSE(rv::is_single_dml("UPDATE t SET a = 'x' -- note"));
    EXPECT_FALSE(rv::is_single_dml("UPDATE t SET a = /* c */ 1"));
    EXPECT_FALSE(rv::is_single_dml("UPDATE t SET a = $$x$$"));
    EXPECT_FALSE(rv::is_single_dml("UPDATE t SET a = E'x\\';DELETE FROM t;'"));
    EXPECT_FALSE(rv::is_single_dml("UPDATE t SET a = 'open"));
    EXPECT_FALSE(rv::is_single_dml("CREATE TABLE t (a int);"));
    EXPECT_FALSE(rv::is_single_dml("UPDATEX t"));
    EXPECT_FALSE(rv::is_single_dml("WITH x AS (SELECT 1) DELETE FROM t"));
}

TEST(LoaderClassifyLine, DirectivesCommentsAndStatements) {
    EXPECT_EQ(rv::classify_line("").kind, rv::ScriptLineKind::Skip);
    EXPECT_EQ(rv::classify_line("  \t\r").kind, rv::ScriptLineKind::Skip);
    EXPECT_EQ(rv::classify_line("-- 3 rows found ").kind, rv::ScriptLineKind::Skip);
    EXPECT_EQ(rv::classify_line("  -- note").kind, rv::ScriptLineKind::Skip);

    auto line = rv::classify_line("connect ravik_db");
    EXPECT_EQ(line.kind, rv::ScriptLineKind::Connect);
    EXPECT_EQ(line.text, "ravik_db");
    line = rv::classify_line("CONNECT  other_db ;\r");
    EXPECT_EQ(line.kind, rv::ScriptLineKind::Connect);
    EXPECT_EQ(line.text, "other_db");
    EXPECT_EQ(rv::classify_line("connect").kind, rv::ScriptLineKind::Alone);
    EXPECT_EQ(rv::classify_line("connection_reset();").kind, rv::ScriptLineKind::Alone);

    line = rv::classify_line("INSERT INTO t (a) VALUES ('1');  \r");
    EXPECT_EQ(line.kind, rv::ScriptLineKind::Insert);
    EXPECT_EQ(line.text, "INSERT INTO t (a) VALUES ('1');");
    EXPECT_EQ(line.insert.table, "t");
    EXPECT_EQ(line.insert.values, (Values{"1"}));

    EXPECT_EQ(rv::classify_line("INSERT INTO t (a) VALUES (1);").kind,
              rv::ScriptLineKind::Pipelined);
    EXPECT_EQ(rv::classify_line("UPDATE t SET a = 2;").kind, rv::ScriptLineKind::Pipelined);
    EXPECT_EQ(rv::classify_line("ALTER TABLE t ADD b text;").kind, rv::ScriptLineKind::Alone);
    EXPECT_EQ(rv::classify_line("SET search_path = x").kind, rv::ScriptLineKind::Alone);
}

TEST(LoaderOneLine, ServerMessagesBecomeOneLine) {
    EXPECT_EQ(rv::one_line("duplicate key\nDETAIL:  Key (id)=(5)\n"),
              "duplicate key DETAIL: Key (id)=(5)");
    EXPECT_EQ(rv::one_line("\r\n\t a \t b  \n"), "a b");
    EXPECT_EQ(rv::one_line(""), "");
}
