#include "config/log_setup.hpp"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/environment.hpp"
#include "config/glbv.hpp"
#include "config/ini.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"
#include "sys/runner.hpp"
#include "sys/file_io.hpp"

namespace rv {

namespace {

// Lines of the debug settings file are read in pieces of at most this many
// characters.
constexpr std::size_t kTraceLinePiece = 254;
// Value sizes of the rv.ini lookups (a value is cut to size minus one).
constexpr std::size_t kIniDirSize = 256;
constexpr std::size_t kLgcDirSize = 512;

// A directory setting of rv.ini the trace cannot do without is missing.
void report_missing_setting(const char* cpFunction, const char* cpKey) {
    switch (eLang) {
        case LANG_DE:
            PROT("E003-BASICS  %s > %s existiert noch nicht - Neustart", cpFunction, cpKey);
            break;
        case LANG_BA:
            PROT("E003-BASICS  %s > %s gibds no nedd - Neistart", cpFunction, cpKey);
            break;
        default:
            PROT("E003-BASICS  %s > %s not yet existing - please restart RAVIK.", cpFunction, cpKey);
            break;
    }
}

int parse_level(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    const long value = std::strtol(begin, &end, 10);
    return end == begin ? 0 : static_cast<int>(value);
}

void set_language() {
    std::string lang;
    std::string msg;
    if (!i_READ_INI("RV_INI", "[SETUP]", "lang", lang, msg)) {
        WRITE_TRACE(0, "didn't find key lang in rv.ini > set language to en");
        eLang = LANG_EN;
        return;
    }
    WRITE_TRACE(2, "set language to %s", lang.c_str());
    if (lang == "de") {
        eLang = LANG_DE;
    } else if (lang == "de_BA") {
        eLang = LANG_BA;
    } else if (lang == "fr") {
        eLang = LANG_FR;
    } else if (lang == "hr") {
        eLang = LANG_HR;
    } else {
        eLang = LANG_EN;
    }
}

// The protocol file as the global variable gv_prot names it.
ProtFile prot_file_from_glbv(std::string& path) {
    const GlbvResult value = glbv_read("gv_prot");
    path = value.text;
    switch (value.status) {
        case GlbvStatus::found:
            return ProtFile::found;
        case GlbvStatus::missing:
            return ProtFile::missing;
        case GlbvStatus::failed:
            break;
    }
    return ProtFile::failed;
}

}  // namespace

void install_product_services() {
    set_prot_file_resolver(prot_file_from_glbv);
    set_child_environment(i_setenv_ravik);
}

int log_check(std::string_view cpInput) {
    std::string key(cpInput);
    for (char& c : key) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }

    std::string dir;
    std::string msg;
    if (!i_READ_INI("RV_INI", "[Pathes]", "gv_rw_ini", dir, msg, kIniDirSize)) {
        report_missing_setting("LOG_CHECK", "gv_rw_ini");
        std::fputs("FATAL: SET_LOG_MAIN: gv_rw_ini not set", stderr);
        dir.clear();
    }

    FilePtr fp(std::fopen((dir + "debug.ini").c_str(), "r"));
    if (!fp) {
        return 0;
    }
    const std::string prefix = key + "=";
    std::string line;
    while (read_piece(fp.get(), line, kTraceLinePiece)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            line.pop_back();  // the line feed
            const std::size_t eq = line.find('=');
            return eq == std::string::npos ? 0 : parse_level(line.substr(eq + 1));
        }
    }
    return 0;
}

void v_set_log_main(std::string_view cpKeyFile, std::string_view cpKeyDebug) {
    install_product_services();
    std::string dir;
    std::string msg;
    if (i_READ_INI("RV_INI", "[Pathes]", "gv_rw_lgc", dir, msg, kLgcDirSize)) {
        strLog.iFlg = 0;
        strLog.iVerify = 0;
        strLog.szFile = cpKeyFile.find(dir) != std::string_view::npos ? std::string(cpKeyFile)
                                                                        : dir + std::string(cpKeyFile);
        strLog.iFlg = log_check(cpKeyDebug);
        if (strLog.iFlg != 0) {
            strLog.szIns.clear();
            if (first_announcement()) {
                std::string parent;
                get_parent_info(parent);
                const std::string module(cpKeyDebug);
                WRITE_TRACE(0, "Logging enabled for module %s: Loglevel %d, PID=%d, parent process: %s",
                            module.c_str(), strLog.iFlg, static_cast<int>(getpid()), parent.c_str());
            }
            strLog.iVerify = log_check("STDERR");
        }
    } else {
        report_missing_setting("SET_LOG_MAIN", "gv_rw_lgc");
        std::fputs("FATAL: SET_LOG_MAIN: gv_rw_lgc not set", stderr);
    }
    set_language();
}

}  // namespace rv
