// Progress lines against a real server: a dump, change and import of
// 200,000 rows show them on a terminal and nothing else changes; on a file
// there are none. The loader shows its own on a terminal, unless -q.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/pgcluster.hpp"
#include "support/terminal.hpp"

namespace {

namespace fs = std::filesystem;
using rvtest::pg_query;

constexpr int kRows = 200000;
const std::string kTotal = "of 200,000 rows";

// A draw or an erase of a progress line.
const std::regex kDraw("\r([^\r\n\x1b]*)\x1b\\[K");

// The progress lines drawn on `terminal`. Fails the test where anything
// else was written while a line was on show, or a line stayed at the end.
std::vector<std::string> drawn_lines(const std::string& terminal) {
    std::vector<std::string> lines;
    bool shown = false;
    std::size_t after = 0;
    for (auto it = std::sregex_iterator(terminal.begin(), terminal.end(), kDraw); it != std::sregex_iterator(); ++it) {
        EXPECT_FALSE(shown && static_cast<std::size_t>(it->position()) != after)
            << "written over a progress line: " << terminal.substr(after, it->position() - after);
        shown = it->length(1) > 0;
        if (shown) {
            lines.push_back(it->str(1));
        }
        after = static_cast<std::size_t>(it->position() + it->length());
    }
    EXPECT_FALSE(shown) << "a progress line stayed: " << lines.back();
    return lines;
}

// Whether one of `lines` starts with `label` and holds `part`.
bool has_line(const std::vector<std::string>& lines, const std::string& label, const std::string& part) {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.starts_with(label + ": ") && line.find(part) != std::string::npos;
    });
}

// `text` with its clock times masked.
std::string masked(const std::string& text) {
    return std::regex_replace(text, std::regex("[0-9]{1,2}:[0-9]{2}:[0-9]{2}"), "hh:mm:ss");
}

class DbProgress : public rvtest::DbTest {
  protected:
    void SetUp() override {
        DbTest::SetUp();
        fs::create_symlink(rvtest::bin("oaisql"), box.dir("gv_ro_db") + "oaisql");
        pg_query("ravik_db", "create table big (id int primary key, label text, size_mb int);"
                             "insert into big select g, 'MON-' || g, g % 977 from generate_series(1, " +
                                 std::to_string(kRows) + ") g");
    }
    std::string count() { return *pg_query("ravik_db", "select count(*) from big").at(0).at(0); }
};

TEST_F(DbProgress, DumpChangeAndImportShowProgressOnATerminalOnly) {
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                       "[Update 1.6.4.]\nlast_step_nr=4\nstep_1=dump ravik_db big\n"
                       "step_2=sql ravik_db truncate big\nstep_3=change big\nstep_4=import ravik_db big\n");
    const std::vector<std::string> update = {rvtest::bin("rv_db_update"), "update", "1.6.3.20", "1.6.4.71"};
    const auto on_file = rvtest::run(update, rvtest::kToolEnv);
    ASSERT_EQ(on_file.status, 0) << on_file.out << on_file.err;
    EXPECT_EQ(count(), std::to_string(kRows));
    const auto on_terminal = rvtest::run_on_terminal(update, rvtest::kToolEnv);
    ASSERT_EQ(on_terminal.status, 0) << on_terminal.out << on_terminal.err;
    EXPECT_EQ(count(), std::to_string(kRows));

    const std::vector<std::string> lines = drawn_lines(on_terminal.err);
    EXPECT_TRUE(has_line(lines, "dump big (image)", kTotal)) << on_terminal.err;
    EXPECT_TRUE(has_line(lines, "change big", kTotal)) << on_terminal.err;
    EXPECT_TRUE(has_line(lines, "import big", kTotal)) << on_terminal.err;
    // Nothing else differs: the console, and standard error without its lines.
    EXPECT_EQ(masked(on_terminal.out), masked(on_file.out));
    EXPECT_EQ(std::regex_replace(on_terminal.err, kDraw, ""), on_file.err);
    for (const std::string& text : {on_file.out, on_file.err, on_terminal.out}) {
        EXPECT_EQ(text.find_first_of("\r\x1b"), std::string::npos) << text;
    }
}

TEST_F(DbProgress, TheLoaderShowsItsLineOnATerminalUnlessQuiet) {
    std::string script = "connect ravik_db\n-- the rows again\n";
    for (int i = 1; i <= kRows; ++i) {
        script += "INSERT INTO big (id,label) VALUES ('" + std::to_string(i + kRows) + "','x');\n";
    }
    const std::string file = box.path("big.sql");
    rvtest::write_file(file, script);
    const std::string summary = "oaisql: 200000 statements, 200000 succeeded, 0 failed\n";
    const auto shown = rvtest::run_on_terminal({rvtest::bin("oaisql"), "-c", file});
    EXPECT_EQ(shown.out, summary);
    const std::vector<std::string> lines = drawn_lines(shown.err);
    EXPECT_TRUE(has_line(lines, file, kTotal)) << shown.err;
    EXPECT_EQ(std::regex_replace(shown.err, kDraw, ""), "");

    pg_query("ravik_db", "delete from big where id > " + std::to_string(kRows));
    const auto quiet = rvtest::run_on_terminal({rvtest::bin("oaisql"), "-c", file, "-q"});
    EXPECT_EQ(quiet.out, summary);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(count(), std::to_string(2 * kRows));
}

}  // namespace
