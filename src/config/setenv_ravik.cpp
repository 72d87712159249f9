// Environment for child programs. Values are set with setenv, which copies
// them, so nothing has to outlive this call.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/environment.hpp"
#include "config/ini.hpp"
#include "sys/strings.hpp"

namespace rv {

namespace {

// Where the messages go: standard output, unless a program whose standard
// output is data (the export tool) sends them elsewhere.
std::FILE* gReport = stdout;

__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::vfprintf(gReport, format, args);
    va_end(args);
}

// Only this much of the command line is looked at to classify it.
constexpr std::size_t kClassifyLimit = 511;
constexpr std::size_t kSettingSize = 512;
constexpr const char* kNetwareLibDir = "/opt/novell/lib";

// The program classes a command line can start.
struct ProgramClass {
    bool database = false;
    bool media_server = false;
    bool netware = false;
};

// True when `name` occurs in `line` before its first blank, or, in a line
// without a blank, at its very start.
bool names_program(const std::string& line, std::string_view name) {
    const auto pos = line.find(name);
    if (pos == std::string::npos) {
        return false;
    }
    const auto blank = line.find(' ');
    return blank == std::string::npos ? pos == 0 : pos < blank;
}

ProgramClass classify(std::string_view call) {
    const auto start = call.find_first_not_of(' ');
    std::string line(start == std::string_view::npos ? std::string_view() : call.substr(start));
    line = bounded(line, kClassifyLimit + 1);
    lowercase(line);
    ProgramClass pc;
    pc.database = names_program(line, "rv_db ") || names_program(line, "damisql") || names_program(line, "psql");
    pc.media_server = names_program(line, "rv_kvx_interface ");
    pc.netware = names_program(line, "netware");
    return pc;
}

// Sets NAME=value; prints the reason (with or without a line feed, as each
// caller always did) and returns false when that fails.
bool set_variable(const char* name, const std::string& value, bool line_feed = true) {
    if (setenv(name, value.c_str(), 1) != 0) {
        say("error in putenv %s%s", (std::string(name) + "=" + value).c_str(), line_feed ? "\n" : "");
        return false;
    }
    return true;
}

// Exports a setting when it differs from the current value. A setting that
// is missing is an error only for a database program.
bool export_setting(const char* name, bool found, const std::string& value, bool required,
                    const char* missing_text) {
    if (!found) {
        if (required) {
            say("%s\n", missing_text);
            return false;
        }
        return true;
    }
    const char* current = std::getenv(name);
    if (value == (current ? current : "")) {
        return true;
    }
    return set_variable(name, value);
}

bool read_path_key(const char* key, std::string& value, std::string& msg) {
    return i_READ_INI("RV_INI", "[PATHES]", key, value, msg, kSettingSize);
}

// OPENRDA_INI from the root configuration and PGPORT from rv.ini.
bool export_server_settings(const ProgramClass& pc) {
    std::string value;
    std::string msg;
    bool found = i_GET_ROOT_FOR_INI("OPENRDA_INI", value, msg, kSettingSize);
    if (!export_setting("OPENRDA_INI", found, value, pc.database, "key OPENRDA_INI not found in /etc/ravik2000.ini")) {
        return false;
    }
    found = i_READ_INI("RV_INI", "[SERVER]", "gv_port_db", value, msg, kSettingSize);
    return export_setting("PGPORT", found, value, pc.database, "key gv_port_db not found in rv.ini");
}

// The product's directories that a program of the class needs in PATH; one
// it does not need stays empty.
struct Directories {
    std::string ro_bin;
    std::string ro_db;
    std::string ro_pgsql;
    std::string ro_kvx;
};

bool read_directories(const ProgramClass& pc, Directories& dirs) {
    std::string msg;
    if (!read_path_key("gv_ro_bin", dirs.ro_bin, msg)) {
        return false;
    }
    if (pc.media_server && !read_path_key("gv_ro_kvx", dirs.ro_kvx, msg)) {
        say("error in i_READ_INI gv_ro_kvx %s\n", msg.c_str());
        return false;
    }
    if (pc.database) {
        if (!read_path_key("gv_ro_db", dirs.ro_db, msg)) {
            say("error in i_READ_INI gv_ro_db %s\n", msg.c_str());
            return false;
        }
        if (!read_path_key("gv_ro_pgsql", dirs.ro_pgsql, msg)) {
            dirs.ro_pgsql = kDefaultPgsqlDir;
        }
    }
    return true;
}

// The length each directory adds to PATH: 0 when it is empty or occurs
// anywhere in PATH already.
struct Additions {
    std::size_t bin;
    std::size_t db;
    std::size_t pgsql;
    std::size_t kvx;
};

Additions additions(const std::string& path, const Directories& dirs) {
    auto missing = [&path](const std::string& dir) {
        return !dir.empty() && path.find(dir) == std::string::npos ? dir.size() : std::size_t{0};
    };
    return {missing(dirs.ro_bin), missing(dirs.ro_db), missing(dirs.ro_pgsql), missing(dirs.ro_kvx)};
}

void report_path_too_long(const std::string& path, const Additions& add) {
    say("iStrLenRoBin = %zu (0 means that string already in PATH)\n", add.bin);
    say("iStrLenRoDb  = %zu (0 means that string already in PATH)\n", add.db);
    say("iStrLenRoPgsql = %zu (0 means that string already in PATH)\n", add.pgsql);
    say("iStrLenRoKvx = %zu (0 means that string already in PATH)\n", add.kvx);
    say("iStrLenPath  = %zu\n", path.size());
    say("iSizeOfPath  = %zu\n", kPathLimit);
    say("length of string is not sufficient\n");
}

// Appends the directories that PATH lacks.
bool extend_path(const Directories& dirs) {
    const char* path_env = std::getenv("PATH");
    if (path_env == nullptr) {
        say("error in getenv PATH\n");
        return false;
    }
    const std::string path(path_env);
    const Additions add = additions(path, dirs);
    if (add.bin + add.db + add.pgsql + add.kvx == 0) {
        return true;
    }
    // The database client directory is not counted here, as it never was.
    if (path.size() + add.db + add.bin + add.kvx >= kPathLimit) {
        report_path_too_long(path, add);
        return false;
    }
    std::string new_path = path;
    for (const auto& [dir, len] : {std::pair{&dirs.ro_bin, add.bin}, std::pair{&dirs.ro_db, add.db},
                                  std::pair{&dirs.ro_pgsql, add.pgsql}, std::pair{&dirs.ro_kvx, add.kvx}}) {
        if (len > 0) {
            new_path += ":" + *dir;
        }
    }
    return set_variable("PATH", new_path, false);
}

// The network client's library directory for its programs.
bool extend_library_path() {
    const char* lib_env = std::getenv("LD_LIBRARY_PATH");
    say("check LD_LIBRARY_PATH=%s\n", lib_env ? lib_env : "");
    if (lib_env == nullptr) {
        say("didn't get LD_LIBRARY_PATH\n");
    }
    const std::string lib(lib_env ? lib_env : "");
    if (lib.find(kNetwareLibDir) != std::string::npos) {
        return true;
    }
    const std::string value_lib = lib + ":" + kNetwareLibDir;
    if (!set_variable("LD_LIBRARY_PATH", value_lib)) {
        return false;
    }
    say("set LD_LIBRARY_PATH=%s\n", value_lib.c_str());
    return true;
}

}  // namespace

void set_environment_report(std::FILE* stream) { gReport = stream; }

bool i_setenv_ravik(std::string_view cpSystemCall) {
    const ProgramClass pc = classify(cpSystemCall);
    Directories dirs;
    if (!export_server_settings(pc) || !read_directories(pc, dirs) || !extend_path(dirs)) {
        return false;
    }
    if (pc.netware && !extend_library_path()) {
        return false;
    }
    std::fflush(gReport);
    return true;
}

}  // namespace rv
