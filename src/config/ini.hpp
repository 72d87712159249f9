// Reads keys from the product's ini files. Nothing is cached: every lookup
// opens the file, reads it from the top and closes it, so a change is seen by
// the next lookup. Failures are a false result and a message that starts with
// the name of the failing operation; nothing is printed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace rv {

// Lines longer than this are read as several lines of at most this length.
inline constexpr std::size_t kIniLinePiece = 1023;
// Longest section name (brackets included) and key a lookup accepts.
inline constexpr std::size_t kIniSectionMax = 63;
inline constexpr std::size_t kIniKeyMax = 62;
// The value size most callers use; a value is cut to size minus one.
inline constexpr std::size_t kIniValueSize = 1024;
// Root configuration files searched after the one named by RAVIK_INI.
inline constexpr const char* kRootIniFirst = "/etc/opt/ravik/ravik.ini";
inline constexpr const char* kRootIniSecond = "/etc/ravik2000.ini";

// Looks up `cpKey` in section `cpSection` (e.g. "[PATHES]"; "" searches the
// whole file) of `cpFilename`. Section and key compare without regard to case;
// `%(name)` references are resolved from the same section or "[DEFAULT]".
// Returns true when the key was found with a non-empty value; the value is
// cut to `iLengthValue`-1 characters. `cpValue` is written only when the key
// line was found. `cpMsg` is "" on success, else the reason.
bool i_GetPrivateProfileString(std::string_view cpFilename, std::string_view cpSection,
                               std::string_view cpKey, std::string& cpValue, std::string& cpMsg,
                               std::size_t iLengthValue = kIniValueSize);

// Finds the value of the identifier `cpIdentifier` (e.g. "RV_INI") in the root
// configuration files: $RAVIK_INI, then kRootIniFirst, then kRootIniSecond.
bool i_GET_ROOT_FOR_INI(std::string_view cpIdentifier, std::string& cpValue, std::string& cpMsg,
                        std::size_t iLengthValue = kIniValueSize);

// Looks up section and key in the ini file the identifier names ("" means
// "RV_INI", i.e. rv.ini). `cpValue` is "" unless the lookup succeeds.
bool i_READ_INI(std::string_view cpIdentifier, std::string_view cpSection, std::string_view cpKey,
                std::string& cpValue, std::string& cpMsg, std::size_t iLengthValue = kIniValueSize);

}  // namespace rv
