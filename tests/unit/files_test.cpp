#include "sys/files.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sys/dirwalk.hpp"
#include "support/sandbox.hpp"

namespace fs = std::filesystem;

namespace {

struct FileCloser {
    void operator()(std::FILE* fp) const { std::fclose(fp); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Works in `dir` for the lifetime of the guard.
class CwdGuard {
public:
    explicit CwdGuard(const std::string& dir) : saved_(fs::current_path()) { fs::current_path(dir); }
    ~CwdGuard() { fs::current_path(saved_); }
    CwdGuard(const CwdGuard&) = delete;
    CwdGuard& operator=(const CwdGuard&) = delete;

private:
    fs::path saved_;
};

// Makes the global variable `name` hold `value`.
void set_glbv(const rvtest::Sandbox& box, const std::string& name, const std::string& value) {
    rvtest::write_file(box.dir("gv_rw_glbv") + name + ".rgv", value);
}

// A trace context writing into the sandbox at `level`.
rv::str_log trace_to(const rvtest::Sandbox& box, int level) {
    rv::str_log log;
    log.szFile = box.path("trace.lgc");
    log.iFlg = level;
    return log;
}

bool has_line_ending(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.size() >= text.size() && l.compare(l.size() - text.size(), text.size(), text) == 0;
    });
}

// Every remaining entry of a walk started with `pattern`.
std::vector<std::string> walk_all(const std::string& pattern, const rv::str_log& log) {
    std::vector<std::string> names;
    rv::rv_dirent de;
    for (bool ok = rv::i_GET_DIR(pattern, de, log); ok; ok = rv::i_GET_DIR("", de, log)) {
        names.push_back(de.d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

using Names = std::vector<std::string>;

}  // namespace

TEST(SeekString, MatchesBySubstringAndLogic) {
    FilePtr fp(std::tmpfile());
    ASSERT_TRUE(fp);
    std::fputs("alpha beta\ngamma\nbeta delta\nlast", fp.get());
    std::string line;

    std::rewind(fp.get());
    EXPECT_TRUE(rv::i_SEEK_STRING(fp.get(), line, "beta", "delta", 'a'));
    EXPECT_EQ(line, "beta delta\n");

    std::rewind(fp.get());
    EXPECT_TRUE(rv::i_SEEK_STRING(fp.get(), line, "gamma", "alpha", 'o'));
    EXPECT_EQ(line, "alpha beta\n");
    // The search goes on from the current position.
    EXPECT_TRUE(rv::i_SEEK_STRING(fp.get(), line, "gamma", "alpha", 'o'));
    EXPECT_EQ(line, "gamma\n");
    EXPECT_TRUE(rv::i_SEEK_STRING(fp.get(), line, "las", "", 'x'));
    EXPECT_EQ(line, "last");
    EXPECT_FALSE(rv::i_SEEK_STRING(fp.get(), line, "a", "", 'x'));

    // Any other flag looks at the first string only; case counts.
    std::rewind(fp.get());
    EXPECT_FALSE(rv::i_SEEK_STRING(fp.get(), line, "Gamma", "gamma", 'x'));
}

TEST(SeekString, LongLinesAreReadIn511CharacterPieces) {
    FilePtr fp(std::tmpfile());
    ASSERT_TRUE(fp);
    std::fputs((std::string(508, 'x') + "needle\n").c_str(), fp.get());
    std::string line;
    std::rewind(fp.get());
    EXPECT_FALSE(rv::i_SEEK_STRING(fp.get(), line, "needle", "", 'x'));
    std::rewind(fp.get());
    EXPECT_TRUE(rv::i_SEEK_STRING(fp.get(), line, "nee", "", 'x'));
    EXPECT_EQ(line.size(), rv::kSeekLineMax);
    EXPECT_TRUE(rv::i_SEEK_STRING(fp.get(), line, "dle", "", 'x'));
    EXPECT_EQ(line, "dle\n");
}

TEST(FileSearch, OperatorsAndReturnedLine) {
    rvtest::Sandbox box;
    const std::string file = box.path("log.txt");
    rvtest::write_file(file, "info start\nwarn FATAL disk\nERROR here\nx|OR|y zz\ntail");

    std::string expr = "ERROR|OR|FATAL^";
    EXPECT_TRUE(rv::file_search(file, expr));
    EXPECT_EQ(expr, "warn FATAL disk");

    expr = "ERROR|AND|here^";
    EXPECT_TRUE(rv::file_search(file, expr));
    EXPECT_EQ(expr, "ERROR here");

    // The operator is cut out of the caller's string.
    expr = "ERROR|AND|FATAL";
    EXPECT_FALSE(rv::file_search(file, expr));
    EXPECT_EQ(expr, "ERROR");

    // "|AND|" wins over "|OR|", which is then plain text.
    expr = "x|OR|y|AND|zz^";
    EXPECT_TRUE(rv::file_search(file, expr));
    EXPECT_EQ(expr, "x|OR|y zz");

    expr = "start";
    EXPECT_TRUE(rv::file_search(file, expr));
    EXPECT_EQ(expr, "start");
    expr = "error";
    EXPECT_FALSE(rv::file_search(file, expr));

    // A last line without line feed is returned whole.
    expr = "tai^";
    EXPECT_TRUE(rv::file_search(file, expr));
    EXPECT_EQ(expr, "tail");
}

TEST(FileSearch, ResolvesGlobalVariablesAndFailsOnMissingFiles) {
    rvtest::Sandbox box;
    rvtest::write_file(box.dir("gv_rw_work") + "state.txt", "ready\n");
    set_glbv(box, "gv_rw_work", box.dir("gv_rw_work"));

    std::string expr = "ready^";
    EXPECT_TRUE(rv::file_search("gv_rw_work:state.txt", expr));
    EXPECT_EQ(expr, "ready");
    expr = "ready";
    EXPECT_FALSE(rv::file_search("gv_rw_work:missing.txt", expr));
    EXPECT_FALSE(rv::file_search(box.path("nothing/here.txt"), expr));
}

TEST(FileDelete, SingleFilesAndBackslashes) {
    rvtest::Sandbox box;
    const std::string dir = box.dir("gv_rw_tmp");
    rvtest::write_file(dir + "one.dat", "1");
    rvtest::write_file(dir + "two.dat", "2");
    rv::str_log off;

    EXPECT_TRUE(rv::i_FILE_DELETE(dir + "one.dat", off));
    EXPECT_FALSE(fs::exists(dir + "one.dat"));
    EXPECT_FALSE(rv::i_FILE_DELETE(dir + "one.dat", off));

    std::string windows = dir + "two.dat";
    std::replace(windows.begin(), windows.end(), '/', '\\');
    EXPECT_TRUE(rv::i_FILE_DELETE(windows, off));
    EXPECT_FALSE(fs::exists(dir + "two.dat"));
}

TEST(FileDelete, PatternsDeleteEveryMatchAndAlwaysSucceed) {
    rvtest::Sandbox box;
    const std::string dir = box.dir("gv_rw_tmp");
    set_glbv(box, "gv_rw_tmp", dir);
    rvtest::write_file(dir + "a.tmp", "a");
    rvtest::write_file(dir + "b.tmp", "b");
    rvtest::write_file(dir + "keep.dat", "k");
    rvtest::write_file(dir + "full.tmp/inside", "x");  // a directory that cannot be removed

    rv::str_log log = trace_to(box, 2);
    EXPECT_TRUE(rv::i_FILE_DELETE("gv_rw_tmp:*.tmp", log));
    EXPECT_FALSE(fs::exists(dir + "a.tmp"));
    EXPECT_FALSE(fs::exists(dir + "b.tmp"));
    EXPECT_TRUE(fs::exists(dir + "keep.dat"));
    EXPECT_TRUE(fs::exists(dir + "full.tmp/inside"));

    const auto lines = rvtest::read_lines(log.szFile);
    EXPECT_TRUE(has_line_ending(lines, "+++ FILE_DELETE   gv_rw_tmp:*.tmp  ->  " + dir + "*.tmp "));
    EXPECT_TRUE(has_line_ending(lines, "path= " + dir + " "));
    EXPECT_TRUE(has_line_ending(lines, "remove " + dir + "  a.tmp "));
    EXPECT_TRUE(has_line_ending(lines, "could not remove " + dir + "full.tmp"));
    EXPECT_TRUE(has_line_ending(lines, "--- FILE_DELETE  returns  1 "));

    // Nothing left to match: still a success.
    fs::remove_all(dir + "full.tmp");
    EXPECT_TRUE(rv::i_FILE_DELETE("gv_rw_tmp:*.tmp", rv::str_log{}));
    EXPECT_TRUE(fs::exists(dir + "keep.dat"));
}

TEST(FileDelete, PatternWithoutDirectoryWorksInTheCurrentDirectory) {
    rvtest::Sandbox box;
    const std::string dir = box.dir("gv_rw_work");
    rvtest::write_file(dir + "x.lock", "");
    rvtest::write_file(dir + "y.txt", "");
    CwdGuard cwd(dir);
    EXPECT_TRUE(rv::i_FILE_DELETE("*.lock", rv::str_log{}));
    EXPECT_FALSE(fs::exists(dir + "x.lock"));
    EXPECT_TRUE(fs::exists(dir + "y.txt"));
}

TEST(FileClose, ReportsTheErrorText) {
    rvtest::CaptureFd err(2);
    errno = EACCES;
    EXPECT_EQ(rv::i_FILE_CLOSE(EACCES), 0);
    EXPECT_EQ(err.finish(), std::string("\nFILE_CLOSE error: ") + std::strerror(EACCES) + "\n");
}

TEST(GetDir, WalksEveryMatchOnce) {
    rvtest::Sandbox box;
    const std::string dir = box.dir("gv_rw_work");
    set_glbv(box, "gv_rw_work", dir);
    for (const char* name : {"x.lock", "y.lock", ".hidden.lock", "z.txt", "lock"}) {
        rvtest::write_file(dir + name, "");
    }
    rv::str_log off;
    // Without flags the wildcard also matches a leading dot.
    EXPECT_EQ(walk_all("gv_rw_work:*.lock", off), (Names{".hidden.lock", "x.lock", "y.lock"}));
    rv::rv_dirent de;
    de.d_name = "stale";
    EXPECT_FALSE(rv::i_GET_DIR("", de, off));
    EXPECT_EQ(de.d_name, "");

    EXPECT_EQ(walk_all(dir + "?.*", off), (Names{"x.lock", "y.lock", "z.txt"}));
    EXPECT_EQ(walk_all(dir + "*.none", off), Names{});
    {
        CwdGuard cwd(dir);
        EXPECT_EQ(walk_all("z*", off), Names{"z.txt"});
    }

    // A new pattern abandons the walk in progress.
    ASSERT_TRUE(rv::i_GET_DIR(dir + "*.lock", de, off));
    EXPECT_EQ(walk_all(dir + "*.txt", off), Names{"z.txt"});
    EXPECT_FALSE(rv::i_GET_DIR("", de, off));
}

TEST(GetDir, TracesByLevel) {
    rvtest::Sandbox box;
    const std::string dir = box.dir("gv_rw_work");
    rvtest::write_file(dir + "only.lock", "");

    rv::str_log level1 = trace_to(box, 1);
    rv::rv_dirent de;
    EXPECT_FALSE(rv::i_GET_DIR(box.path("absent/") + "*", de, level1));
    EXPECT_EQ(walk_all(dir + "*.lock", level1), Names{"only.lock"});
    auto lines = rvtest::read_lines(level1.szFile);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(has_line_ending(lines, "iGET_DIR: Error in opendir( " + box.path("absent/") + " ): " +
                                           std::strerror(ENOENT)));

    fs::remove(level1.szFile);
    rv::str_log level2 = trace_to(box, 2);
    EXPECT_EQ(walk_all(dir + "*.lock", level2), Names{"only.lock"});
    lines = rvtest::read_lines(level2.szFile);
    EXPECT_TRUE(has_line_ending(lines, "+++ iGET_DIR: " + dir + "*.lock -> " + dir + "*.lock"));
    EXPECT_TRUE(has_line_ending(lines, "dir name: " + dir + ", file name: *.lock"));
    EXPECT_TRUE(has_line_ending(lines, "found valid file >only.lock<"));
    EXPECT_TRUE(has_line_ending(lines, "+++ iGET_DIR: find next file"));
    EXPECT_TRUE(has_line_ending(lines, "closing( dir_pointer )"));
    EXPECT_FALSE(has_line_ending(lines, "check: only.lock *.lock"));

    fs::remove(level2.szFile);
    rv::str_log level3 = trace_to(box, 3);
    EXPECT_EQ(walk_all(dir + "*.lock", level3), Names{"only.lock"});
    lines = rvtest::read_lines(level3.szFile);
    EXPECT_TRUE(has_line_ending(lines, "check: only.lock *.lock"));
    EXPECT_TRUE(has_line_ending(lines, "check: .. *.lock"));
}
