// Line search, the report of a failed file operation, and the directory walk.
#include "config/files.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log/trace.hpp"
#include "support/sandbox.hpp"
#include "config/dirwalk.hpp"

namespace {

using Names = std::vector<std::string>;

// Every entry of a walk started with `pattern`.
Names walk(const std::string& pattern) {
    Names names;
    rv::rv_dirent de;
    for (bool ok = rv::i_GET_DIR(pattern, de); ok; ok = rv::i_GET_DIR("", de)) {
        names.push_back(de.d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Files, FileSearchOperatorsAndReturnedLine) {
    rvtest::Sandbox box;
    const std::string file = box.dir("gv_rw_work") + "log.txt";
    box.set_glbv("gv_rw_work", box.dir("gv_rw_work"));
    // Lines are read in pieces of at most 511 characters.
    rvtest::write_file(file, "info start\nwarn FATAL disk\nERROR here\nx|OR|y zz\n" +
                                 std::string(508, 'x') + "needle\ntail");
    const std::tuple<std::string, std::string, bool, std::string> cases[] = {
        // file, expression, found, the caller's string afterwards
        {file, "ERROR|OR|FATAL^", true, "warn FATAL disk"},
        {file, "ERROR|AND|FATAL", false, "ERROR"},    // the operator is cut out
        {file, "x|OR|y|AND|zz^", true, "x|OR|y zz"},  // |AND| wins, |OR| is text
        {file, "Error", false, "Error"},
        {file, "needle", false, "needle"},
        {file, "dle^", true, "dle"},
        {file, "tai^", true, "tail"},  // a last line without line feed
        {"gv_rw_work:log.txt", "here^", true, "ERROR here"},
        {"gv_rw_work:missing.txt", "here", false, "here"},
    };
    for (const auto& [name, in, found, after] : cases) {
        std::string expr = in;
        EXPECT_EQ(rv::file_search(name, expr), found) << name << " " << in;
        EXPECT_EQ(expr, after) << in;
    }
    errno = EACCES;
    EXPECT_EQ(rvtest::capture(2, [] { EXPECT_EQ(rv::i_FILE_CLOSE(EACCES), 0); }),
              std::string("\nFILE_CLOSE error: ") + std::strerror(EACCES) + "\n");
}

TEST(Files, GetDirWalksEveryMatchOnce) {
    rvtest::Sandbox box;
    const std::string work = box.dir("gv_rw_work");
    box.set_glbv("gv_rw_work", work);
    for (const char* name : {"x.lock", "y.lock", ".hidden.lock", "z.txt", "lock"}) {
        rvtest::write_file(work + name, "");
    }
    // Without flags the wildcard also matches a leading dot.
    EXPECT_EQ(walk("gv_rw_work:*.lock"), (Names{".hidden.lock", "x.lock", "y.lock"}));
    EXPECT_EQ(walk(work + "?.*"), (Names{"x.lock", "y.lock", "z.txt"}));
    EXPECT_EQ(walk(work + "*.none"), Names{});
    rv::rv_dirent de;
    // A directory that cannot be opened is traced from level 1 on.
    rv::strLog = {box.path("trace.lgc"), 1, 0, ""};
    EXPECT_FALSE(rv::i_GET_DIR(box.path("absent/") + "*", de));
    EXPECT_TRUE(rvtest::read_file(rv::strLog.szFile)
                    .ends_with("iGET_DIR: Error in opendir( " + box.path("absent/") +
                               " ): " + std::strerror(ENOENT) + "\n"));
}

}  // namespace
