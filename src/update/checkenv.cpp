#include "update/checkenv.hpp"

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "config/environment.hpp"
#include "config/ini.hpp"
#include "config/product.hpp"
#include "log/finish.hpp"
#include "log/trace.hpp"
#include "sys/console.hpp"
#include "sys/runner.hpp"
#include "config/dirwalk.hpp"
#include "update/run_lock.hpp"

namespace rv {

namespace {

constexpr std::size_t kDirValueSize = 512;
constexpr std::size_t kVersionSize = 256;

// Every name in the directory walk that matches `pattern`, in listing order.
std::vector<std::string> matching_files(const std::string& pattern) {
    std::vector<std::string> names;
    rv_dirent de;
    for (bool more = i_GET_DIR(pattern, de); more; more = i_GET_DIR("", de)) {
        names.push_back(de.d_name);
    }
    return names;
}

// Reports a broken installation and ends the run; `mark` follows the
// message on the console only.
[[noreturn]] void fail(const std::string& msg, const char* mark = "") {
    WRITE_TRACE(1, "ERROR: %s", msg.c_str());
    std::fprintf(stderr, "\nERROR: %s%s\n", msg.c_str(), mark);
    std::fflush(stderr);
    FINISH(RV_ERROR, msg);
}

bool read_version(const std::string& file, std::string& version, std::string& msg) {
    return i_GetPrivateProfileString(file, "[CVS_UPDATE]", "version", version, msg, kVersionSize);
}

void detect_new_version(std::string& version) {
    const char s = pathes.separator;
    const std::string pattern = pathes.root_ravik + "skel" + s + "*_srv.*.*";
    const auto names = matching_files(pattern);
    if (names.empty()) {
        fail("rv_db_update breaks because there is no version file: " + pattern);
    }
    for (const auto& name : names) {
        WRITE_TRACE(1, "got version file %s", name.c_str());
    }
    // The listing is not sorted: the last name it delivers wins.
    const std::string file = pathes.root_ravik + "skel" + s + names.back();
    WRITE_TRACE(1, "version file %s", file.c_str());
    std::string msg;
    if (!read_version(file, version, msg)) {
        WRITE_TRACE(1, "rv_db_update: %s", msg.c_str());
        FINISH(RV_ERROR, "rv_db_update: couldn't find version file! " + msg);
    }
    WRITE_TRACE(1, "got new version %s", version.c_str());
}

void ask_operator_for_old_version(std::string& version) {
    std::printf("Die alte QOR ravik2000 Version konnte nicht erkannt werden.\n");
    std::printf("Bitte geben Sie die Versionsnummer an (default: %s):\n", kDefaultOldVersion);
    std::fflush(stdout);
    {
        // Told to stop while asking, the tool ends at once, as it did before
        // it caught the stop signals: a caught one would wait for the answer.
        const StopSignalsAtDefault asking;
        getline(version, kVersionAnswerLimit);
    }
    if (version.empty()) {
        version = kDefaultOldVersion;
    }
    std::printf("Update von Version: %s\n", version.c_str());
    std::fflush(stdout);
    WRITE_TRACE(1, "Update from Version: %s (given by user)", version.c_str());
}

void detect_old_version(std::string& version) {
    const char s = pathes.separator;
    const std::string dir = pathes.root_ravik + "downgrade" + s + "skel" + s;
    std::string name;
    const auto names = matching_files(dir + "*_srv.*.*");
    if (!names.empty()) {
        for (std::size_t i = 0; i < names.size(); ++i) {
            WRITE_TRACE(1, i == 0 ? "got old version file %s" : "got version file %s", names[i].c_str());
        }
        name = names.back();
    } else {
        // The looser second pattern must be unambiguous.
        const std::string pattern = dir + "*_srv*.?.?";
        const auto loose = matching_files(pattern);
        if (loose.empty()) {
            fail("rv_db_update breaks because there is no old version file: " + pattern);
        }
        if (loose.size() > 1) {
            fail("rv_db_update breaks because there are several old version files: " + loose[0] + ", " + loose[1] + "!", "!");
        }
        WRITE_TRACE(1, "got old version file %s", loose[0].c_str());
        name = loose[0];
    }
    const std::string file = dir + name;
    WRITE_TRACE(1, "old version file %s", file.c_str());
    std::string msg;
    if (!read_version(file, version, msg)) {
        WRITE_TRACE(1, "rv_db_update: %s", msg.c_str());
        ask_operator_for_old_version(version);
    }
}

void print_report(const std::string& os) {
    std::printf("[Check enviroment]\n");
    std::printf(" [common]\n");
    std::printf("  operating system:   %s\n", os.c_str());
    std::printf("  separator:          %c\n", pathes.separator);
    std::printf("  database typ:       %s\n", "-");
    std::printf("  rv_db_update ini:   %s\n", rvdb_ini.c_str());
    std::printf(" [new ravik version]\n");
    std::printf("  ravik root path:    %s\n", pathes.root_ravik.c_str());
    std::printf("  ravik binaries:     %s\n", pathes.bin_ravik.c_str());
    std::printf("  db bin path:        %s\n", pathes.bin_db.c_str());
    std::printf("  ini path:           %s\n", pathes.var_ini.c_str());
    std::printf("  db path:            %s\n", pathes.var_db.c_str());
    std::printf("  work path:          %s\n", pathes.var_work.c_str());
    std::printf("  ravik version:      %s\n", pathes.version.c_str());
    std::printf(" [old ravik version]\n");
    std::printf("  ravik version:      %s\n\n", pathes.version_old.c_str());
    std::fflush(stdout);
}

}  // namespace

void upd_setenv() {
    const char list_sep = pathes.separator == '/' ? ':' : ';';
    std::string value = pathes.bin_ravik + list_sep + pathes.bin_db;
    if (const char* old = std::getenv("LD_LIBRARY_PATH")) {
        value += list_sep;
        value += old;
    }
    WRITE_TRACE(2, "setenv() set LD_LIBRARY_PATH=%s", value.c_str());
    if (setenv("LD_LIBRARY_PATH", value.c_str(), 1) != 0) {
        WRITE_TRACE(1, "upd_setenv() Failed to set environment variable LD_LIBRARY_PATH");
    }
}

namespace {

// The operating system the report names, found by check_installation.
std::string gOsName;

}  // namespace

void check_installation() {
    i_setenv_ravik("psql");

    // The variable that was read names the operating system in the report.
    if (const char* os_env = std::getenv("OS")) {
        pathes.separator = '\\';
        gOsName = os_env;
    } else {
        pathes.separator = '/';
        // OSTYPE is a shell variable that is rarely exported; without it the
        // system's own name is shown.
        if (const char* ostype = std::getenv("OSTYPE")) {
            gOsName = ostype;
        } else {
            struct utsname uts {};
            gOsName = uname(&uts) == 0 ? uts.sysname : "unknown";
        }
    }

    std::string msg;
    const std::pair<const char*, std::string*> dirs[] = {
        {"gv_ro", &pathes.root_ravik}, {"gv_ro_bin", &pathes.bin_ravik}, {"gv_ro_db", &pathes.bin_db},
        {"gv_rw_db", &pathes.var_db},  {"gv_rw_work", &pathes.var_work}, {"gv_rw_ini", &pathes.var_ini},
    };
    for (const auto& [key, field] : dirs) {
        i_READ_INI("RV_INI", "[PATHES]", key, *field, msg, kDirValueSize);
    }
    // Before anything asks the operator or touches the installation.
    lock_installation(pathes.var_work);
    upd_setenv();
    rvdb_ini = pathes.root_ravik + "skel" + pathes.separator + "rv_db_update.ini";
}

void check_versions(std::string& cpOldVersion, std::string& cpNewVersion) {
    if (cpNewVersion.empty()) {
        detect_new_version(cpNewVersion);
    }
    if (cpOldVersion.empty()) {
        detect_old_version(cpOldVersion);
    }
    print_report(gOsName);
}

void checkenv(std::string& cpOldVersion, std::string& cpNewVersion) {
    check_installation();
    check_versions(cpOldVersion, cpNewVersion);
}

}  // namespace rv
