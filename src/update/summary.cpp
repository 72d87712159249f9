#include "update/summary.hpp"

#include <cstdio>
#include <vector>

#include "log/trace.hpp"
#include "steps/failures.hpp"
#include "update/journal.hpp"

namespace rv {

namespace {

std::vector<std::string> gSummary;

}  // namespace

void note_step_failures(const std::string& section, int step, const std::string& path) {
    for (const std::string& failure : take_step_failures()) {
        gSummary.push_back("[" + section + "] step " + std::to_string(step) + " " + failure);
        journal_step_failed(path, gSummary.back());
    }
}

void print_failure_summary() {
    if (gSummary.empty()) {
        return;
    }
    std::fflush(stdout);
    const std::string head = std::to_string(gSummary.size()) + (gSummary.size() == 1 ? " step" : " steps") +
                             " failed:";
    std::fprintf(stderr, "rv_db_update: %s\n", head.c_str());
    WRITE_TRACE(1, "%s", head.c_str());
    for (const std::string& line : gSummary) {
        std::fprintf(stderr, "  %s\n", line.c_str());
        WRITE_TRACE(1, "  %s", line.c_str());
    }
    std::fflush(stderr);
    gSummary.clear();
}

void clear_failure_summary() {
    gSummary.clear();
    take_step_failures();
}

}  // namespace rv
