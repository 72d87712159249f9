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

}  // namespace

void set_environment_report(std::FILE* stream) { gReport = stream; }

bool i_setenv_ravik(std::string_view cpSystemCall) {
    const ProgramClass pc = classify(cpSystemCall);
    std::string value;
    std::string msg;

    bool found = i_GET_ROOT_FOR_INI("OPENRDA_INI", value, msg, kSettingSize);
    if (!export_setting("OPENRDA_INI", found, value, pc.database, "key OPENRDA_INI not found in /etc/ravik2000.ini")) {
        return false;
    }
    found = i_READ_INI("RV_INI", "[SERVER]", "gv_port_db", value, msg, kSettingSize);
    if (!export_setting("PGPORT", found, value, pc.database, "key gv_port_db not found in rv.ini")) {
        return false;
    }

    std::string ro_bin;
    if (!read_path_key("gv_ro_bin", ro_bin, msg)) {
        return false;
    }
    std::string ro_kvx;
    if (pc.media_server && !read_path_key("gv_ro_kvx", ro_kvx, msg)) {
        say("error in i_READ_INI gv_ro_kvx %s\n", msg.c_str());
        return false;
    }
    std::string ro_db;
    std::string ro_pgsql;
    if (pc.database) {
        if (!read_path_key("gv_ro_db", ro_db, msg)) {
            say("error in i_READ_INI gv_ro_db %s\n", msg.c_str());
            return false;
        }
        if (!read_path_key("gv_ro_pgsql", ro_pgsql, msg)) {
            ro_pgsql = kDefaultPgsqlDir;
        }
    }

    const char* path_env = std::getenv("PATH");
    if (path_env == nullptr) {
        say("error in getenv PATH\n");
        return false;
    }
    const std::string path(path_env);
    // A directory is added unless it occurs anywhere in PATH already.
    auto missing = [&path](const std::string& dir) { return !dir.empty() && path.find(dir) == std::string::npos; };
    const std::size_t len_bin = missing(ro_bin) ? ro_bin.size() : 0;
    const std::size_t len_db = missing(ro_db) ? ro_db.size() : 0;
    const std::size_t len_pgsql = missing(ro_pgsql) ? ro_pgsql.size() : 0;
    const std::size_t len_kvx = missing(ro_kvx) ? ro_kvx.size() : 0;

    if (len_bin + len_db + len_pgsql + len_kvx > 0) {
        // The database client directory is not counted here, as it never was.
        if (path.size() + len_db + len_bin + len_kvx >= kPathLimit) {
            say("iStrLenRoBin = %zu (0 means that string already in PATH)\n", len_bin);
            say("iStrLenRoDb  = %zu (0 means that string already in PATH)\n", len_db);
            say("iStrLenRoPgsql = %zu (0 means that string already in PATH)\n", len_pgsql);
            say("iStrLenRoKvx = %zu (0 means that string already in PATH)\n", len_kvx);
            say("iStrLenPath  = %zu\n", path.size());
            say("iSizeOfPath  = %zu\n", kPathLimit);
            say("length of string is not sufficient\n");
            return false;
        }
        std::string new_path = path;
        for (const auto& [dir, len] : {std::pair{&ro_bin, len_bin}, std::pair{&ro_db, len_db},
                                      std::pair{&ro_pgsql, len_pgsql}, std::pair{&ro_kvx, len_kvx}}) {
            if (len > 0) {
                new_path += ":" + *dir;
            }
        }
        if (!set_variable("PATH", new_path, false)) {
            return false;
        }
    }

    if (pc.netware) {
        const char* lib_env = std::getenv("LD_LIBRARY_PATH");
        say("check LD_LIBRARY_PATH=%s\n", lib_env ? lib_env : "");
        if (lib_env == nullptr) {
            say("didn't get LD_LIBRARY_PATH\n");
        }
        const std::string lib(lib_env ? lib_env : "");
        if (lib.find(kNetwareLibDir) == std::string::npos) {
            const std::string value_lib = lib + ":" + kNetwareLibDir;
            if (!set_variable("LD_LIBRARY_PATH", value_lib)) {
                return false;
            }
            say("set LD_LIBRARY_PATH=%s\n", value_lib.c_str());
        }
    }
    std::fflush(gReport);
    return true;
}

}  // namespace rv
