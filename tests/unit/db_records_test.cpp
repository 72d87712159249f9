// Record lists, export text and computed values built from client-library
// results made in memory, so no server is needed.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <optional>
#include <string>
#include <vector>

#include "config/glbv.hpp"
#include "db/records.hpp"
#include "db/session.hpp"
#include "support/sandbox.hpp"

namespace {

using Row = std::vector<std::optional<std::string>>;

rv::PgResultPtr make_result(const std::vector<std::string>& names, const std::vector<Row>& rows) {
    rv::PgResultPtr res(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
    std::vector<PGresAttDesc> attrs(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        attrs[i] = PGresAttDesc{const_cast<char*>(names[i].c_str()), 0, 0, 0, 25, -1, -1};
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

std::vector<std::string> numbered_names(int n) {
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) {
        names.push_back("c" + std::to_string(i));
    }
    return names;
}

class Records : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string name = "gv_prot";
        std::string value = box.path("prot.log");
        rv::glbv('w', name, value);
        rv::eLang = rv::LANG_EN;
    }
    void TearDown() override { rv::eLang = rv::LANG_EN; }

    // Protocol texts after "<code>[<pid>]: ", each with its code in front.
    std::vector<std::string> protocol() const {
        std::vector<std::string> texts;
        for (const auto& line : rvtest::read_lines(box.path("prot.log"))) {
            const auto bracket = line.find("[");
            const auto colon = line.find("]: ");
            if (bracket != std::string::npos && colon != std::string::npos && bracket >= 12) {
                texts.push_back(line.substr(bracket - 12, 12) + " " + line.substr(colon + 3));
            }
        }
        return texts;
    }

    rvtest::Sandbox box;
    rv::str_log log;
};

TEST_F(Records, RecordListTextsNullsSeparatorsAndNumbering) {
    auto res = make_result({"name", "size", "comment"},
                           {{"abc", "12", std::nullopt}, {"a|b=c", "", "NULL"}, {"x", "1", "y"}});
    rv::DB_REC_LIS list;
    list.szId = "lst";
    std::string msg;
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(res.get(), msg, &list, log));
    EXPECT_EQ(msg, "3");
    ASSERT_EQ(list.iRows(), 3);
    EXPECT_EQ(list.records[0].cpData, "|name=abc|size=12|comment=NULL|");
    // Not escaped: a value holding the separators stays as it is.
    EXPECT_EQ(list.records[1].cpData, "|name=a|b=c|size=|comment=NULL|");
    EXPECT_EQ(list.records[2].cpData, "|name=x|size=1|comment=y|");
    EXPECT_EQ(list.records[0].iRow, 1);
    EXPECT_EQ(list.records[1].iRow, 1);
    EXPECT_EQ(list.records[2].iRow, 2);

    auto empty = make_result({"name"}, {});
    rv::DB_REC_LIS none;
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(empty.get(), msg, &none, log));
    EXPECT_EQ(msg, "0");
    EXPECT_EQ(none.iRows(), 0);

    // Without a list the rows are only counted.
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(res.get(), msg, nullptr, log));
    EXPECT_EQ(msg, "3");
}

TEST_F(Records, HundredColumnsFitAHundredAndOneAreRefused) {
    const auto names100 = numbered_names(100);
    auto wide = make_result(names100, {Row(100, std::optional<std::string>("v"))});
    rv::DB_REC_LIS list;
    list.szId = "wide";
    std::string msg;
    ASSERT_TRUE(rv::iPSQL_MAKE_DB_REC_LIS(wide.get(), msg, &list, log));
    ASSERT_EQ(list.iRows(), 1);
    EXPECT_EQ(list.records[0].cpData.rfind("|c0=v|c1=v|", 0), 0u);
    EXPECT_EQ(list.records[0].cpData.substr(list.records[0].cpData.size() - 7), "|c99=v|");

    auto wider = make_result(numbered_names(101), {Row(101, std::optional<std::string>("v"))});
    rv::DB_REC_LIS refused;
    refused.szId = "wider";
    EXPECT_FALSE(rv::iPSQL_MAKE_DB_REC_LIS(wider.get(), msg, &refused, log));
    EXPECT_EQ(msg, "too much columns ( max 100 )");
    EXPECT_EQ(refused.iRows(), 0);

    rv::eLang = rv::LANG_DE;
    EXPECT_FALSE(rv::iPSQL_MAKE_DB_REC_LIS(wider.get(), msg, &refused, log));
    rv::eLang = rv::LANG_BA;
    EXPECT_FALSE(rv::iPSQL_MAKE_DB_REC_LIS(wider.get(), msg, &refused, log));
    rv::eLang = rv::LANG_FR;
    EXPECT_FALSE(rv::iPSQL_MAKE_DB_REC_LIS(wider.get(), msg, &refused, log));
    const std::vector<std::string> expected = {
        "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: too much columns.",
        "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: zu viele Spalten",
        "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: z´vuil Spaltn",
        "E017-DATABAS PSQL_MAKE_DB_REC_LIS wider: too much columns.",
    };
    EXPECT_EQ(protocol(), expected);
}

TEST_F(Records, ExportTextLinesNullsAndClosingCount) {
    auto res = make_result({"id", "name", "note"}, {{"1", "a|b", std::nullopt}, {"2", "", "x"}});
    std::string msg = "media";
    rvtest::CaptureFd out(1);
    ASSERT_TRUE(rv::iPSQL_MAKE_EXPORT_FILE(res.get(), msg, nullptr, log));
    EXPECT_EQ(out.finish(),
              "INSERT INTO media (id,name,note) VALUES ('1','a|b',NULL);\n"
              "INSERT INTO media (id,name,note) VALUES ('2','','x');\n"
              "\n-- 2 rows found \n");
    EXPECT_EQ(msg, "media");

    auto empty = make_result({"id"}, {});
    rvtest::CaptureFd out0(1);
    ASSERT_TRUE(rv::iPSQL_MAKE_EXPORT_FILE(empty.get(), msg, nullptr, log));
    EXPECT_EQ(out0.finish(), "\n-- 0 rows found \n");

    // The name table has room for 100 columns: more are refused before
    // anything is written.
    auto wider = make_result(numbered_names(101), {Row(101, std::optional<std::string>("v"))});
    msg = "wide";
    rvtest::CaptureFd out101(1);
    EXPECT_FALSE(rv::iPSQL_MAKE_EXPORT_FILE(wider.get(), msg, nullptr, log));
    EXPECT_EQ(out101.finish(), "");
    EXPECT_EQ(msg, "too much columns ( max 100 )");
    EXPECT_EQ(protocol(), std::vector<std::string>{
                              "E017-DATABAS PSQL_MAKE_EXPORT_FILE wide: too much columns."});

    auto hundred = make_result(numbered_names(100), {Row(100, std::nullopt)});
    msg = "t";
    rvtest::CaptureFd out100(1);
    EXPECT_TRUE(rv::iPSQL_MAKE_EXPORT_FILE(hundred.get(), msg, nullptr, log));
    const std::string text = out100.finish();
    EXPECT_NE(text.find(",c99) VALUES (NULL,"), std::string::npos) << text;
}

TEST_F(Records, CalculatedValueIsTheFirstField) {
    auto res = make_result({"count", "other"}, {{"42", "x"}, {"7", "y"}});
    std::string msg = "old";
    EXPECT_TRUE(rv::iPSQL_GET_CALCULATED_VALUE(res.get(), msg, log));
    EXPECT_EQ(msg, "42");
    auto empty = make_result({"max"}, {});
    EXPECT_TRUE(rv::iPSQL_GET_CALCULATED_VALUE(empty.get(), msg, log));
    EXPECT_EQ(msg, "");
}

}  // namespace
