// Steps: the table change (image, added and dropped columns, the INSERT
// script, the refusals that keep data from being cut), the table image made
// from the database client's answer, and command steps (the rewriting of
// words, Windows command words, the removal command).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include <unistd.h>

#include "config/product.hpp"
#include "log/finish.hpp"
#include "steps/answer_image.hpp"
#include "steps/change.hpp"
#include "steps/command.hpp"
#include "steps/psql_dump.hpp"
#include "steps/table_image.hpp"
#include "steps/unload.hpp"
#include "support/fake_runner.hpp"
#include "support/sandbox.hpp"
#include "support/terminal.hpp"

namespace {

namespace fs = std::filesystem;

class Steps : public ::testing::Test {
  protected:
    void SetUp() override {
        rv::rvdb_ini = box.path("rv_db_update.ini");
        rv::glbvVersion = "1.6.4.";
        box.set_glbv("gv_export", "/exp/");
    }
    void TearDown() override {
        rv::rvdb_ini.clear();
        rv::glbvVersion.reset();
        rv::pathes.separator = '/';
    }
    void prepare(const std::string& image, const std::string& section) {
        rvtest::write_file(image_path, image);
        rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\n" + section);
    }
    // Changes the image `image` with the keys `section`; returns the new
    // image, the console text in `out`.
    std::string change(const std::string& image, const std::string& section) {
        prepare(image, section);
        out = rvtest::capture(1, [] { rv::db_change("media"); });
        return image_now();
    }
    // The image, or "<none>".
    std::string image_now() const { return fs::exists(image_path) ? rvtest::read_file(image_path) : "<none>"; }
    // `text` with every 14-digit time stamp replaced by "<stamp>".
    static std::string stamped(const std::string& s) { return regex_replace(s, std::regex("\\d{14}"), "<stamp>"); }

    rvtest::Sandbox box;
    std::string work = box.dir("gv_rw_work");
    std::string image_path = work + "db_media.tmp";
    std::string out;
};

TEST_F(Steps, ChangeAddsAndDropsColumns) {
    EXPECT_EQ(change("|id=1|label=A|old=x|\n|id=2|label=B'C|old=NULL|\n",
                     "ADD_COLUMNS=pool,note\nADD_VALUES='daily',NULL\nDEL_COLUMNS=old\n"),
              "connect ravik_db\nINSERT INTO media (id,label,pool,note) VALUES ('1','A','daily',NULL);\n"
              "INSERT INTO media (id,label,pool,note) VALUES ('2','B''C','daily',NULL);\n");
    EXPECT_EQ(out, "change table media\ndb_change call add_entry ( pstrFirstRow, pool, 'daily')\n"
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
        // An empty value stays an empty string; quotes doubled, NULL bare, commas kept.
        {"|id=1|note=|\n", "", head + "(id,note) VALUES ('1','');\n"},
        {"|a=it's|b=NULL|c=x,y)|\n", "", head + "(a,b,c) VALUES ('it''s',NULL,'x,y)');\n"},
        {"", "ADD_COLUMNS=a\nADD_VALUES=1\n", "connect ravik_db\n"},
    };
    for (const auto& [image, section, script] : cases) EXPECT_EQ(change(image, section), script) << image << section;
    // A missing image gives an empty script.
    fs::remove(image_path);
    rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\nDEL_COLUMNS=x\n");
    out = rvtest::capture(1, [] { rv::db_change("media"); });
    EXPECT_EQ(image_now(), "connect ravik_db\n");
    EXPECT_EQ(out, "can not open file " + image_path + ": return false\nchange table media\n");
}

TEST_F(Steps, ChangeTakesTheWorkDirectoryOfTheGlobalVariableAndTellsTheDisagreementOnce) {
    const std::string other = box.path("elsewhere/");
    box.set_glbv("gv_rw_work", other);
    rvtest::write_file(other + "db_media.tmp", "|id=1|\n");
    rvtest::write_file(rv::rvdb_ini, "[1.6.4.media]\n");
    EXPECT_EQ(rvtest::capture(1, [] { rv::db_change("media"); }),
              "work directory: global variable gv_rw_work (" + other + ") differs from rv.ini gv_rw_work (" + work +
                  "); " + other + " is used\nchange table media\n");
    EXPECT_EQ(rvtest::read_file(other + "db_media.tmp"), "connect ravik_db\nINSERT INTO media (id) VALUES ('1');\n");
    EXPECT_FALSE(fs::exists(image_path));
    // The dump, import and export name the same file, without telling again.
    std::string path;
    EXPECT_EQ(rvtest::capture(1, [&] { path = rv::table_image_path("media"); }) + path, other + "db_media.tmp");
}

TEST_F(Steps, ChangeRefusalsEndTheRunAndLeaveTheImage) {
    const std::pair<std::string, std::string> cases[] = {
        {"|id=1|label=" + std::string(300, 'x') + "|\n", ""},
        {"|id=1|\n|broken|\n", ""},
        {"|id=1|\n", "ADD_COLUMNS=a,b\nADD_VALUES=,\n"},
    };
    for (const auto& [image, section] : cases) {
        prepare(image, section);
        try {
            rvtest::capture(1, [] { rv::db_change("media"); });
            ADD_FAILURE() << "not refused: " << image << section;
        } catch (const rv::Fatal& fatal) {
            EXPECT_EQ(fatal.status(), rv::RV_ERROR) << fatal.what();
        }
        EXPECT_EQ(rvtest::read_file(image_path), image);
        // The run ended while the new image was being written: it is gone.
        std::vector<std::string> left;
        for (const auto& entry : fs::directory_iterator(work)) left.push_back(entry.path().filename());
        EXPECT_EQ(left, std::vector<std::string>{"db_media.tmp"});
    }
}

TEST_F(Steps, DumpAnswerBecomesTheImageOrFailsTheDump) {
    EXPECT_EQ(rv::table_image_path("media"), image_path);
    std::string header = "c0", row = "1";
    for (int i = 1; i < 31; ++i) header += "|c" + std::to_string(i), row += "|1";
    const std::string none = "<none>";  // no image
    const std::tuple<std::string, bool, std::string, std::string> cases[] = {
        // answer, converted, its message (or a part of it), the image
        {"select distinct * from media\nID|Label|size\n4| weekly |NULL\n5|Mo=Fr|12\n(2 rows)\n", true, "2",
         "|id=4|label=weekly|size=NULL|\n|id=5|label=Mo=Fr|size=12|\n"},
        // A data value that merely holds the footer text is data, not the end.
        {"s\nnote\nsee (2 rows)\n(1 row)\n", true, "1", "|note=see (2 rows)|\n"},
        {"s\nexpiration_date\n1\n(1 row)\n", true, "1", "|expiration_date=1|\n"},
        // No rows, or a command tag, leave no image, not even an older one;
        // nor does an answer that cannot be carried.
        {"select distinct * from media\nid|label\n(0 rows)\n", true, "0", none},
        {"insert into media values (1)\nINSERT 0 1\n", true, "0", none},
        {"s\nid|note\n1|two\nlines\n(1 row)\n", false, "row 2 of media has 1 fields for 2 columns", none},
        {"s\nid\n1\n2\n(1 row)\n", false, "2 rows read, but the database reported 1", none},
        {"s\nid\n1\n", false, "no row count", none},
        {"s\nid\n(2 row)\n3\n", false, "no row count", none},  // "(2 row)" is a value
        {"s\nid|a=b\n1|2\n(1 row)\n", false, "column name \"a=b\" of media is empty or holds '='", none},
        {"s\n\n\n(1 row)\n", false, "column name \"\" of media is empty", none},  // a table without columns
        {"s\n" + header + "\n" + row + "\n(1 row)\n", false, "media has 31 columns, a table image holds at most 30",
         none},
        {"s\nexpiration_date_u\n(0 rows)\n", false, "column name expiration_date_u of media has 17 bytes", none},
        {"only the statement\n", false, "Can't find lines with column-names", none},
    };
    const std::string sqo = box.dir("gv_rw_tmp") + "media.sqo";
    std::string msg;
    for (const auto& [answer, ok, reason, image] : cases) {
        rvtest::write_file(image_path, "|stale=1|\n");
        rvtest::write_file(sqo, answer);
        EXPECT_EQ(rv::iPGSQL_MAKE_DB_GET_FILE("media", sqo, msg), ok) << answer;
        EXPECT_TRUE(ok ? msg == reason : msg.find(reason) != std::string::npos) << msg;
        EXPECT_EQ(image_now(), image) << answer;
        // Taken while the client writes it, cut anywhere (inside a line as well), the answer gives the same.
        for (std::size_t cut = 0; cut < answer.size(); cut += 3) {
            std::remove(sqo.c_str());
            rv::AnswerImage growing("media", sqo);
            growing.advance();  // nothing written yet
            rvtest::write_file(sqo, answer.substr(0, cut));
            growing.advance();
            rvtest::write_file(sqo, answer.substr(0, cut + (answer.size() - cut) / 2));  // the same file, longer
            growing.advance();
            rvtest::write_file(sqo, answer);
            std::string said;
            EXPECT_EQ(growing.finish(said), ok) << answer << " cut at " << cut;
            EXPECT_EQ(said, msg) << answer << " cut at " << cut;
            EXPECT_EQ(image_now(), image) << answer << " cut at " << cut;
        }
    }
    EXPECT_EQ(std::to_string(rv::iPGSQL_MAKE_DB_GET_FILE("media", box.path("none.sqo"), msg)) + msg,
              "0Can't open file " + box.path("none.sqo") + " to read");
}

TEST_F(Steps, CommandWordsLinesAndRemoval) {
    const std::pair<std::string, std::string> cases[] = {
        {"gv_date", "<stamp>"}, {"xgv_datey", "xgv_datey"}, {"a:gv_date:b", "a<stamp>b"},
        {"gv_date:.tar", "<stamp>.tar"},
        // A date inside a path word: the date first, then the path.
        {"gv_rw_work:db_:gv_date:.tar", work + "db_<stamp>.tar"},
        {"gv_export:a.sql", "/exp/a.sql"}, {"--file=:gv_export:x", "--file=/exp/x"},
        {":gv_rw_work:x", ":gv_rw_work:x"}, {"gv_unknown:x", "gv_unknown:x"},
    };
    for (const auto& [word, result] : cases) EXPECT_EQ(stamped(rv::rewrite_command_word(word)), result) << word;
    // The command line begins with a blank and joins runs of blanks; on
    // Windows the command words are translated.
    std::string win = work;
    std::replace(win.begin(), win.end(), '/', '\\');
    const std::tuple<char, std::string, std::string> lines[] = {
        {'/', "  ls  -latr   ; ", " ls -latr ;"},
        {'\\', "cp a b; rm c ; ls -l", " copy /y a b& del /f c & dir "},
        {'\\', "cd x ; date -latr -ltr -atr -la", " cd /d x & date /t /od /od /od "},
        {'\\', "LS gv_date", " LS <stamp>"},  // a date word is not translated
        {'\\', "type gv_rw_work:a/b", " type " + win + "a\\b"},
    };
    for (const auto& [separator, line, result] : lines) {
        rv::pathes.separator = separator;
        EXPECT_EQ(stamped(rv::build_command_line(line)), result) << line;
    }
    EXPECT_EQ(rv::rmdir_command("gv_rw_work:old /q"), "del \\s \\f " + win + "old \\q");
    rv::pathes.separator = '/';
    EXPECT_EQ(rv::rmdir_command("gv_rw_work:old"), "rm -rf " + work + "old");

    // An overlong removal is refused (the empty command line: rv_db_update_test).
    const std::string victim = work + "keep";
    rvtest::write_file(victim + "/file", "x");
    rvtest::FakeRunner runner;
    rvtest::CaptureFd console(1);
    rv::iRmDir(victim + "/" + std::string(rv::kRmDirCommandMax, 'x'));
    EXPECT_TRUE(runner.ran.empty() && rvtest::read_file(victim + "/file") == "x");
    EXPECT_NE(console.finish().find("iRmDir: command longer than 511 characters, nothing removed: rm -rf " + victim),
              std::string::npos);
}

// On a terminal, the import counts the statements of its script up to the
// line the loader's position file names, and a continued import starts from
// there before the loader runs.
TEST_F(Steps, ImportProgressFollowsTheLoadersPositionFile) {
    std::string script(rv::kChangeScriptStart);
    for (int i = 1; i <= 300; ++i) {
        script += "INSERT INTO media (id) VALUES ('" + std::to_string(i) + "');\n";
    }
    const std::string posfile = rv::load_position_path(image_path);
    const std::string head = "oaisql-position 1\ndurable 1\n";
    // Continued or not, the position file before the load, the one the loader
    // writes, the ticks while it runs and what the terminal shows.
    const std::tuple<bool, std::string, std::string, int, std::string> cases[] = {
        {false, "", head + "commit 151 7\n", 1,
         "\rimport media: 0 of 300 rows\x1b[K\rimport media: 150 of 300 rows\x1b[K\r\x1b[K"},
        {true, "oaisql-position 1\ndurable 201\n", head + "end 301\n", 0,
         "\rimport media: 200 of 300 rows\x1b[K\r\x1b[K"},
    };
    for (const auto& [rerun, before, during, ticks, shown] : cases) {
        rvtest::write_file(image_path, script);
        fs::remove(posfile);
        if (!before.empty()) {
            rvtest::write_file(posfile, before);
        }
        rvtest::FakeRunner runner;
        const auto loaded = [&posfile, &during](const std::string&) { rvtest::write_file(posfile, during); };
        runner.on("oaisql", {0, {"oaisql: 300 statements, 300 succeeded, 0 failed"}, loaded,
                             rv::ChildEnd::How::finished, ticks});
        rvtest::Pty pty;
        const int saved = dup(2);
        dup2(pty.terminal(), 2);
        out = rvtest::capture(1, [rerun] { rv::db_load("ravik_db", "media", rerun); });
        dup2(saved, 2);
        close(saved);
        EXPECT_EQ(pty.written(), shown) << "rerun " << rerun;
        EXPECT_NE(out.find("import media returned exit state 0 with 0 errors"), std::string::npos) << out;
    }
}

}  // namespace
