// Environment for child programs: which program classes get which settings,
// PATH extension rules and the refusals with their console texts.
#include <gtest/gtest.h>

#include <cstdlib>

#include "config/environment.hpp"
#include "support/sandbox.hpp"

namespace {

// Restores the variables the environment set-up touches.
class EnvGuard {
public:
    EnvGuard() {
        for (const char* name : kNames) {
            const char* v = std::getenv(name);
            saved_.emplace_back(name, v ? std::optional<std::string>(v) : std::nullopt);
        }
    }
    ~EnvGuard() {
        for (const auto& [name, value] : saved_) {
            if (value) {
                setenv(name.c_str(), value->c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
    }

private:
    static constexpr const char* kNames[] = {"PATH", "PGPORT", "OPENRDA_INI", "LD_LIBRARY_PATH"};
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "<unset>";
}

class SetenvRavik : public ::testing::Test {
protected:
    void SetUp() override {
        box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
        box.set_path_key("gv_ro_bin", "/opt/rvtest/bin/");
        box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
        rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\nOPENRDA_INI=/opt/rvtest/openrda.ini\n");
        setenv("PATH", "/usr/bin:/bin", 1);
        unsetenv("PGPORT");
        unsetenv("OPENRDA_INI");
    }

    bool call(const std::string& line, std::string* out = nullptr) {
        rvtest::CaptureFd capture(1);
        const bool ok = rv::i_setenv_ravik(line);
        const std::string text = capture.finish();
        if (out) {
            *out = text;
        }
        return ok;
    }

    EnvGuard guard;
    rvtest::Sandbox box;
};

TEST_F(SetenvRavik, DatabaseProgramGetsPortDirectoriesAndClientDefault) {
    std::string out;
    ASSERT_TRUE(call("psql", &out));
    EXPECT_EQ(out, "");
    EXPECT_EQ(env("PGPORT"), "5499");
    EXPECT_EQ(env("OPENRDA_INI"), "/opt/rvtest/openrda.ini");
    EXPECT_EQ(env("PATH"), "/usr/bin:/bin:/opt/rvtest/bin/:/opt/rvtest/db/:/usr/local/pgsql/bin/");

    // A second call finds everything in place and changes nothing.
    ASSERT_TRUE(call("  PSQL -d ravik_db"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/bin:/opt/rvtest/bin/:/opt/rvtest/db/:/usr/local/pgsql/bin/");
}

TEST_F(SetenvRavik, ProgramClassCountsOnlyBeforeTheFirstBlank) {
    box.set_path_key("gv_ro_pgsql", "/opt/rvtest/pgsql/");
    // echo with psql as argument: no database access, so only gv_ro_bin.
    ASSERT_TRUE(call("echo psql"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/bin:/opt/rvtest/bin/");
    // A path to the client without options: the name is not at the start.
    ASSERT_TRUE(call("/usr/bin/psql"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/bin:/opt/rvtest/bin/");
    // The same path with an option is a database access.
    ASSERT_TRUE(call("/usr/bin/psql -l"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/bin:/opt/rvtest/bin/:/opt/rvtest/db/:/opt/rvtest/pgsql/");
    // rv_db counts only with its blank.
    setenv("PATH", "/usr/bin", 1);
    ASSERT_TRUE(call("/opt/x/rv_db \"select 1\" -e"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/opt/rvtest/bin/:/opt/rvtest/db/:/opt/rvtest/pgsql/");
}

TEST_F(SetenvRavik, DirectoryInsideALongerEntryCountsAsPresent) {
    setenv("PATH", "/usr/bin:/opt/rvtest/bin/extra", 1);
    ASSERT_TRUE(call("ls"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/opt/rvtest/bin/extra");
}

TEST_F(SetenvRavik, MissingSettingsRefuseOnlyDatabasePrograms) {
    box.extra_sections = "";
    box.write_rv_ini();
    std::string out;
    EXPECT_TRUE(call("echo psql", &out));
    EXPECT_EQ(out, "");
    EXPECT_FALSE(call("psql -l", &out));
    EXPECT_EQ(out, "key gv_port_db not found in rv.ini\n");

    rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\n");
    EXPECT_FALSE(call("psql", &out));
    EXPECT_EQ(out, "key OPENRDA_INI not found in /etc/ravik2000.ini\n");

    rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + "\nOPENRDA_INI=/x\n");
    box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
    box.set_path_key("gv_ro_db", "");
    EXPECT_FALSE(call("psql", &out));
    EXPECT_EQ(out.rfind("error in i_READ_INI gv_ro_db i_READ_INI: ", 0), 0u) << out;

    box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
    EXPECT_FALSE(call("rv_kvx_interface -x", &out));
    EXPECT_EQ(out.rfind("error in i_READ_INI gv_ro_kvx ", 0), 0u) << out;

    box.set_path_key("gv_ro_bin", "");
    EXPECT_FALSE(call("ls", &out));
    EXPECT_EQ(out, "");
}

TEST_F(SetenvRavik, OverlongPathIsRefusedWithTheSevenLines) {
    const std::string longpath = "/usr/bin:" + std::string(2030, 'p');
    setenv("PATH", longpath.c_str(), 1);
    std::string out;
    EXPECT_FALSE(call("ls", &out));
    EXPECT_EQ(out,
              "iStrLenRoBin = 16 (0 means that string already in PATH)\n"
              "iStrLenRoDb  = 0 (0 means that string already in PATH)\n"
              "iStrLenRoPgsql = 0 (0 means that string already in PATH)\n"
              "iStrLenRoKvx = 0 (0 means that string already in PATH)\n"
              "iStrLenPath  = 2039\n"
              "iSizeOfPath  = 2048\n"
              "length of string is not sufficient\n");
    EXPECT_EQ(env("PATH"), longpath);
}

TEST_F(SetenvRavik, NetwareProgramGetsItsLibraryDirectory) {
    unsetenv("LD_LIBRARY_PATH");
    std::string out;
    ASSERT_TRUE(call("netware_sync", &out));
    EXPECT_EQ(out,
              "check LD_LIBRARY_PATH=\n"
              "didn't get LD_LIBRARY_PATH\n"
              "set LD_LIBRARY_PATH=:/opt/novell/lib\n");
    EXPECT_EQ(env("LD_LIBRARY_PATH"), ":/opt/novell/lib");
    ASSERT_TRUE(call("netware_sync", &out));
    EXPECT_EQ(out, "check LD_LIBRARY_PATH=:/opt/novell/lib\n");
}

}  // namespace
