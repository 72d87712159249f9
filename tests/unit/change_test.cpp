// The table change: reading the image, adding and dropping columns, the
// INSERT script, and the refusals that keep data from being cut.
#include "steps/change.hpp"

#include <gtest/gtest.h>

#include "config/product.hpp"
#include "support/sandbox.hpp"

namespace {

class TableChange : public ::testing::Test {
protected:
    void SetUp() override {
        work = box.dir("gv_rw_work");
        rv::pathes.var_work = work;
        rv::rvdb_ini = box.path("rv_db_update.ini");
        rv::glbvVersion = "1.6.4.";
    }
    void TearDown() override {
        rv::pathes.var_work.clear();
        rv::rvdb_ini.clear();
        rv::glbvVersion.reset();
    }
    std::string change(const std::string& image, const std::string& section, std::string* out = nullptr) {
        rvtest::write_file(work + "db_media.tmp", image);
        rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\n" + section);
        rvtest::CaptureFd capture(1);
        rv::db_change("media");
        const std::string text = capture.finish();
        if (out) {
            *out = text;
        }
        return rvtest::read_file(work + "db_media.tmp");
    }

    rvtest::Sandbox box;
    std::string work;
};

TEST_F(TableChange, AddsAndDropsColumns) {
    std::string out;
    const std::string script = change("|id=1|label=A|old=x|\n|id=2|label=B'C|old=NULL|\n",
                                      "ADD_COLUMNS=pool,note\nADD_VALUES='daily',NULL\nDEL_COLUMNS=old\n", &out);
    EXPECT_EQ(script,
              "connect ravik_db\n"
              "INSERT INTO media (id,label,pool,note) VALUES ('1','A','daily',NULL);\n"
              "INSERT INTO media (id,label,pool,note) VALUES ('2','B''C','daily',NULL);\n");
    EXPECT_EQ(out,
              "change table media\n"
              "db_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
              "db_change after add_entry ( pstrFirstRow, note, NULL)\n"
              "db_change call add_entry ( pstrFirstRow, note, NULL)\n"
              "db_change after add_entry ( pstrFirstRow, , )\n");
}

TEST_F(TableChange, ListRules) {
    // No comma in the column list: one pair only.
    EXPECT_EQ(change("|id=1|\n", "ADD_COLUMNS=a\nADD_VALUES=1,2\n"),
              "connect ravik_db\nINSERT INTO media (id,a) VALUES ('1','1');\n");
    // Values without columns add a column named KEY_NOT_FOUND.
    EXPECT_EQ(change("|id=1|\n", "ADD_VALUES=7\n"),
              "connect ravik_db\nINSERT INTO media (id,KEY_NOT_FOUND) VALUES ('1','7');\n");
    // Deleting the first column works; the value keeps all behind the first '='.
    EXPECT_EQ(change("|id=1|expr=a=b|\n", "DEL_COLUMNS=id\n"),
              "connect ravik_db\nINSERT INTO media (expr) VALUES ('a=b');\n");
    // An empty value stays an empty string.
    EXPECT_EQ(change("|id=1|note=|\n", ""), "connect ravik_db\nINSERT INTO media (id,note) VALUES ('1','');\n");
    EXPECT_EQ(change("", "ADD_COLUMNS=a\nADD_VALUES=1\n"), "connect ravik_db\n");
}

TEST_F(TableChange, MissingImageGivesAnEmptyScript) {
    rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\nDEL_COLUMNS=x\n");
    rvtest::CaptureFd capture(1);
    rv::db_change("media");
    EXPECT_EQ(capture.finish(), "can not open file " + work + "db_media.tmp: return false\nchange table media\n");
    EXPECT_EQ(rvtest::read_file(work + "db_media.tmp"), "connect ravik_db\n");
}

TEST_F(TableChange, InsertLineQuoting) {
    rv::strRow row;
    row.columns = {{"a", "it's"}, {"b", "NULL"}, {"c", "x,y)"}, {"d", ""}};
    EXPECT_EQ(rv::insert_line("t", row), "INSERT INTO t (a,b,c,d) VALUES ('it''s',NULL,'x,y)','');");
}

TEST_F(TableChange, RefusalsLeaveTheImage) {
    const std::string image = "|id=1|label=" + std::string(300, 'x') + "|\n";
    EXPECT_EXIT(change(image, ""), ::testing::ExitedWithCode(2), "");
    EXPECT_EQ(rvtest::read_file(work + "db_media.tmp"), image);

    const std::string malformed = "|id=1|\n|broken|\n";
    EXPECT_EXIT(change(malformed, ""), ::testing::ExitedWithCode(2), "");
    EXPECT_EQ(rvtest::read_file(work + "db_media.tmp"), malformed);

    EXPECT_EXIT(change("|id=1|\n", "ADD_COLUMNS=a,b\nADD_VALUES=,\n"), ::testing::ExitedWithCode(2), "");
}

}  // namespace
