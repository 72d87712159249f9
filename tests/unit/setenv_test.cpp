// Environment for child programs: which program classes get which settings,
// PATH extension rules and the refusals with their console texts.
#include <gtest/gtest.h>

#include <cstdlib>

#include "config/environment.hpp"
#include "support/sandbox.hpp"

namespace {

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
        root_ini("\nOPENRDA_INI=/opt/rvtest/openrda.ini\n");
        for (const char* name : {"PATH", "PGPORT", "OPENRDA_INI", "LD_LIBRARY_PATH"}) {
            saved.emplace_back(name, env(name));
            unsetenv(name);
        }
        setenv("PATH", "/usr/bin:/bin", 1);
    }
    void TearDown() override {
        for (const auto& [name, value] : saved) {
            value == "<unset>" ? unsetenv(name) : setenv(name, value.c_str(), 1);
        }
    }
    void root_ini(const std::string& rest) {
        rvtest::write_file(box.root_ini(), "RV_INI=" + box.rv_ini() + rest);
    }
    // Calls the set-up for `line`; its standard output goes to `out`.
    bool call(const std::string& line) {
        bool ok = false;
        out = rvtest::capture(1, [&] { ok = rv::i_setenv_ravik(line); });
        return ok;
    }

    std::vector<std::pair<const char*, std::string>> saved;
    rvtest::Sandbox box;
    std::string out;
};

TEST_F(SetenvRavik, ProgramClassesGetTheirSettings) {
    const std::string base = "/usr/bin:/bin";
    const std::string bin = base + ":/opt/rvtest/bin/";
    const std::string db = bin + ":/opt/rvtest/db/";
    // The database client gets port, directories and the default client path;
    // a second call finds everything in place.
    for (const char* line : {"psql", "  PSQL -d ravik_db"}) {
        ASSERT_TRUE(call(line));
        EXPECT_EQ(out, "");
        EXPECT_EQ(env("PGPORT"), "5499");
        EXPECT_EQ(env("OPENRDA_INI"), "/opt/rvtest/openrda.ini");
        EXPECT_EQ(env("PATH"), db + ":/usr/local/pgsql/bin/") << line;
    }
    // The class counts only before the first blank; rv_db only with its blank.
    box.set_path_key("gv_ro_pgsql", "/opt/rvtest/pgsql/");
    const std::pair<std::string, std::string> cases[] = {
        {"echo psql", bin},
        {"/usr/bin/psql", bin},  // without options the name is not at the start
        {"/usr/bin/psql -l", db + ":/opt/rvtest/pgsql/"},
        {"/opt/x/rv_db \"select 1\" -e", db + ":/opt/rvtest/pgsql/"},
        {"/opt/x/rv_db", bin},
    };
    for (const auto& [line, path] : cases) {
        setenv("PATH", base.c_str(), 1);
        ASSERT_TRUE(call(line));
        EXPECT_EQ(env("PATH"), path) << line;
    }
    // A directory inside a longer entry counts as present.
    setenv("PATH", "/usr/bin:/opt/rvtest/bin/extra", 1);
    ASSERT_TRUE(call("ls"));
    EXPECT_EQ(env("PATH"), "/usr/bin:/opt/rvtest/bin/extra");

    ASSERT_TRUE(call("netware_sync"));
    EXPECT_EQ(out,
              "check LD_LIBRARY_PATH=\ndidn't get LD_LIBRARY_PATH\n"
              "set LD_LIBRARY_PATH=:/opt/novell/lib\n");
    EXPECT_EQ(env("LD_LIBRARY_PATH"), ":/opt/novell/lib");
    ASSERT_TRUE(call("netware_sync"));
    EXPECT_EQ(out, "check LD_LIBRARY_PATH=:/opt/novell/lib\n");
}

TEST_F(SetenvRavik, MissingSettingsRefuseOnlyDatabasePrograms) {
    box.extra_sections = "";
    box.write_rv_ini();
    EXPECT_TRUE(call("echo psql"));
    EXPECT_EQ(out, "");
    EXPECT_FALSE(call("psql -l"));
    EXPECT_EQ(out, "key gv_port_db not found in rv.ini\n");

    root_ini("\n");
    EXPECT_FALSE(call("psql"));
    EXPECT_EQ(out, "key OPENRDA_INI not found in /etc/ravik2000.ini\n");

    root_ini("\nOPENRDA_INI=/x\n");
    box.extra_sections = "[SERVER]\ngv_port_db=5499\n";
    box.set_path_key("gv_ro_db", "");
    EXPECT_FALSE(call("psql"));
    EXPECT_TRUE(out.starts_with("error in i_READ_INI gv_ro_db i_READ_INI: ")) << out;
    box.set_path_key("gv_ro_db", "/opt/rvtest/db/");
    EXPECT_FALSE(call("rv_kvx_interface -x"));
    EXPECT_TRUE(out.starts_with("error in i_READ_INI gv_ro_kvx ")) << out;
    box.set_path_key("gv_ro_bin", "");
    EXPECT_FALSE(call("ls"));
    EXPECT_EQ(out, "");

    // An overlong PATH is refused with the seven lines.
    box.set_path_key("gv_ro_bin", "/opt/rvtest/bin/");
    const std::string longpath = "/usr/bin:" + std::string(2030, 'p');
    setenv("PATH", longpath.c_str(), 1);
    EXPECT_FALSE(call("ls"));
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

}  // namespace
