// The database layer without a server: halt and its clean-up handler, record
// lists and export text from results made in memory, date and column-name
// forms by database type, and the statement text with the form that decides
// how its answer is delivered.
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "db/access.hpp"
#include "db/dates.hpp"
#include "db/records.hpp"
#include "db/session.hpp"
#include "loader/statement.hpp"
#include "support/pgcluster.hpp"
#include "support/product_test.hpp"

namespace {

using Lines = std::vector<std::string>;
using Row = std::vector<std::optional<std::string>>;
using Db = rvtest::ProductTest;

// What `call` throws as SessionHalted, having written it on standard error.
template <typename Call>
std::string halted(Call call) {
    rvtest::CaptureFd err(2);
    try {
        call();
    } catch (const rv::SessionHalted& halted) {
        EXPECT_EQ(err.finish(), halted.what()) << "on standard error";
        return halted.what();
    }
    ADD_FAILURE() << "SessionHalted was not thrown";
    return {};
}

// Without a handler, or when the handler returns (with 0: halt has put the
// default action back first), halt throws the text it wrote.
TEST(SessionHalt, ThrowsTheTextItWrote) {
    EXPECT_EQ(halted([] { rv::halt("failed query:  %s\n", "select 1"); }), "failed query:  select 1\n");
    EXPECT_EQ(halted([] { errno = ENOENT, rv::halt("PERROR : :rest %d\n", 7); }),
              "rest 7\nNo such file or directory\n");
    const std::string text = halted([] { rv::connectdb("host=/nonexistent/dir port=1 dbname=ravik_db"); });
    rv::release_session();
    const std::string first = "Connection to database using 'host=/nonexistent/dir port=1 dbname=ravik_db' failed.\n";
    EXPECT_TRUE(text.starts_with(first) && text.size() > first.size()) << "no reason after the first line: " << text;
    // The client library's reason on one line, each run of blanks one blank.
    const std::string reason = rv::session_failure();
    EXPECT_TRUE(reason.find("No such file or directory") != std::string::npos &&
                reason.find_first_of("\n\t") == std::string::npos && reason.find("  ") == std::string::npos)
        << reason;

    static int received = -1;
    std::signal(SIGINT, [](int signo) { received = signo; });
    EXPECT_EQ(halted([] { rv::halt("x\n"); }), "x\n");
    EXPECT_EQ(received, 0);
    EXPECT_EQ(std::signal(SIGINT, SIG_DFL), SIG_DFL);
}

// Against a server that never answers, connecting ends at connect_timeout of
// the connection string; a value that is no whole number fails at once. The
// reason is also kept on one line.
TEST(SessionHalt, ConnectingEndsAtTheConnectTimeout) {
    const rvtest::Sandbox box;
    const rvtest::SilentServer silent(box.root().string(), 1);
    const std::string host = "host=" + box.root().string() + " port=1 dbname=ravik_db connect_timeout=";
    const std::pair<std::string, std::string> cases[] = {
        {"2", "timeout expired: no answer from the server within 2 seconds (connect_timeout)"},
        {"2s", "invalid integer value \"2s\" for connection option \"connect_timeout\""},
    };
    for (const auto& [timeout, reason] : cases) {
        const std::string options = host + timeout;
        const std::string text = halted([&] { rv::connectdb(options.c_str()); });
        EXPECT_EQ(rv::session_failure(), reason);
        rv::release_session();
        EXPECT_EQ(text, "Connection to database using '" + options + "' failed.\n" + reason + "\n");
    }
}

TEST(SessionHaltDeathTest, CallsTheFirstInstalledHandler) {
    // SIGINT comes before SIGQUIT; an ignored SIGTERM is passed over.
    EXPECT_EXIT((std::signal(SIGTERM, SIG_IGN), std::signal(SIGINT, [](int) { _exit(5); }),
                 std::signal(SIGQUIT, [](int) { _exit(7); }), rv::halt("x\n")),
                ::testing::ExitedWithCode(5), "^x\n$");
}

// A result with columns c0..c<n-1> unless `names` are given.
rv::PgResultPtr make_result(std::vector<std::string> names, const std::vector<Row>& rows, int n = 0) {
    for (int i = 0; i < n; ++i) names.push_back("c" + std::to_string(i));
    rv::PgResultPtr res(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
    std::vector<PGresAttDesc> attrs;
    for (auto& name : names) attrs.push_back(PGresAttDesc{name.data(), 0, 0, 0, 25, -1, -1});
    EXPECT_TRUE(PQsetResultAttrs(res.get(), static_cast<int>(attrs.size()), attrs.data()));
    for (int r = 0; r < int(rows.size()); ++r) {
        for (int c = 0; auto v : rows[std::size_t(r)]) {
            EXPECT_TRUE(PQsetvalue(res.get(), r, c++, v ? v->data() : nullptr, v ? int(v->size()) : -1));
        }
    }
    return res;
}

TEST_F(Db, RecordListAndExportTextWithTheirColumnLimit) {
    // Not escaped: a value holding the separators stays as it is.
    auto res = make_result({"name", "size"}, {{"a|b=c", std::nullopt}, {"", "NULL"}});
    rv::DB_REC_LIS list;
    std::string msg;
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(res.get(), msg, &list));
    ASSERT_EQ(msg + "," + std::to_string(list.iRows()), "2,2");
    EXPECT_EQ(list.records[0].cpData + list.records[1].cpData, "|name=a|b=c|size=NULL||name=|size=NULL|");
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(make_result({}, {Row(100, "v")}, 100).get(), msg, &list));
    EXPECT_TRUE(list.records[0].cpData.ends_with("|c98=v|c99=v|"));

    bool ok = false;
    msg = "media";
    res = make_result({"id", "name", "note"}, {{"1", "a|b", std::nullopt}, {"2", "", "x"}});
    EXPECT_EQ(rvtest::capture(1, [&] { ok = rv::iPSQL_MAKE_EXPORT_FILE(res.get(), msg, nullptr); }),
              "INSERT INTO media (id,name,note) VALUES ('1','a|b',NULL);\n"
              "INSERT INTO media (id,name,note) VALUES ('2','','x');\n\n-- 2 rows found \n");
    EXPECT_TRUE(ok);

    // More than 100 columns are refused, the export before anything is written.
    res = make_result({}, {Row(101, "v")}, 101);
    msg = "wide";
    EXPECT_EQ(rvtest::capture(1, [&] { ok = rv::iPSQL_MAKE_EXPORT_FILE(res.get(), msg, nullptr); }), "");
    EXPECT_EQ(std::to_string(ok) + msg, "0too much columns ( max 100 )");
    rv::DB_REC_LIS refused;
    refused.szId = "wider";
    for (const auto lang : {rv::LANG_EN, rv::LANG_DE, rv::LANG_BA, rv::LANG_FR}) {
        msg.clear(), rv::eLang = lang;
        ok = rv::iPSQL_MAKE_DB_REC_LIS(res.get(), msg, &refused);
        EXPECT_EQ(std::to_string(ok) + msg + std::to_string(refused.iRows()), "0too much columns ( max 100 )0");
    }
    const std::string list_text = "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: ";
    EXPECT_EQ(rvtest::protocol_texts(prot), (Lines{"E017-DATABAS PSQL_MAKE_EXPORT_FILE wide: too much columns.",
                                                   list_text + "too much columns.", list_text + "zu viele Spalten",
                                                   list_text + "z´vuil Spaltn", list_text + "too much columns."}));
}

// The loader reads a statement a line: a value with a line feed is written
// as an escape string, which the loader leaves to the server to read.
TEST_F(Db, ExportTextKeepsAValueWithALineFeedOnItsLine) {
    const auto res = make_result({"id", "note"}, {{"1", "two\nlines, \\ and '"}, {"2", "a\\b"}});
    const std::string first = rv::export_line(res.get(), 0, "media");
    EXPECT_EQ(first, "INSERT INTO media (id,note) VALUES ('1',E'two\\nlines, \\\\ and ''');\n");
    EXPECT_EQ(rv::classify_line(first).kind, rv::ScriptLineKind::Alone);
    EXPECT_EQ(rv::export_line(res.get(), 1, "media"), "INSERT INTO media (id,note) VALUES ('2','a\\b');\n");
}

TEST_F(Db, DateFormsByDatabaseType) {
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        // type, keyword, argument, result
        {"postgres", "DATE", "2006-10-18", "2006-10-18 00:00:00"}, {"ORACLE", "DATE", "2006-10-18", "20061018"},
        // DATE_RAVIK goes by the second letter of the type.
        {"xRAY", "DATE_RAVIK", "20061018", "2006-10-18"}, {"sqlite", "DATE_RAVIK", "20061018", ""},
        // The time is appended before the cut: a short date keeps part of it.
        {"postgres", "DATE_RAVIK", "2006-1-8", "2006-1-8 0"},
        {"postgres", "DATE_TIME_RAVIK", "2006-10-18 12:34:56", "2006-10-18 12:34:56"},
        {"postgres", "MAX", "max(id)", "max"}, {"OpenAccess", "MAX", "max(id)", "COL1"}, {"other", "MAX", "max", ""},
    };
    for (const auto& [type, key, in, out] : cases) {
        box.set_glbv("gv_db_type", type);
        std::string msg = in;
        EXPECT_EQ(std::to_string(rv::iDB_CONVERT_DATE_TIME(key, msg)) + msg, "1" + out) << type << " " << key;
    }
    // An unknown keyword is refused in every language, also when it comes as
    // a statement (only two letters are looked at first).
    box.set_glbv("gv_db_type", "postgres");
    const std::pair<rv::LANGUAGES, std::string> unknown[] = {
        {rv::LANG_EN, "MAXIMUM"}, {rv::LANG_DE, "DATA"}, {rv::LANG_BA, "date"}};
    for (const auto& [lang, key] : unknown) {
        std::string msg = "x";
        rv::eLang = lang;
        EXPECT_EQ(std::to_string(rv::iDB_CONVERT_DATE_TIME(key, msg)) + msg, "0wrong function-argument: " + key);
    }
    rv::eLang = rv::LANG_EN;
    std::string msg;
    EXPECT_EQ(std::to_string(rv::iDB_ACCESS("DATA", msg, nullptr)) + msg, "0wrong function-argument: DATA");
    const std::string convert = "E008-DATABAS CONVERT_DATE_TIME: ";
    EXPECT_EQ(rvtest::protocol_texts(prot), (Lines{convert + "wrong parameter MAXIMUM", convert + "falsches "
                                                   "Argument DATA", convert + "foisches Argument date",
                                                   convert + "wrong parameter DATA"}));
}

TEST_F(Db, StatementTextAndForm) {
    // The quote repair: an assigned literal of an update ends at the next '='
    // (here behind "where"), else at "where"; a double quote inside any
    // literal goes.
    const std::tuple<std::string, bool, std::string> cases[] = {
        {"update t set a = 'x' where b = 'y'", true, "update t set a = 'x' where b = 'y'"},
        {"update t set a='O'Brien' where id=1", false, "update t set a='O\xB4" "Brien' where id=1"},
        {"update t set a='rock 'n' roll' where b is null", false,
         "update t set a='rock \xB4n\xB4 roll' where b is null"},
        {"insert into t values ('it's')", true, "insert into t values ('it's')"},
        {"insert into t values ('say \"hi\"', \"Col\")", false, "insert into t values ('say _hi_', \"Col\")"},
    };
    for (auto [sql, ok, out] : cases) {
        EXPECT_EQ(std::to_string(rv::CLEANUP_QUOTA(sql)) + sql, std::to_string(ok) + out);
    }
    std::string sql = "SELECT Name FROM Media WHERE Label='MiXed' AND Pool='P'";
    rv::SQL_LOWERCASE(sql);
    EXPECT_EQ(sql, "select name from media where label='MiXed' AND Pool='P'");

    using rv::SqlForm;
    const std::tuple<std::string, bool, SqlForm> forms[] = {
        {" select * from t", false, SqlForm::command}, {"select count(*) from t", true, SqlForm::calculated},
        {"select max(id) from t where a='X'", false, SqlForm::calculated},
        {"select count(*) from t GROUP BY a", false, SqlForm::record_list},  // no calculation with GROUP BY
        {"select avg(id) from t", false, SqlForm::record_list}, {"select * from t", true, SqlForm::export_text},
    };
    for (const auto& [text, with_list, form] : forms) EXPECT_EQ(rv::sql_form(text, with_list), form) << text;
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789";
    EXPECT_EQ(rv::select_table("select a from   jobs;") + "," + rv::select_table("select pg_sleep(5)") + "," +
                  rv::select_table("select * from " + name), "jobs;,," + name);
}

}  // namespace
