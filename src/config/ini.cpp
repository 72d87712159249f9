#include "config/ini.hpp"

#include <fcntl.h>

#include <cctype>
#include <cstdlib>
#include <vector>

#include "sys/file_io.hpp"

namespace rv {

namespace {

// A reference that leads to itself (a=%(a), or a=%(b) with b=%(a)) would never
// end. A lookup this many references deep is refused with the message
// "i_GetPrivateProfileString: REFERENCE NESTED TOO DEEPLY: <key>".
constexpr int kIniReferenceDepthMax = 32;

constexpr std::string_view kDefaultSection = "[DEFAULT]";

enum class Lookup { found, failed, too_deep };

// The whole of `file`, read in one go, so that a lookup walks its lines in
// memory. False when it cannot be opened; a read error ends the text there,
// as the end of the file would.
bool read_whole(const std::string& file, std::string& text) {
    text.clear();
    return read_pieces(file, O_RDONLY, [&text](std::string_view piece) {
        text.append(piece);
        return true;
    }) == 0;
}

// The next piece of a line of `text` from `at` on: up to the line feed, but
// at most kIniLinePiece characters, so a longer line goes on as a new line.
// The line feed is dropped, a carriage return stays. False at the end.
bool next_piece(std::string_view text, std::size_t& at, std::string_view& line) {
    if (at >= text.size()) {
        return false;
    }
    const std::string_view rest = text.substr(at, kIniLinePiece);
    const std::size_t lf = rest.find('\n');
    line = rest.substr(0, lf);
    at += lf == std::string_view::npos ? rest.size() : lf + 1;
    return true;
}

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

std::string lowered(std::string_view s) {
    std::string out(s);
    for (char& c : out) {
        c = lower(c);
    }
    return out;
}

// True when `line` begins with `prefix` (already lower case), ignoring case.
bool starts_with_nocase(std::string_view line, std::string_view prefix) {
    if (line.size() < prefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (lower(line[i]) != prefix[i]) {
            return false;
        }
    }
    return true;
}

// Trailing blanks go, unless the value is nothing but blanks: then it stays.
void trim_trailing_blanks(std::string& value) {
    const auto last = value.find_last_not_of(' ');
    if (last != std::string::npos) {
        value.erase(last + 1);
    }
}

std::string cut(std::string_view value, std::size_t iLengthValue) {
    return std::string(value.substr(0, iLengthValue == 0 ? 0 : iLengthValue - 1));
}

Lookup lookup(std::string_view file, std::string_view section, std::string_view key, std::string& value,
              std::string& msg, std::size_t iLengthValue, int depth);

// Refuses a lookup before the file is read: no file, a name too long, or
// references nested too deeply. Lookup::found when the lookup may go on.
Lookup check_request(std::string_view file, std::string_view section, std::string_view key, int depth,
                     std::string& msg) {
    if (file.empty()) {
        msg = "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM.";
        return Lookup::failed;
    }
    if (section.size() > kIniSectionMax) {
        msg = "i_GetPrivateProfileString: SECTION NAME TOO LONG: " + std::string(section);
        return Lookup::failed;
    }
    if (key.size() > kIniKeyMax) {
        msg = "i_GetPrivateProfileString: KEY NAME TOO LONG: " + std::string(key);
        return Lookup::failed;
    }
    if (depth >= kIniReferenceDepthMax) {
        msg = "i_GetPrivateProfileString: REFERENCE NESTED TOO DEEPLY: " + std::string(key);
        return Lookup::too_deep;
    }
    return Lookup::found;
}

enum class Scan { key_found, section_missing, section_ended, key_missing };

// Reads `text` up to the line of `key` in `section` ("" for the whole
// file); that line is left in `line`.
Scan scan_for_key(std::string_view text, std::string_view section, std::string_view key, std::string& line) {
    enum { before_section, in_section, whole_file } state = section.empty() ? whole_file : before_section;
    const std::string wantedSection = lowered(section);
    const std::string wantedKey = lowered(key) + "=";
    std::string_view piece;
    for (std::size_t at = 0; next_piece(text, at, piece);) {
        if (piece.empty() || piece[0] == '#') {
            continue;
        }
        if (state == before_section && starts_with_nocase(piece, wantedSection)) {
            state = in_section;
            continue;
        }
        if (state == in_section && piece[0] == '[') {
            return Scan::section_ended;
        }
        if ((state == in_section || state == whole_file) && starts_with_nocase(piece, wantedKey)) {
            line.assign(piece);
            return Scan::key_found;
        }
    }
    return state == before_section ? Scan::section_missing : Scan::key_missing;
}

// Finds the line of the key in the file; `msg` says why there is none.
Lookup find_key_line(std::string_view file, std::string_view section, std::string_view key,
                     std::string& line, std::string& msg) {
    const std::string filename(file);
    std::string text;
    if (!read_whole(filename, text)) {
        msg = "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM: " + filename + ".";
        return Lookup::failed;
    }
    switch (scan_for_key(text, section, key, line)) {
        case Scan::key_found:
            return Lookup::found;
        case Scan::section_ended:
            msg = "i_GetPrivateProfileString: KEY NOT FOUND " + std::string(section) + std::string(key);
            break;
        case Scan::section_missing:
            msg = "i_GetPrivateProfileString: SECTION NOT FOUND: " + lowered(section) + ".";
            break;
        case Scan::key_missing:
            msg = "i_GetPrivateProfileString: KEY NOT FOUND: " + std::string(key);
            break;
    }
    return Lookup::failed;
}

// Replaces the first reference "%(name)" in `text`; the referenced value
// has been resolved by its own lookup. A "%(" without ")" is plain text.
Lookup resolve_reference(std::string_view file, std::string_view section, std::string& text,
                         std::string& msg, std::size_t iLengthValue, int depth) {
    const auto open = text.find("%(");
    const auto close = open == std::string::npos ? open : text.find(')', open + 2);
    if (close == std::string::npos) {
        return Lookup::found;
    }
    const std::string name = text.substr(open + 2, close - open - 2);
    std::string referenced;
    Lookup result = lookup(file, section, name, referenced, msg, iLengthValue, depth + 1);
    // The fallback would repeat the very same lookup when the section
    // already is [DEFAULT].
    if (result == Lookup::failed && section != kDefaultSection) {
        result = lookup(file, kDefaultSection, name, referenced, msg, iLengthValue, depth + 1);
    }
    if (result == Lookup::found) {
        text = text.substr(0, open) + referenced + text.substr(close + 1);
    }
    return result;
}

Lookup lookup(std::string_view file, std::string_view section, std::string_view key, std::string& value,
              std::string& msg, std::size_t iLengthValue, int depth) {
    msg.clear();
    std::string line;
    Lookup result = check_request(file, section, key, depth, msg);
    if (result == Lookup::found) {
        result = find_key_line(file, section, key, line, msg);
    }
    if (result != Lookup::found) {
        return result;
    }
    std::string text = line.substr(line.find('=') + 1);
    trim_trailing_blanks(text);
    result = resolve_reference(file, section, text, msg, iLengthValue, depth);
    if (result != Lookup::found) {
        return result;
    }
    value = cut(text, iLengthValue);
    if (value.empty()) {
        msg = "i_GetPrivateProfileString: KEY VALUE NOT FOUND.";
        return Lookup::failed;
    }
    msg.clear();
    return Lookup::found;
}

}  // namespace

bool i_GetPrivateProfileString(std::string_view cpFilename, std::string_view cpSection,
                               std::string_view cpKey, std::string& cpValue, std::string& cpMsg,
                               std::size_t iLengthValue) {
    return lookup(cpFilename, cpSection, cpKey, cpValue, cpMsg, iLengthValue, 0) == Lookup::found;
}

bool i_GET_ROOT_FOR_INI(std::string_view cpIdentifier, std::string& cpValue, std::string& cpMsg,
                        std::size_t iLengthValue) {
    cpValue.clear();
    std::vector<std::string> files;
    if (const char* env = std::getenv("RAVIK_INI")) {
        files.emplace_back(env);
    }
    files.emplace_back(kRootIniFirst);
    files.emplace_back(kRootIniSecond);

    for (const std::string& file : files) {
        std::string value;
        if (i_GetPrivateProfileString(file, "", cpIdentifier, value, cpMsg, iLengthValue)) {
            cpValue = value;
            return true;
        }
    }
    // The message names the second file tried, not the last one.
    cpMsg = "i_GET_ROOT_FOR_INI: NO RAVIK CONFIGURATION FILE FOUND: " + files[1];
    return false;
}

bool i_READ_INI(std::string_view cpIdentifier, std::string_view cpSection, std::string_view cpKey,
                std::string& cpValue, std::string& cpMsg, std::size_t iLengthValue) {
    cpValue.clear();
    std::string reason(cpIdentifier.empty() ? std::string_view("RV_INI") : cpIdentifier);

    std::string iniFile;
    if (i_GET_ROOT_FOR_INI(reason, iniFile, cpMsg, kIniValueSize)) {
        std::string value;
        if (i_GetPrivateProfileString(iniFile, cpSection, cpKey, value, reason, kIniValueSize)) {
            cpValue = cut(value, iLengthValue);
            return true;
        }
    }
    // `reason` holds the identifier when the root lookup failed, else the
    // message of the failed key lookup.
    cpMsg = "i_READ_INI: " + reason;
    return false;
}

}  // namespace rv
