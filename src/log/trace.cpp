#include "log/trace.hpp"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>

#include "sys/file_io.hpp"
#include "sys/progress.hpp"
#include "sys/strings.hpp"

namespace rv {

str_log strLog;

namespace {

// Nesting depth of entry and exit lines.
int iIndex = 0;
// Whether the trace has said that it is enabled.
bool iLogEnabledMsg = false;

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

// Exit line: take one step of indentation back before the line is written.
void shrink_indent() {
    if (iIndex <= kTraceIndentSteps) {
        if (strLog.szIns.size() < 2) {
            strLog.szIns.clear();
        } else {
            strLog.szIns.resize(strLog.szIns.size() - 2);
        }
    }
    if (iIndex > 0) {
        --iIndex;
    }
}

// Entry line: indent what follows.
void grow_indent() {
    if (iIndex <= kTraceIndentSteps - 1) {
        strLog.szIns += "  ";
    }
    ++iIndex;
}

}  // namespace

bool tracing(int iLevel) { return strLog.iFlg >= iLevel; }

void WRITE_TRACE(int iLevel, const char* cpFormat, ...) {
    if (!tracing(iLevel)) {
        return;
    }
    const TimeOfDay t = time_of_day();
    if (cpFormat[0] == '-') {
        shrink_indent();
    }

    std::va_list args;
    va_start(args, cpFormat);
    const std::string text = vformat(cpFormat, args);
    va_end(args);

    if (strLog.iVerify) {
        clear_progress_line();
        std::fprintf(stderr, "%2d:%02d:%02d#%s %s\n", t.hour, t.min, t.sec, strLog.szIns.c_str(), text.c_str());
    }
    if (!strLog.szFile.empty()) {
        if (FilePtr fp{std::fopen(strLog.szFile.c_str(), "a")}) {
            std::fprintf(fp.get(), "%2d:%02d:%02d#%s %s\n", t.hour, t.min, t.sec, strLog.szIns.c_str(),
                         text.c_str());
        }
    }

    if (cpFormat[0] == '+') {
        grow_indent();
    }
}

bool first_announcement() { return !std::exchange(iLogEnabledMsg, true); }

void trace_reset() {
    iIndex = 0;
    iLogEnabledMsg = false;
    strLog = str_log{};
}

}  // namespace rv
