// For now only the description of the parent process lives here; the rest of
// the product environment set-up (PATH, PGPORT, OPENRDA_INI, LD_LIBRARY_PATH)
// arrives together with the environment check.
#include "config/environment.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "log/prot.hpp"
#include "log/trace.hpp"
#include "sys/file_io.hpp"

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

    PipePtr pipe(popen(command.c_str(), "r"));
    if (!pipe) {
        const std::string reason = std::strerror(errno);
        std::fprintf(stderr, "popen failed for %s\n", command.c_str());
        prot_command_failed(command, reason);
        return false;
    }

    std::string line;
    while (line.size() < kParentLineMax) {
        const int c = std::getc(pipe.get());
        if (c == EOF) {
            break;
        }
        line.push_back(static_cast<char>(c));
        if (c == '\n') {
            break;
        }
    }
    pipe.reset();
    if (!line.empty()) {
        line.pop_back();  // the line feed
    }

    const std::string command_line =
        line.size() > kPidColumn ? line.substr(kPidColumn) : std::string();
    cpInfo = command_line + " (PPID=" + std::to_string(ppid) + ")";
    return true;
}

}  // namespace rv
