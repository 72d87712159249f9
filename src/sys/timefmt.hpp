// Relative time stamps: a command such as "D -1", "T" or "I", optionally
// preceded by a base time "YYYY-MM-DD hh:mm:ss ", becomes a formatted local
// time. Unrepresentable results fall back to the largest 32-bit time value.
#pragma once

#include <ctime>
#include <string>

namespace rv {

// Time used when the normalised result cannot be represented.
inline constexpr std::time_t kTimeFallback = 2147483647;

// Replaces the command in `cpTime` by the time stamp it asks for:
// "%Y%m%d%H%M%S" for the command "I", otherwise "%Y-%m-%d %H:%M:%S %a".
// Unknown commands and unreadable numbers leave the time unchanged.
// Returns `cpTime`.
std::string& time_get(std::string& cpTime);

}  // namespace rv
