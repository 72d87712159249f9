// An ini file read once, from its text, the way i_GetPrivateProfileString
// reads it line by line, but keeping the line each section and key stands
// on: for tools that look at a whole file, such as the check of an update
// script. Nothing is read from disk here.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/ini.hpp"

namespace rv {

struct IniKeyLine {
    std::string key;    // as written, before the first '='
    std::string value;  // behind it, trailing blanks removed, references as written
    int line = 0;       // line of the file, counted from 1
};

struct IniSectionLines {
    std::string name;  // between '[' and the first ']' (or the end of the line)
    int line = 0;
    std::vector<IniKeyLine> keys;
};

class IniListing {
  public:
    // Reads `text` as the lookups do: in pieces of at most kIniLinePiece
    // characters (a longer line goes on as lines of its own), without empty
    // lines and lines that begin with '#'. A line that begins with '[' opens
    // a section; a line with '=' in a section is a key line.
    explicit IniListing(std::string_view text);

    const std::vector<IniSectionLines>& sections() const { return sections_; }
    // The lines longer than kIniLinePiece characters.
    const std::vector<int>& long_lines() const { return long_lines_; }

    // The section a lookup of "[name]" finds: the first whose header line
    // begins with it, regardless of case; nullptr when there is none or the
    // name is longer than a lookup accepts.
    const IniSectionLines* find(std::string_view name) const;
    // The key line a lookup finds in `section`: the first of that name,
    // regardless of case.
    static const IniKeyLine* find(const IniSectionLines& section, std::string_view key);

    // The value a lookup of `key` in section "[name]" delivers, with its
    // reference "%(other)" resolved and cut to `size` minus one characters;
    // "" when it is empty. nullopt when the lookup leaves the caller's value
    // as it was: no such section or key, or a reference that cannot be
    // resolved.
    std::optional<std::string> value(std::string_view name, std::string_view key,
                                     std::size_t size = kIniValueSize) const;

  private:
    enum class Found { yes, empty, no, too_deep };
    Found lookup(std::string_view name, std::string_view key, std::size_t size, int depth,
                 std::string& out) const;

    std::vector<IniSectionLines> sections_;
    std::vector<std::string> headers_;  // the header line of each section, lower case
    std::vector<int> long_lines_;
};

}  // namespace rv
