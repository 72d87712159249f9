// File-based global variables shared by the product's processes (one file
// "<gv_rw_glbv><name>.rgv" per variable) and the two resolvers of the path
// notation: key:rest through [PATHES] of rv.ini, name:rest through a global
// variable.
#pragma once

#include <cstddef>
#include <string>

namespace rv {

// A value is delivered with at most this many bytes; a longer one is cut and
// marked with '>' at its last position.
inline constexpr std::size_t kGlbvValueMax = 511;

// What a global-variable service achieved.
enum class GlbvStatus {
    found,    // read: `text` is the value; other services: done
    missing,  // no such variable ("?? GLBV <name> not existing"), or no
              // gv_rw_glbv setting (the fatal-error text)
    failed,   // the file could not be read or written; `text` says why
};

struct GlbvResult {
    GlbvStatus status = GlbvStatus::missing;
    std::string text;

    bool found() const { return status == GlbvStatus::found; }
};

// Runs service `cFunction` on variable `cpGlbvName` ('\\' and '/' in the name
// become '_', in the caller's string): 'r' read, 'R' read and delete,
// 'w' write `cpGlbvValue`, 'd' delete (a '*' in the name deletes every
// match). A failure to read or write is reported on standard error and in
// the protocol file; an unknown service is `failed`.
GlbvResult glbv(char cFunction, std::string& cpGlbvName, const std::string& cpGlbvValue = {});

// Reads the variable `name`; `missing` and `failed` as glbv says.
GlbvResult glbv_read(std::string name);

// Replaces a global-variable reference name:rest (or a bare name) in `file`
// by the variable's value. Returns false and leaves `file` when unknown.
bool resolve_glbv(std::string& file);

// Replaces a [PATHES] key prefix key:rest (or a bare key) in `cpOrigPath` by
// the key's value; an unknown key leaves the path as it was. Returns true.
bool resolve_path(std::string& cpOrigPath);

}  // namespace rv
