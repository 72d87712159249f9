// The environment check as every command runs it, and the two commands that
// need nothing more: db_backup and db_restore on a sandbox installation.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;

class Installation : public ::testing::Test {
  protected:
    void SetUp() override { box.make_installation(); }

    rvtest::RunResult tool(const std::string& command, const std::string& input = "") {
        return rvtest::run({rvtest::bin("rv_db_update"), command},
                           {{"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}}, input);
    }
    void version_file(const std::string& name, const std::string& content) {
        rvtest::write_file(ro + name, "[CVS_UPDATE]\n" + content);
    }
    // clang-format off
    std::string report(const std::string& newv, const std::string& oldv) const {
        return "[Check enviroment]\n"
               " [common]\n"
               "  operating system:   linux-gnu\n"
               "  separator:          /\n"
               "  database typ:       -\n"
               "  rv_db_update ini:   " + ro + "skel/rv_db_update.ini\n"
               " [new ravik version]\n"
               "  ravik root path:    " + ro + "\n"
               "  ravik binaries:     " + box.dir("gv_ro_bin") + "\n"
               "  db bin path:        " + box.dir("gv_ro_db") + "\n"
               "  ini path:           " + box.dir("gv_rw_ini") + "\n"
               "  db path:            " + box.dir("gv_rw_db") + "\n"
               "  work path:          " + box.dir("gv_rw_work") + "\n"
               "  ravik version:      " + newv + "\n"
               " [old ravik version]\n"
               "  ravik version:      " + oldv + "\n\n";
    }
    // clang-format on

    rvtest::Sandbox box;
    std::string ro = box.dir("gv_ro");
    std::string schema = box.dir("gv_rw_db") + "schema/ravik/";
};

TEST_F(Installation, BackupCreatesTheArchiveOnceAndRestoreBringsFilesBack) {
    const std::string tar = ro + "downgrade/ravik_db.tar";
    auto r = tool("db_backup");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(r.out.starts_with(report("1.6.4.71", "1.6.3.20") + "cd " + schema + "; [ -f " +
                                  tar + " ] || tar -cvf " + tar + " ."))
        << r.out;
    EXPECT_EQ(r.out.find("STATUS="), std::string::npos);
    ASSERT_TRUE(fs::exists(tar));
    const auto size = fs::file_size(tar);
    const auto stamp = fs::last_write_time(tar);

    // A second backup never overwrites the archive.
    rvtest::write_file(schema + "later.dat", "later\n");
    EXPECT_EQ(tool("db").status, 0);
    EXPECT_EQ(fs::file_size(tar), size);
    EXPECT_EQ(fs::last_write_time(tar), stamp);

    fs::remove(schema + "base.dat");
    fs::remove_all(schema + "sub");
    r = tool("db_restore");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out.starts_with(report("1.6.4.71", "1.6.3.20") + "cd " + schema + " ; tar -xvf " +
                                  tar + " ."))
        << r.out;
    EXPECT_EQ(rvtest::read_file(schema + "base.dat"), "base\n");
    EXPECT_EQ(rvtest::read_file(schema + "sub/media.dat"), "media\n");
}

TEST_F(Installation, VersionFilesAndTheirPatterns) {
    fs::remove(ro + "skel/ravik_srv.1.6.4");
    auto r = tool("db_backup");
    const std::string msg =
        "rv_db_update breaks because there is no version file: " + ro + "skel/*_srv.*.*";
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "\nERROR: " + msg + "\n");
    EXPECT_EQ(r.out, "STATUS=ERROR MSG=" + msg + "\n");
    version_file("skel/ravik_srv.1.6.4", "release=1.6.4.71\n");
    r = tool("db_backup");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out,
              "STATUS=ERROR MSG=rv_db_update: couldn't find version file! "
              "i_GetPrivateProfileString: KEY NOT FOUND: version\n");
    version_file("skel/ravik_srv.1.6.4", "version=1.6.4.71\n");

    // Several files of the first old-version pattern: the listing's last one wins.
    version_file("downgrade/skel/other_srv.1.6.3", "version=1.6.3.20\n");
    EXPECT_EQ(tool("db_backup").status, 0);
    // The second pattern must match exactly one file.
    fs::remove_all(ro + "downgrade/skel");
    version_file("downgrade/skel/ravik_srv1.6.3", "version=1.6.3.5\n");
    r = tool("db_backup");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(report("1.6.4.71", "1.6.3.5")), std::string::npos) << r.out;
    version_file("downgrade/skel/other_srv2.0.1", "version=2.0.1.1\n");
    r = tool("db_backup");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("rv_db_update breaks because there are several old version files: "),
              std::string::npos);
    EXPECT_TRUE(r.err.ends_with("!!\n")) << r.err;
    EXPECT_TRUE(r.out.ends_with("!\n")) << r.out;
    fs::remove_all(ro + "downgrade/skel");
    fs::create_directories(ro + "downgrade/skel");
    EXPECT_EQ(tool("db_backup").out,
              "STATUS=ERROR MSG=rv_db_update breaks because there is no old version file: " + ro +
                  "downgrade/skel/*_srv*.?.?\n");
}

TEST_F(Installation, OperatorIsAskedForAnUnreadableOldVersion) {
    version_file("downgrade/skel/ravik_srv.1.6.3", "");
    auto r = tool("db_backup", "2.0\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(
        r.out.starts_with("Die alte QOR ravik2000 Version konnte nicht erkannt werden.\n"
                          "Bitte geben Sie die Versionsnummer an (default: 1.6.4.71):\n"
                          "Update von Version: 2.0\n" +
                          report("1.6.4.71", "2.0")))
        << r.out;
    r = tool("db_backup", "");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Update von Version: 1.6.4.71\n"), std::string::npos);
}

TEST_F(Installation, VersionsFromTheCommandLineAndWindows) {
    fs::remove_all(ro + "skel");
    fs::remove_all(ro + "downgrade");
    auto r = rvtest::run({rvtest::bin("rv_db_update"), "update", "1.6.3.20", "2.0.1.5"},
                         {{"OS", ""}, {"OSTYPE", "linux-gnu"}});
    EXPECT_NE(r.out.find(report("2.0.1.5", "1.6.3.20") +
                         "Update main version: 2.0.1.\n[Update from 1.6.3.20 to 2.0.1.5]\n"),
              std::string::npos)
        << r.out;

    // Backslash paths do not exist here: the version check fails, but the
    // report of the separator reaches the trace first.
    r = rvtest::run({rvtest::bin("rv_db_update"), "db_backup", "-v", "2"},
                    {{"OS", "Windows_NT"}, {"LD_LIBRARY_PATH", "/old"}});
    EXPECT_NE(r.err.find("setenv() set LD_LIBRARY_PATH=" + box.dir("gv_ro_bin") + ";" +
                         box.dir("gv_ro_db") + ";/old"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find("skel\\*_srv.*.*"), std::string::npos) << r.out;
}

}  // namespace
