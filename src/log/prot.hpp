// The product's protocol file: numbered messages for the administrator, one
// stamped line per text line, "YYYY-MM-DD hh:mm:ss CODE________[  pid]: text",
// in the language eLang. Where the file is, the layers above say: they
// install a resolver at start-up, which is asked again for every message
// (nothing is cached). trap_db_err is the standard reaction to an unexpected
// database answer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace rv {

// Message language of the protocol texts.
enum LANGUAGES { LANG_EN = 0, LANG_DE = 1, LANG_BA = 2, LANG_FR = 3, LANG_HR = 4 };
extern LANGUAGES eLang;

// Length of the message code that opens every PROT format.
inline constexpr std::size_t kProtCodeLength = 12;
// Longest composed line format and formatted text; longer output is cut and
// announced by an "E999-BASICS" line.
inline constexpr std::size_t kProtFormatLimit = 2560;
inline constexpr std::size_t kProtTextLimit = 5120;

// What a resolver says about the protocol file.
enum class ProtFile {
    found,    // `path` names it
    missing,  // no protocol file is defined
    failed,   // it could not be found out; `path` holds the reason
};

// Finds the protocol file: fills `path` (or the reason) and says which.
using ProtFileResolver = ProtFile (*)(std::string& path);

// Installs the resolver PROT asks before every message; nullptr: none
// (every message counts as having no protocol file).
void set_prot_file_resolver(ProtFileResolver resolver);

// Appends a message to the protocol file. `cpFormat` begins with the
// 12-character code, one blank, then the text. Misused codes (too short, or
// holding a conversion) are reported by a "W999-BASICS" line. Without a
// protocol file: "No gv_prot defined!" on standard error. A message that
// cannot be written (the file cannot be found out or opened, or a message
// comes up while another one is being written) goes to standard error
// instead, once; it never leads to a further protocol message.
void PROT(const char* cpFormat, ...) __attribute__((format(printf, 1, 2)));

// Writes "E008-BASICS  Error in command execution <command>: <text>" in the
// message language.
void prot_command_failed(const std::string& command, const std::string& text);

// Writes "E018-DATABAS <szModul> ...: <szMsg>." to the protocol file.
void trap_db_err(std::string_view szModul, std::string_view szMsg);

}  // namespace rv
