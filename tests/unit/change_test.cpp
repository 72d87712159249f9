// The table change: reading the image, adding and dropping columns, the
// INSERT script, and the refusals that keep data from being cut.
#include "steps/change.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "config/product.hpp"
#include "log/finish.hpp"
#include "steps/table_image.hpp"
#include "support/sandbox.hpp"

namespace {

class TableChange : public ::testing::Test {
  protected:
    void SetUp() override {
        rv::rvdb_ini = box.path("rv_db_update.ini");
        rv::glbvVersion = "1.6.4.";
    }
    void TearDown() override {
        rv::rvdb_ini.clear();
        rv::glbvVersion.reset();
    }
    void prepare(const std::string& image, const std::string& section, bool with = true) {
        if (with) {
            rvtest::write_file(work + "db_media.tmp", image);
        }
        rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\n" + section);
    }
    // Changes the image `image` with the keys `section`; returns the new
    // image, the console text in `out`.
    std::string change(const std::string& image, const std::string& section, bool with = true) {
        prepare(image, section, with);
        out = rvtest::capture(1, [] { rv::db_change("media"); });
        return rvtest::read_file(work + "db_media.tmp");
    }
    // The change ends the run: exit status 2.
    void refused(const std::string& image, const std::string& section) {
        prepare(image, section);
        try {
            rvtest::capture(1, [] { rv::db_change("media"); });
            ADD_FAILURE() << "not refused: " << section;
        } catch (const rv::Fatal& fatal) {
            EXPECT_EQ(fatal.status(), rv::RV_ERROR) << fatal.what();
        }
    }

    rvtest::Sandbox box;
    std::string work = box.dir("gv_rw_work");
    std::string out;
};

TEST_F(TableChange, AddsAndDropsColumns) {
    EXPECT_EQ(change("|id=1|label=A|old=x|\n|id=2|label=B'C|old=NULL|\n",
                     "ADD_COLUMNS=pool,note\nADD_VALUES='daily',NULL\nDEL_COLUMNS=old\n"),
              "connect ravik_db\n"
              "INSERT INTO media (id,label,pool,note) VALUES ('1','A','daily',NULL);\n"
              "INSERT INTO media (id,label,pool,note) VALUES ('2','B''C','daily',NULL);\n");
    EXPECT_EQ(out,
              "change table media\n"
              "db_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
              "db_change after add_entry ( pstrFirstRow, note, NULL)\n"
              "db_change call add_entry ( pstrFirstRow, note, NULL)\n"
              "db_change after add_entry ( pstrFirstRow, , )\n");

    const std::string head = "connect ravik_db\nINSERT INTO media ";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // No comma in the column list: one pair only.
        {"|id=1|\n", "ADD_COLUMNS=a\nADD_VALUES=1,2\n", head + "(id,a) VALUES ('1','1');\n"},
        // Values without columns add a column named KEY_NOT_FOUND.
        {"|id=1|\n", "ADD_VALUES=7\n", head + "(id,KEY_NOT_FOUND) VALUES ('1','7');\n"},
        // Deleting the first column works; the value keeps all behind the first '='.
        {"|id=1|expr=a=b|\n", "DEL_COLUMNS=id\n", head + "(expr) VALUES ('a=b');\n"},
        // An empty value stays an empty string; quoting of the values.
        {"|id=1|note=|\n", "", head + "(id,note) VALUES ('1','');\n"},
        {"|a=it's|b=NULL|c=x,y)|\n", "", head + "(a,b,c) VALUES ('it''s',NULL,'x,y)');\n"},
        {"", "ADD_COLUMNS=a\nADD_VALUES=1\n", "connect ravik_db\n"},
    };
    for (const auto& [image, section, script] : cases) {
        EXPECT_EQ(change(image, section), script) << image << section;
    }
}

TEST_F(TableChange, MissingImageGivesAnEmptyScript) {
    EXPECT_EQ(change("", "DEL_COLUMNS=x\n", false), "connect ravik_db\n");
    EXPECT_EQ(out,
              "can not open file " + work + "db_media.tmp: return false\nchange table media\n");
}

TEST_F(TableChange, WorkDirectoryOfTheGlobalVariableWinsAndTheDisagreementIsToldOnce) {
    const std::string other = box.path("elsewhere/");
    box.set_glbv("gv_rw_work", other);
    rvtest::write_file(other + "db_media.tmp", "|id=1|\n");
    rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\n");
    EXPECT_EQ(rvtest::capture(1, [] { rv::db_change("media"); }),
              "work directory: global variable gv_rw_work (" + other +
                  ") differs from rv.ini gv_rw_work (" + work + "); " + other +
                  " is used\nchange table media\n");
    EXPECT_EQ(rvtest::read_file(other + "db_media.tmp"),
              "connect ravik_db\nINSERT INTO media (id) VALUES ('1');\n");
    EXPECT_FALSE(std::filesystem::exists(work + "db_media.tmp"));
    // The dump, import and export name the same file, without telling again.
    std::string path;
    EXPECT_EQ(rvtest::capture(1, [&] { path = rv::table_image_path("media"); }), "");
    EXPECT_EQ(path, other + "db_media.tmp");
}

TEST_F(TableChange, RefusalsLeaveTheImage) {
    for (const std::string& image :
         {"|id=1|label=" + std::string(300, 'x') + "|\n", std::string("|id=1|\n|broken|\n")}) {
        refused(image, "");
        EXPECT_EQ(rvtest::read_file(work + "db_media.tmp"), image);
        // The run ended while the new image was being written: it is gone.
        std::vector<std::string> left;
        for (const auto& entry : std::filesystem::directory_iterator(work)) {
            left.push_back(entry.path().filename().string());
        }
        EXPECT_EQ(left, std::vector<std::string>{"db_media.tmp"});
    }
    refused("|id=1|\n", "ADD_COLUMNS=a,b\nADD_VALUES=,\n");
}

}  // namespace
