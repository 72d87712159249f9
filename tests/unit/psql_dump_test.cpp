// Turning the database client's answer into a table image, and the answers
// that must fail the dump rather than produce a wrong image.
#include "steps/psql_dump.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/sandbox.hpp"

namespace {

class DumpImage : public ::testing::Test {
protected:
    // Converts the answer `sqo` for table "media"; returns the message.
    bool convert(const std::string& sqo, std::string& msg) {
        const std::string file = box.dir("gv_rw_tmp") + "media.sqo";
        rvtest::write_file(file, sqo);
        return rv::iPGSQL_MAKE_DB_GET_FILE("media", file, msg, rv::str_log{});
    }
    std::string image() const { return rvtest::read_file(box.dir("gv_rw_work") + "db_media.tmp"); }
    bool image_exists() const { return std::filesystem::exists(box.dir("gv_rw_work") + "db_media.tmp"); }

    rvtest::Sandbox box;
};

TEST_F(DumpImage, RowsBecomeLowerCasedTrimmedPairs) {
    std::string msg;
    ASSERT_TRUE(convert("select distinct * from media\nID|Label|size\n4| weekly |NULL\n5|Mo=Fr|12\n(2 rows)\n", msg));
    EXPECT_EQ(msg, "2");
    EXPECT_EQ(image(), "|id=4|label=weekly|size=NULL|\n|id=5|label=Mo=Fr|size=12|\n");
    EXPECT_EQ(rv::table_image_path("media"), box.dir("gv_rw_work") + "db_media.tmp");

    ASSERT_TRUE(convert("select 1\nx\n1\n(1 row)\n", msg));
    EXPECT_EQ(msg, "1");
    EXPECT_EQ(image(), "|x=1|\n");
}

TEST_F(DumpImage, NoRowsOrCommandTagLeaveNoImage) {
    std::string msg;
    rvtest::write_file(box.dir("gv_rw_work") + "db_media.tmp", "|old=1|\n");
    ASSERT_TRUE(convert("select distinct * from media\nid|label\n(0 rows)\n", msg));
    EXPECT_EQ(msg, "0");
    EXPECT_FALSE(image_exists());
    ASSERT_TRUE(convert("insert into media values (1)\nINSERT 0 1\n", msg));
    EXPECT_EQ(msg, "0");
    EXPECT_FALSE(image_exists());
}

TEST_F(DumpImage, AnswersThatCannotBeCarriedFailTheDump) {
    std::string msg;
    // A value holding '|': one field too many.
    rvtest::write_file(box.dir("gv_rw_work") + "db_media.tmp", "|stale=1|\n");
    EXPECT_FALSE(convert("s\nid|note\n1|a|b\n(1 row)\n", msg));
    EXPECT_NE(msg.find("row 1 of media has 3 fields for 2 columns"), std::string::npos) << msg;
    EXPECT_FALSE(image_exists()) << "no stale image may be loaded later";

    // A value holding a line break: the rows do not add up.
    EXPECT_FALSE(convert("s\nid|note\n1|two\nlines\n(1 row)\n", msg));
    EXPECT_NE(msg.find("row 2 of media has 1 fields for 2 columns"), std::string::npos) << msg;
    EXPECT_FALSE(convert("s\nid\n1\n2\n(1 row)\n", msg));
    EXPECT_NE(msg.find("2 rows read, but the database reported 1"), std::string::npos) << msg;
    EXPECT_FALSE(convert("s\nid\n1\n", msg));
    EXPECT_NE(msg.find("no row count"), std::string::npos) << msg;
    EXPECT_FALSE(image_exists());

    // A data value that merely holds the footer text is data, not the end.
    ASSERT_TRUE(convert("s\nnote\nsee (2 rows)\n(1 row)\n", msg));
    EXPECT_EQ(image(), "|note=see (2 rows)|\n");
}

TEST_F(DumpImage, ColumnLimitsAreRefused) {
    std::string msg;
    std::string header;
    std::string row;
    for (int i = 0; i < 31; ++i) {
        header += (i ? "|c" : "c") + std::to_string(i);
        row += i ? "|1" : "1";
    }
    EXPECT_FALSE(convert("s\n" + header + "\n" + row + "\n(1 row)\n", msg));
    EXPECT_NE(msg.find("media has 31 columns, a table image holds at most 30"), std::string::npos) << msg;
    EXPECT_FALSE(convert("s\nexpiration_date_u\n(0 rows)\n", msg));
    EXPECT_NE(msg.find("column name expiration_date_u of media has 17 bytes"), std::string::npos) << msg;
    EXPECT_TRUE(convert("s\nexpiration_date\n1\n(1 row)\n", msg));
}

TEST_F(DumpImage, MissingAnswerFile) {
    std::string msg;
    EXPECT_FALSE(rv::iPGSQL_MAKE_DB_GET_FILE("media", box.path("none.sqo"), msg, rv::str_log{}));
    EXPECT_EQ(msg, "Can't open file " + box.path("none.sqo") + " to read");
    EXPECT_FALSE(convert("only the statement\n", msg));
    EXPECT_EQ(msg, "Can't find lines with column-names");
}

}  // namespace
