// The words of shell lines and the names of signals, as runner.hpp declares
// them.
#include "sys/runner.hpp"

#include <csignal>
#include <cstring>
#include <string>
#include <string_view>

namespace rv {

std::string signal_name(int signo) {
    const char* abbrev = sigabbrev_np(signo);
    return abbrev != nullptr ? std::string("SIG") + abbrev : "signal " + std::to_string(signo);
}

std::string shell_quote(std::string_view word) {
    constexpr std::string_view kPlain = "_-+./:=,@%";
    bool plain = !word.empty();
    for (const char c : word) {
        const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        plain = plain && (alnum || kPlain.find(c) != std::string_view::npos);
    }
    if (plain) {
        return std::string(word);
    }
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

bool shell_double_quotable(std::string_view text) { return text.find_first_of("\"$`\\") == std::string_view::npos; }

}  // namespace rv
