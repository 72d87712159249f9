#include "config/dirwalk.hpp"
#include "log/trace.hpp"

#include <dirent.h>
#include <fnmatch.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "config/glbv.hpp"

namespace rv {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// The walk in progress: the open directory and the pattern its entries are
// matched against.
struct DirWalk {
    std::unique_ptr<DIR, DirCloser> dir;
    std::string pattern;
};

DirWalk& walk() {
    static DirWalk state;
    return state;
}

// Starts a new walk over "dir/pattern" (the previous walk is closed).
// False when the directory cannot be opened.
bool start_walk(std::string_view cpFile) {
    DirWalk& w = walk();
    w.dir.reset();
    std::string file(cpFile);
    resolve_glbv(file);
    WRITE_TRACE(2, "+++ iGET_DIR: %.*s -> %s", static_cast<int>(cpFile.size()), cpFile.data(), file.c_str());

    const std::size_t slash = file.rfind('/');
    const std::string dirName = slash == std::string::npos ? std::string("./") : file.substr(0, slash + 1);
    w.pattern = slash == std::string::npos ? file : file.substr(slash + 1);
    WRITE_TRACE(2, "dir name: %s, file name: %s", dirName.c_str(), w.pattern.c_str());

    w.dir.reset(opendir(dirName.c_str()));
    if (!w.dir) {
        const int err = errno;
        WRITE_TRACE(1, "iGET_DIR: Error in opendir( %s ): %s", dirName.c_str(), std::strerror(err));
        return false;
    }
    return true;
}

bool is_dot_entry(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

}  // namespace

bool i_GET_DIR(std::string_view cpFile, rv_dirent& pDE) {
    pDE.d_name.clear();
    if (!cpFile.empty()) {
        if (!start_walk(cpFile)) {
            return false;
        }
    } else {
        WRITE_TRACE(2, "+++ iGET_DIR: find next file");
    }

    DirWalk& w = walk();
    if (!w.dir) {
        return false;
    }
    while (const dirent* entry = readdir(w.dir.get())) {
        WRITE_TRACE(3, "check: %s %s", entry->d_name, w.pattern.c_str());
        if (is_dot_entry(entry->d_name) || fnmatch(w.pattern.c_str(), entry->d_name, 0) != 0) {
            continue;
        }
        WRITE_TRACE(2, "found valid file >%s<", entry->d_name);
        pDE.d_name = entry->d_name;
        return true;
    }
    WRITE_TRACE(2, "closing( dir_pointer )");
    w.dir.reset();
    return false;
}

}  // namespace rv
