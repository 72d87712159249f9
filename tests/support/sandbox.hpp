// A throwaway product installation for tests: a temporary directory with a
// root configuration file (reached through RAVIK_INI), an rv.ini whose
// [PATHES] point into the sandbox, and the directories they name. The
// directory is removed and RAVIK_INI restored when the sandbox goes away.
// Beside it: file helpers and the capture of a file descriptor's output.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace rvtest {

class Sandbox {
  public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::string path(const std::string& rel) const { return (root_ / rel).string(); }
    // Directory value of a [PATHES] key, with its trailing '/'; "" if unset.
    std::string dir(const std::string& key) const { return keys_.contains(key) ? keys_.at(key) : ""; }
    std::string rv_ini() const { return path("etc/rv.ini"); }
    std::string root_ini() const { return path("etc/ravik.ini"); }

    // Rewrites rv.ini from the [PATHES] keys, extra_sections and `extra`.
    void write_rv_ini(const std::string& extra = "");
    // Sets or, with an empty value, removes a [PATHES] key; rewrites rv.ini.
    void set_path_key(const std::string& key, const std::string& value);
    // Makes the sandbox a complete installation: OPENRDA_INI, [SERVER]
    // gv_port_db, version files of the new release 1.6.4.71 (skel/ravik_srv.1.6.4)
    // and the old one 1.6.3.20 (downgrade/skel/ravik_srv.1.6.3), and
    // <gv_rw_db>schema/ravik/ with base.dat and sub/media.dat.
    void make_installation();
    // The environment report rv_db_update prints for this installation
    // (operating system linux-gnu) and the two releases.
    std::string checkenv_report(const std::string& newv, const std::string& oldv) const;
    void write_debug_ini(const std::string& content);                // <gv_rw_ini>debug.ini
    void set_glbv(const std::string& name, const std::string& value);  // <gv_rw_glbv><name>.rgv
    std::string use_protocol();  // gv_prot set to <root>/prot.log, returned

    // Extra text appended to rv.ini on every rewrite ([SETUP], [SERVER], ...).
    std::string extra_sections;

  private:
    std::filesystem::path root_;
    std::map<std::string, std::string> keys_;
    std::optional<std::string> saved_ravik_ini_;
};

// Writes `content` to `file`, creating parent directories.
void write_file(const std::string& file, const std::string& content);
// Whole content of `file`, or "" when it cannot be read.
std::string read_file(const std::string& file);
// Lines of `text` (a last line without line feed counts), and of `file`.
std::vector<std::string> split_lines(const std::string& text);
inline std::vector<std::string> read_lines(const std::string& file) { return split_lines(read_file(file)); }
// The lines of protocol file `file` as "<12-character code> <text>", without
// time stamp and process id (a line of another shape stays whole).
std::vector<std::string> protocol_texts(const std::string& file);

// Output to file descriptor `fd` (1 or 2) captured from construction to
// finish(), at descriptor level, so that children's output is caught too.
class CaptureFd {
  public:
    explicit CaptureFd(int fd);
    ~CaptureFd() { finish(); }
    CaptureFd(const CaptureFd&) = delete;
    CaptureFd& operator=(const CaptureFd&) = delete;
    std::string finish();  // stops capturing, returns what was written

  private:
    int fd_;
    int saved_ = -1;
    std::string file_;
};

// What `fn` writes to file descriptor `fd`.
template <class Fn>
std::string capture(int fd, Fn&& fn) {
    CaptureFd c(fd);
    fn();
    return c.finish();
}

}  // namespace rvtest
