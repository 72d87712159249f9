// The environment check as every command runs it, and the two commands that
// need nothing more: db_backup and db_restore on a sandbox installation.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

namespace fs = std::filesystem;
using rvtest::run;

const std::string kTool = rvtest::bin("rv_db_update");

class Installation : public ::testing::Test {
protected:
    void SetUp() override {
        box.make_installation();
        ro = box.dir("gv_ro");
        schema = box.dir("gv_rw_db") + "schema/ravik/";
    }

    rvtest::RunResult tool(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), kTool);
        return run(args, {{"OS", ""}, {"OSTYPE", "linux-gnu"}, {"LD_LIBRARY_PATH", ""}}, input);
    }

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

    rvtest::Sandbox box;
    std::string ro;
    std::string schema;
};

TEST_F(Installation, BackupCreatesTheArchiveOnceAndRestoreBringsFilesBack) {
    const std::string tar = ro + "downgrade/ravik_db.tar";
    const std::string cmd = "cd " + schema + "; [ -f " + tar + " ] || tar -cvf " + tar + " .";

    auto first = tool({"db_backup"});
    EXPECT_EQ(first.status, 0) << first.out << first.err;
    EXPECT_EQ(first.out.rfind(report("1.6.4.71", "1.6.3.20") + cmd, 0), 0u) << first.out;
    EXPECT_EQ(first.out.find("STATUS="), std::string::npos);
    ASSERT_TRUE(fs::exists(tar));
    const auto size = fs::file_size(tar);
    const auto stamp = fs::last_write_time(tar);

    // A second backup never overwrites the archive.
    rvtest::write_file(schema + "later.dat", "later\n");
    auto second = tool({"db"});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(fs::file_size(tar), size);
    EXPECT_EQ(fs::last_write_time(tar), stamp);

    fs::remove(schema + "base.dat");
    fs::remove_all(schema + "sub");
    auto restore = tool({"db_restore"});
    EXPECT_EQ(restore.status, 0) << restore.err;
    EXPECT_EQ(restore.out.rfind(report("1.6.4.71", "1.6.3.20") + "cd " + schema + " ; tar -xvf " + tar + " .", 0), 0u)
        << restore.out;
    EXPECT_EQ(rvtest::read_file(schema + "base.dat"), "base\n");
    EXPECT_EQ(rvtest::read_file(schema + "sub/media.dat"), "media\n");
}

TEST_F(Installation, MissingVersionFilesEndTheRun) {
    fs::remove(ro + "skel/ravik_srv.1.6.4");
    auto r = tool({"db_backup"});
    const std::string msg = "rv_db_update breaks because there is no version file: " + ro + "skel/*_srv.*.*";
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "\nERROR: " + msg + "\n");
    EXPECT_EQ(r.out, "STATUS=ERROR MSG=" + msg + "\n");

    rvtest::write_file(ro + "skel/ravik_srv.1.6.4", "[CVS_UPDATE]\nrelease=1.6.4.71\n");
    r = tool({"db_backup"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "STATUS=ERROR MSG=rv_db_update: couldn't find version file! "
                     "i_GetPrivateProfileString: KEY NOT FOUND: version\n");
}

TEST_F(Installation, OldVersionPatternsAreAsymmetric) {
    // Several files of the first pattern: the listing's last one wins.
    rvtest::write_file(ro + "downgrade/skel/other_srv.1.6.3", "[CVS_UPDATE]\nversion=1.6.3.20\n");
    EXPECT_EQ(tool({"db_backup"}).status, 0);

    // The second pattern must match exactly one file.
    fs::remove_all(ro + "downgrade/skel");
    rvtest::write_file(ro + "downgrade/skel/ravik_srv1.6.3", "[CVS_UPDATE]\nversion=1.6.3.5\n");
    auto one = tool({"db_backup"});
    EXPECT_EQ(one.status, 0);
    EXPECT_NE(one.out.find(report("1.6.4.71", "1.6.3.5")), std::string::npos) << one.out;

    rvtest::write_file(ro + "downgrade/skel/other_srv2.0.1", "[CVS_UPDATE]\nversion=2.0.1.1\n");
    auto two = tool({"db_backup"});
    EXPECT_EQ(two.status, 2);
    EXPECT_NE(two.err.find("rv_db_update breaks because there are several old version files: "), std::string::npos);
    EXPECT_EQ(two.err.substr(two.err.size() - 3), "!!\n") << two.err;
    EXPECT_EQ(two.out.substr(two.out.size() - 2), "!\n");

    fs::remove_all(ro + "downgrade/skel");
    fs::create_directories(ro + "downgrade/skel");
    auto none = tool({"db_backup"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.out, "STATUS=ERROR MSG=rv_db_update breaks because there is no old version file: " + ro +
                            "downgrade/skel/*_srv*.?.?\n");
}

TEST_F(Installation, OperatorIsAskedForAnUnreadableOldVersion) {
    rvtest::write_file(ro + "downgrade/skel/ravik_srv.1.6.3", "[CVS_UPDATE]\n");
    const std::string prompt =
        "Die alte QOR ravik2000 Version konnte nicht erkannt werden.\n"
        "Bitte geben Sie die Versionsnummer an (default: 1.6.4.71):\n";
    auto given = tool({"db_backup"}, "2.0\n");
    EXPECT_EQ(given.status, 0);
    EXPECT_EQ(given.out.rfind(prompt + "Update von Version: 2.0\n" + report("1.6.4.71", "2.0"), 0), 0u) << given.out;

    auto empty = tool({"db_backup"}, "");
    EXPECT_EQ(empty.status, 0);
    EXPECT_NE(empty.out.find("Update von Version: 1.6.4.71\n"), std::string::npos);
}

TEST_F(Installation, VersionsFromTheCommandLineAreTakenAsGiven) {
    fs::remove_all(ro + "skel");
    fs::remove_all(ro + "downgrade");
    auto r = tool({"update", "1.6.3.20", "2.0.1.5"});
    EXPECT_NE(r.out.find(report("2.0.1.5", "1.6.3.20") + "Update main version: 2.0.1.\n"
                                                         "[Update from 1.6.3.20 to 2.0.1.5]\n"),
              std::string::npos)
        << r.out;
}

TEST_F(Installation, WindowsInstallationUsesBackslashAndSemicolon) {
    auto r = run({kTool, "db_backup", "-v", "2"}, {{"OS", "Windows_NT"}, {"LD_LIBRARY_PATH", "/old"}});
    // Backslash paths do not exist here: the version check fails, but the
    // report of the separator reaches the trace first.
    EXPECT_NE(r.err.find("setenv() set LD_LIBRARY_PATH=" + box.dir("gv_ro_bin") + ";" + box.dir("gv_ro_db") + ";/old"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find("skel\\*_srv.*.*"), std::string::npos) << r.out;
}

}  // namespace
