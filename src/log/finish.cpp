#include "log/finish.hpp"

#include <cstdio>
#include <cstdlib>
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

void FINISH(int iExit, std::string_view cpMsg) {
    const std::string msg(cpMsg);
    // A fatal end leaves no trace lines: the trace itself may be what failed.
    const bool traced = iExit != RV_FATAL && strLog.iFlg > 0;
    if (traced) {
        WRITE_TRACE(&strLog, "+++ FINISH  %d  %s", iExit, msg.c_str());
    }
    const char* word = status_word(iExit);
    if (traced) {
        WRITE_TRACE(&strLog, "--- FINISH %s: %s", word, msg.c_str());
    }
    std::printf("STATUS=%s MSG=%s\n", word, msg.c_str());
    std::fflush(stdout);
    std::exit(iExit);
}

}  // namespace rv
