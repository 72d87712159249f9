#include "config/environment.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "log/prot.hpp"
#include "log/trace.hpp"
#include "sys/runner.hpp"

namespace rv {

namespace {

// The process list, squeezed to single blanks: "<pid> <command line>".
constexpr const char* kProcessList = "ps -e -A -o pid,command";
// Only the first line of the answer is read, at most this long.
constexpr std::size_t kParentLineMax = 510;
// The squeezed process-id column skipped in front of the command line.
constexpr std::size_t kPidColumn = 6;

}  // namespace

bool get_parent_info(std::string& cpInfo) {
    cpInfo.clear();
    const int ppid = static_cast<int>(getppid());

    // "<process list> | tr -s ' ' | grep -v grep | grep -w <ppid>"
    const std::string command =
        std::string(kProcessList) + " | tr -s ' ' | grep -v grep | grep -w " + std::to_string(ppid);

    std::string line;
    ChildCommand probe{command, [&line](const std::string& text) {
                           if (line.empty()) {
                               line = text.substr(0, kParentLineMax);
                           }
                       }, nullptr, false};
    const ChildEnd end = child_runner().run(probe);
    if (end.how == ChildEnd::How::not_started) {
        const std::string reason = std::strerror(end.error);
        std::fprintf(stderr, "popen failed for %s\n", command.c_str());
        prot_command_failed(command, reason);
        return false;
    }
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }

    const std::string command_line =
        line.size() > kPidColumn ? line.substr(kPidColumn) : std::string();
    cpInfo = command_line + " (PPID=" + std::to_string(ppid) + ")";
    return true;
}

}  // namespace rv
