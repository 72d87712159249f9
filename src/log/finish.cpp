#include "log/finish.hpp"

#include <cstdio>
#include <utility>
#include <string>

#include "log/trace.hpp"

namespace rv {

const char* status_word(int iExit) {
    switch (iExit) {
        case RV_SUCCESS:
            return "SUCCESS";
        case RV_WARNING:
            return "WARNING";
        case RV_ERROR:
            return "ERROR";
        default:
            return "FATAL";
    }
}

Fatal::Fatal(int iExit, std::string_view cpMsg, bool bStatusLine)
    : std::runtime_error(std::string(cpMsg)), status_(iExit), status_line_(bStatusLine) {}

void FINISH(int iExit, std::string_view cpMsg) {
    const std::string msg(cpMsg);
    // A fatal end leaves no trace lines: the trace itself may be what failed.
    if (iExit != RV_FATAL) {
        WRITE_TRACE(1, "+++ FINISH  %d  %s", iExit, msg.c_str());
        WRITE_TRACE(1, "--- FINISH %s: %s", status_word(iExit), msg.c_str());
    }
    throw Fatal(iExit, msg);
}

namespace {

bool gMidLine = false;

}  // namespace

void console_mid_line() { gMidLine = true; }

int finish_run(const Fatal& fatal) {
    std::fflush(stdout);
    if (fatal.status_line()) {
        if (std::exchange(gMidLine, false)) {
            std::putchar('\n');
        }
        std::printf("STATUS=%s MSG=%s\n", status_word(fatal.status()), fatal.what());
        std::fflush(stdout);
    }
    return fatal.status();
}

}  // namespace rv
