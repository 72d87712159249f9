#include "log/trace.hpp"

#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "config/environment.hpp"
#include "config/ini.hpp"
#include "log/prot.hpp"
#include "sys/file_io.hpp"
#include "sys/strings.hpp"

namespace rv {

LANGUAGES eLang = LANG_EN;
str_log strLog;

namespace {

// Process-wide state of the trace: nesting depth, the first context that was
// set up, and whether the "Logging enabled" line and that copy are done.
int iIndex = 0;
str_log strLocalLog;
bool iLogEnabledMsg = false;
bool iLogLocalInitialized = false;

// Lines of the debug settings file and of a copied file are read in pieces
// of at most this many characters.
constexpr std::size_t kTraceLinePiece = 254;
// Value sizes of the rv.ini lookups (a value is cut to size minus one).
constexpr std::size_t kIniDirSize = 256;
constexpr std::size_t kLgcDirSize = 512;

struct TimeOfDay {
    int hour = 0;
    int min = 0;
    int sec = 0;
};

TimeOfDay time_of_day() {
    const std::time_t now = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&now, &tmNow);
    return {tmNow.tm_hour, tmNow.tm_min, tmNow.tm_sec};
}

// Reads the next piece of a line as fgets would with room for `max`
// characters: up to and including the line feed, at most `max` characters.
bool read_piece(std::FILE* fp, std::string& piece, std::size_t max) {
    piece.clear();
    while (piece.size() < max) {
        const int c = std::getc(fp);
        if (c == EOF) {
            break;
        }
        piece.push_back(static_cast<char>(c));
        if (c == '\n') {
            break;
        }
    }
    return !piece.empty();
}

FilePtr open_trace(const str_log* strLogIn) {
    if (strLogIn->szFile.empty()) {
        return FilePtr();
    }
    return FilePtr(std::fopen(strLogIn->szFile.c_str(), "a"));
}

// Exit line: take one step of indentation back before the line is written.
void shrink_indent(str_log* strLogIn) {
    if (iIndex <= kTraceIndentSteps) {
        if (strLogIn->szIns.size() < 2) {
            strLogIn->szIns.clear();
        } else {
            strLogIn->szIns.resize(strLogIn->szIns.size() - 2);
        }
    }
    if (iIndex > 0) {
        --iIndex;
    }
}

// Entry line: indent what follows.
void grow_indent(str_log* strLogIn) {
    if (iIndex <= kTraceIndentSteps - 1) {
        strLogIn->szIns += "  ";
    }
    ++iIndex;
}

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
            PROT("E003-BASICS  %s > %s not yet existing - please restart RAVIK.", cpFunction,
                 cpKey);
            break;
    }
}

int parse_level(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    const long value = std::strtol(begin, &end, 10);
    if (end == begin) {
        return 0;
    }
    return static_cast<int>(value);
}

}  // namespace

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

void v_set_log_main(std::string_view cpKeyFile, std::string_view cpKeyDebug, str_log* strLogIn) {
    std::string dir;
    std::string msg;
    if (i_READ_INI("RV_INI", "[Pathes]", "gv_rw_lgc", dir, msg, kLgcDirSize)) {
        strLogIn->iFlg = 0;
        strLogIn->iVerify = 0;
        if (cpKeyFile.find(dir) != std::string_view::npos) {
            strLogIn->szFile = std::string(cpKeyFile);
        } else {
            strLogIn->szFile = dir + std::string(cpKeyFile);
        }
        strLogIn->iFlg = log_check(cpKeyDebug);
        if (strLogIn->iFlg != 0) {
            strLogIn->szIns.clear();
            if (!iLogEnabledMsg) {
                iLogEnabledMsg = true;
                std::string parent;
                get_parent_info(parent);
                const std::string module(cpKeyDebug);
                WRITE_TRACE(
                    strLogIn,
                    "Logging enabled for module %s: Loglevel %d, PID=%d, parent process: %s",
                    module.c_str(), strLogIn->iFlg, static_cast<int>(getpid()), parent.c_str());
            }
            strLogIn->iVerify = log_check("STDERR");
        }
        if (!iLogLocalInitialized) {
            iLogLocalInitialized = true;
            strLocalLog = *strLogIn;
        }
    } else {
        report_missing_setting("SET_LOG_MAIN", "gv_rw_lgc");
        std::fputs("FATAL: SET_LOG_MAIN: gv_rw_lgc not set", stderr);
    }

    std::string lang;
    if (i_READ_INI("RV_INI", "[SETUP]", "lang", lang, msg)) {
        if (strLogIn->iFlg > 1) {
            WRITE_TRACE(strLogIn, "set language to %s", lang.c_str());
        }
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
    } else {
        WRITE_TRACE(strLogIn, "didn't find key lang in rv.ini > set language to en");
        eLang = LANG_EN;
    }
}

void WRITE_TRACE(str_log* strLogIn, const char* cpFormat, ...) {
    const TimeOfDay t = time_of_day();
    if (cpFormat[0] == '-') {
        shrink_indent(strLogIn);
    }

    std::va_list args;
    va_start(args, cpFormat);
    const std::string text = vformat(cpFormat, args);
    va_end(args);

    if (strLogIn->iVerify) {
        std::fprintf(stderr, "%2d:%02d:%02d#%s %s\n", t.hour, t.min, t.sec, strLogIn->szIns.c_str(),
                     text.c_str());
    }
    if (FilePtr fp = open_trace(strLogIn)) {
        std::fprintf(fp.get(), "%2d:%02d:%02d#%s %s\n", t.hour, t.min, t.sec,
                     strLogIn->szIns.c_str(), text.c_str());
    }

    if (cpFormat[0] == '+') {
        grow_indent(strLogIn);
    }
}

void WRITE_TRACE_COPY_FILE(str_log* strLogIn, std::string_view cpFile) {
    const TimeOfDay t = time_of_day();
    const char* ins = strLogIn->szIns.c_str();
    // The keyword line itself is echoed like any other trace line.
    if (strLogIn->iVerify) {
        std::fprintf(stderr, "%2d:%02d:%02d#%s COPY_FILE\n", t.hour, t.min, t.sec, ins);
    }
    FilePtr fp = open_trace(strLogIn);
    if (!fp) {
        return;
    }
    const std::string name(cpFile);
    FilePtr src(std::fopen(name.c_str(), "r"));
    if (!src) {
        std::fprintf(fp.get(), "%2d:%02d:%02d#   File %s not found\n", t.hour, t.min, t.sec,
                     name.c_str());
        if (strLogIn->iVerify) {
            std::fprintf(stderr, "%2d:%02d:%02d# File %s not found\n", t.hour, t.min, t.sec,
                         name.c_str());
        }
        return;
    }
    std::string line;
    while (read_piece(src.get(), line, kTraceLinePiece)) {
        line.pop_back();  // the line feed, or the piece's last character
        std::fprintf(fp.get(), "%2d:%02d:%02d#%s    %s\n", t.hour, t.min, t.sec, ins, line.c_str());
        if (strLogIn->iVerify) {
            std::fprintf(stderr, "%2d:%02d:%02d#%s %s\n", t.hour, t.min, t.sec, ins, line.c_str());
        }
    }
}

const str_log& local_log() {
    return strLocalLog;
}

int trace_depth() {
    return iIndex;
}

void trace_reset() {
    iIndex = 0;
    strLocalLog = str_log{};
    iLogEnabledMsg = false;
    iLogLocalInitialized = false;
}

}  // namespace rv
