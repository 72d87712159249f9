// A throwaway product installation for tests: a temporary directory with a
// root configuration file (reached through RAVIK_INI), an rv.ini whose
// [PATHES] point into the sandbox, and the directories they name. The
// directory is removed and RAVIK_INI restored when the sandbox goes away.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace rvtest {

class Sandbox {
public:
    // Creates the tree and points RAVIK_INI at its root file.
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::filesystem::path& root() const { return root_; }
    // "<root>/<rel>" as text.
    std::string path(const std::string& rel) const;
    // Directory value of a [PATHES] key, with its trailing '/'.
    std::string dir(const std::string& key) const;

    // Path of rv.ini and of the root configuration file.
    std::string rv_ini() const { return path("etc/rv.ini"); }
    std::string root_ini() const { return path("etc/ravik.ini"); }

    // Rewrites rv.ini from the [PATHES] keys plus `extra` (whole sections).
    void write_rv_ini(const std::string& extra = "");
    // Sets or, with an empty value, removes a [PATHES] key; rewrites rv.ini.
    void set_path_key(const std::string& key, const std::string& value);
    // Makes the sandbox a complete installation: OPENRDA_INI in the root
    // file, [SERVER] gv_port_db, version files of the new release 1.6.4.71
    // (skel/ravik_srv.1.6.4) and the old release 1.6.3.20
    // (downgrade/skel/ravik_srv.1.6.3), and a schema directory
    // <gv_rw_db>schema/ravik/ with two files.
    void make_installation();
    // Writes <gv_rw_ini>debug.ini with `content`.
    void write_debug_ini(const std::string& content);

    // Extra text appended to rv.ini on every rewrite ([SETUP], [SERVER], ...).
    std::string extra_sections;

private:
    std::filesystem::path root_;
    std::map<std::string, std::string> keys_;
    std::string saved_ravik_ini_;
    bool had_ravik_ini_ = false;
};

// Writes `content` to `file`, creating parent directories.
void write_file(const std::string& file, const std::string& content);
// Whole content of `file`, or "" when it cannot be read.
std::string read_file(const std::string& file);
// Lines of `file`.
std::vector<std::string> read_lines(const std::string& file);

// Standard output or error captured while `fn` runs (file descriptor level,
// so output of printf, std::cout and child processes is caught).
class CaptureFd {
public:
    explicit CaptureFd(int fd);
    ~CaptureFd();
    // Stops capturing and returns what was written.
    std::string finish();

private:
    int fd_;
    int saved_ = -1;
    std::string file_;
    bool done_ = false;
};

}  // namespace rvtest
