// File-based global variables shared by the product's processes (one file
// "<gv_rw_glbv><name>.rgv" per variable) and the two resolvers of the path
// notation: key:rest through [PATHES] of rv.ini, name:rest through a global
// variable. glbv never fails by result: a failed read yields a text that
// begins with "??", which callers test by its first character.
#pragma once

#include <cstddef>
#include <string>

namespace rv {

// A value is delivered with at most this many bytes; a longer one is cut and
// marked with '>' at its last position.
inline constexpr std::size_t kGlbvValueMax = 511;

// Runs service `cFunction` on variable `cpGlbvName` ('\\' and '/' in the name
// become '_', in the caller's string): 'r' read, 'R' read and delete,
// 'w' write `cpGlbvValue`, 'd' delete (a '*' in the name deletes every match).
// Returns the value buffer, for 'd' the name.
const std::string& glbv(char cFunction, std::string& cpGlbvName, std::string& cpGlbvValue);

// True when `value`, as glbv read it, is a value: neither a "??" failure
// text nor the fatal text of a missing gv_rw_glbv setting.
bool glbv_found(const std::string& value);

// Replaces a global-variable reference name:rest (or a bare name) in `file`
// by the variable's value. Returns false and leaves `file` when unknown.
bool resolve_glbv(std::string& file);

// Replaces a [PATHES] key prefix key:rest (or a bare key) in `cpOrigPath` by
// the key's value; an unknown key leaves the path as it was. Returns true.
bool resolve_path(std::string& cpOrigPath);

// Turns every backslash in `cpS` into a slash.
void SLASH_HAMMER(std::string& cpS);

}  // namespace rv
