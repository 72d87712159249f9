// Fixture of the tests that run rv_db_update's commands in-process on a
// sandbox installation (releases 1.6.4.71 and 1.6.3.20 in the version files),
// with the operating system and the library path under control.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/commands.hpp"
#include "config/product.hpp"
#include "support/product_test.hpp"

namespace rvtest {

class CommandTest : public ProductTest {
  public:
    using Args = std::vector<std::string>;

  protected:
    void SetUp() override {
        ProductTest::SetUp();
        box.make_installation();
        for (const char* name : {"OS", "OSTYPE", "PATH", "PGPORT", "PGHOST", "OPENRDA_INI", "LD_LIBRARY_PATH"})
            saved.emplace_back(name, std::getenv(name) ? std::optional<std::string>(std::getenv(name)) : std::nullopt);
        unsetenv("OS");
        setenv("OSTYPE", "linux-gnu", 1);
    }
    void TearDown() override {
        for (const auto& [name, value] : saved) value ? setenv(name, value->c_str(), 1) : unsetenv(name);
        rv::pathes = rv::x{};
        rv::rvdb_ini.clear();
        rv::glbvVersion.reset();
        ProductTest::TearDown();
    }
    // Runs "rv_db_update <args>": the exit status; the console into out, err.
    int run(Args args) {
        args.insert(args.begin(), "rv_db_update");
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        int status = -1;
        out = capture(1, [&] {
            err = capture(2, [&] { status = rv::rv_db_update_main(int(args.size()), argv.data()); });
        });
        return status;
    }
    // The exit status, then the console.
    std::string said(const Args& args) { return std::to_string(run(args)) + out; }
    void script(const std::string& text) { write_file(ro + "skel/rv_db_update.ini", text); }
    void version_file(const std::string& name, const std::string& version) {
        write_file(ro + name, "[CVS_UPDATE]\nversion=" + version + "\n");
    }

    std::vector<std::pair<const char*, std::optional<std::string>>> saved;
    std::string ro = box.dir("gv_ro");
    std::string out, err;
};

}  // namespace rvtest
