// The product's protocol file (its path is the global variable gv_prot):
// numbered messages for the administrator, one stamped line per text line,
// "YYYY-MM-DD hh:mm:ss CODE________[  pid]: text", in the language eLang.
// trap_db_err is the standard reaction to an unexpected database answer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "log/trace.hpp"

namespace rv {

// Length of the message code that opens every PROT format.
inline constexpr std::size_t kProtCodeLength = 12;
// Longest composed line format and formatted text; longer output is cut and
// announced by an "E999-BASICS" line.
inline constexpr std::size_t kProtFormatLimit = 2560;
inline constexpr std::size_t kProtTextLimit = 5120;

// Appends a message to the protocol file. `cpFormat` begins with the
// 12-character code, one blank, then the text. Misused codes (too short, or
// holding a conversion) are reported by a "W999-BASICS" line.
void PROT(const char* cpFormat, ...) __attribute__((format(printf, 1, 2)));

// Writes "E008-BASICS  Error in command execution <command>: <text>" in the
// message language.
void prot_command_failed(const std::string& command, const std::string& text);

// Writes "E018-DATABAS <szModul> ...: <szMsg>." to the protocol file. With
// `iExitFlg` non-zero prints "STATUS=ERROR MSG=..." and exits with status 1.
void trap_db_err(std::string_view szModul, std::string_view szMsg, str_log strLog, int iExitFlg);

}  // namespace rv
