// Turning the database client's answer into a table image, and the answers
// that must fail the dump rather than produce a wrong image.
#include "steps/psql_dump.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "steps/table_image.hpp"
#include "support/sandbox.hpp"

namespace {

class DumpImage : public ::testing::Test {
  protected:
    // Converts the answer `sqo` for table "media".
    bool convert(const std::string& sqo) {
        const std::string file = box.dir("gv_rw_tmp") + "media.sqo";
        rvtest::write_file(file, sqo);
        return rv::iPGSQL_MAKE_DB_GET_FILE("media", file, msg);
    }
    // The image, or "<none>".
    std::string image() const {
        return std::filesystem::exists(path) ? rvtest::read_file(path) : "<none>";
    }

    rvtest::Sandbox box;
    std::string path = box.dir("gv_rw_work") + "db_media.tmp";
    std::string msg;
};

TEST_F(DumpImage, RowsBecomeLowerCasedTrimmedPairs) {
    EXPECT_EQ(rv::table_image_path("media"), path);
    ASSERT_TRUE(
        convert("select distinct * from media\nID|Label|size\n4| weekly |NULL\n"
                "5|Mo=Fr|12\n(2 rows)\n"));
    EXPECT_EQ(msg, "2");
    EXPECT_EQ(image(), "|id=4|label=weekly|size=NULL|\n|id=5|label=Mo=Fr|size=12|\n");
    // A data value that merely holds the footer text is data, not the end.
    ASSERT_TRUE(convert("s\nnote\nsee (2 rows)\n(1 row)\n"));
    EXPECT_EQ(msg, "1");
    EXPECT_EQ(image(), "|note=see (2 rows)|\n");
    // No rows, or a command tag, leave no image, not even an older one.
    ASSERT_TRUE(convert("select distinct * from media\nid|label\n(0 rows)\n"));
    EXPECT_EQ(msg, "0");
    EXPECT_EQ(image(), "<none>");
    rvtest::write_file(path, "|old=1|\n");
    ASSERT_TRUE(convert("insert into media values (1)\nINSERT 0 1\n"));
    EXPECT_EQ(msg, "0");
    EXPECT_EQ(image(), "<none>");
}

TEST_F(DumpImage, AnswersThatCannotBeCarriedFailTheDump) {
    std::string header;
    std::string row;
    for (int i = 0; i < 31; ++i) {
        header += (i ? "|c" : "c") + std::to_string(i);
        row += i ? "|1" : "1";
    }
    const std::pair<std::string, std::string> cases[] = {
        {"s\nid|note\n1|two\nlines\n(1 row)\n", "row 2 of media has 1 fields for 2 columns"},
        {"s\nid\n1\n2\n(1 row)\n", "2 rows read, but the database reported 1"},
        {"s\nid\n1\n", "no row count"},
        {"s\n" + header + "\n" + row + "\n(1 row)\n",
         "media has 31 columns, a table image holds at most 30"},
        {"s\nexpiration_date_u\n(0 rows)\n", "column name expiration_date_u of media has 17 bytes"},
        {"only the statement\n", "Can't find lines with column-names"},
    };
    for (const auto& [sqo, reason] : cases) {
        rvtest::write_file(path, "|stale=1|\n");
        EXPECT_FALSE(convert(sqo)) << sqo;
        EXPECT_NE(msg.find(reason), std::string::npos) << msg;
        EXPECT_EQ(image(), "<none>") << "no stale image may be loaded later";
    }
    EXPECT_TRUE(convert("s\nexpiration_date\n1\n(1 row)\n"));
    EXPECT_FALSE(rv::iPGSQL_MAKE_DB_GET_FILE("media", box.path("none.sqo"), msg));
    EXPECT_EQ(msg, "Can't open file " + box.path("none.sqo") + " to read");
}

}  // namespace
