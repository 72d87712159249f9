// Walks the entries of one directory that match a shell wildcard pattern,
// one entry per call. The walk is module state: a call with a pattern starts
// a new walk (closing the previous one), a call with "" continues it.
#pragma once

#include <string>
#include <string_view>


namespace rv {

// One directory entry found by i_GET_DIR.
struct rv_dirent {
    std::string d_name;
};

// First call: `cpFile` is "dir/pattern" (a global-variable reference
// name:rest is resolved first; without '/' the current directory is searched).
// Later calls: `cpFile` is "". Returns true with `pDE.d_name` set to the next
// matching entry ("." and ".." never match), false when there is none or the
// directory cannot be opened. `pDE.d_name` is cleared on every call.
bool i_GET_DIR(std::string_view cpFile, rv_dirent& pDE);

}  // namespace rv
