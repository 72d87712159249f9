// Record lists and export text built from client-library results made in
// memory, so no server is needed.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "db/records.hpp"
#include "db/session.hpp"
#include "support/product_test.hpp"

namespace {

using Row = std::vector<std::optional<std::string>>;

// A result with columns c0..c<n-1> unless `names` are given.
rv::PgResultPtr make_result(std::vector<std::string> names, const std::vector<Row>& rows,
                            int n = 0) {
    for (int i = 0; i < n; ++i) {
        names.push_back("c" + std::to_string(i));
    }
    rv::PgResultPtr res(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
    std::vector<PGresAttDesc> attrs;
    for (auto& name : names) {
        attrs.push_back(PGresAttDesc{name.data(), 0, 0, 0, 25, -1, -1});
    }
    EXPECT_TRUE(PQsetResultAttrs(res.get(), static_cast<int>(attrs.size()), attrs.data()));
    for (std::size_t r = 0; r < rows.size(); ++r) {
        for (std::size_t c = 0; c < rows[r].size(); ++c) {
            const auto& v = rows[r][c];
            EXPECT_TRUE(PQsetvalue(res.get(), static_cast<int>(r), static_cast<int>(c),
                                   v ? const_cast<char*>(v->c_str()) : nullptr,
                                   v ? static_cast<int>(v->size()) : -1));
        }
    }
    return res;
}

using Records = rvtest::ProductTest;

TEST_F(Records, RecordListTextsAndTheColumnLimit) {
    // Not escaped: a value holding the separators stays as it is.
    auto res = make_result({"name", "size"}, {{"a|b=c", std::nullopt}, {"", "NULL"}});
    rv::DB_REC_LIS list;
    std::string msg;
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(res.get(), msg, &list));
    EXPECT_EQ(msg, "2");
    ASSERT_EQ(list.iRows(), 2);
    EXPECT_EQ(list.records[0].cpData, "|name=a|b=c|size=NULL|");
    EXPECT_EQ(list.records[1].cpData, "|name=|size=NULL|");

    ASSERT_TRUE(
        rv::iPSQL_MAKE_DB_REC_LIS(make_result({}, {Row(100, "v")}, 100).get(), msg, &list));
    EXPECT_TRUE(list.records[0].cpData.ends_with("|c98=v|c99=v|"));
    auto wider = make_result({}, {Row(101, "v")}, 101);
    rv::DB_REC_LIS refused;
    refused.szId = "wider";
    for (const auto lang : {rv::LANG_EN, rv::LANG_DE, rv::LANG_BA, rv::LANG_FR}) {
        rv::eLang = lang;
        EXPECT_FALSE(rv::iPSQL_MAKE_DB_REC_LIS(wider.get(), msg, &refused));
        EXPECT_EQ(msg, "too much columns ( max 100 )");
    }
    EXPECT_EQ(refused.iRows(), 0);
    EXPECT_EQ(
        rvtest::protocol_texts(prot),
        (std::vector<std::string>{"E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: too much columns.",
                                  "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: zu viele Spalten",
                                  "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: z´vuil Spaltn",
                                  "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: too much columns."}));
}

TEST_F(Records, ExportTextAndItsColumnLimit) {
    bool ok = false;
    std::string msg = "media";
    auto res = make_result({"id", "name", "note"}, {{"1", "a|b", std::nullopt}, {"2", "", "x"}});
    EXPECT_EQ(
        rvtest::capture(1, [&] { ok = rv::iPSQL_MAKE_EXPORT_FILE(res.get(), msg, nullptr); }),
        "INSERT INTO media (id,name,note) VALUES ('1','a|b',NULL);\n"
        "INSERT INTO media (id,name,note) VALUES ('2','','x');\n"
        "\n-- 2 rows found \n");
    EXPECT_TRUE(ok);
    // More than 100 columns are refused before anything is written.
    msg = "wide";
    res = make_result({}, {Row(101, "v")}, 101);
    EXPECT_EQ(
        rvtest::capture(1, [&] { ok = rv::iPSQL_MAKE_EXPORT_FILE(res.get(), msg, nullptr); }),
        "");
    EXPECT_FALSE(ok);
    EXPECT_EQ(msg, "too much columns ( max 100 )");
    EXPECT_EQ(
        rvtest::protocol_texts(prot),
        std::vector<std::string>{"E017-DATABAS PSQL_MAKE_EXPORT_FILE wide: too much columns."});
}

}  // namespace
