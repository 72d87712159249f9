// A file that lines are appended to, each one on disk before append()
// returns: a record that survives a kill or a crash of the machine as far as
// it was written. A line cut by a crash lacks its line feed, so a reader can
// tell it from a whole one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace rv {

class DurableAppend {
  public:
    DurableAppend() = default;
    ~DurableAppend() { close(); }
    DurableAppend(const DurableAppend&) = delete;
    DurableAppend& operator=(const DurableAppend&) = delete;

    // Opens `path` for appending (created with mode 0644 when missing),
    // emptied first when `fresh`. False when that fails; why() says why.
    bool open(const std::string& path, bool fresh);

    // Appends `line` and a line feed in one write and waits for the disk.
    // False when that fails (or nothing is open); why() names the file and
    // the system's reason.
    bool append(std::string_view line);

    void close();
    bool is_open() const { return fd_ >= 0; }
    const std::string& why() const { return why_; }

  private:
    bool failed(const char* what);

    int fd_ = -1;
    std::string path_;
    std::string why_;
};

// A 64-bit FNV-1a digest of the file `path` as 16 hex digits, or "" when it
// cannot be read. Tells whether a file changed; no protection against
// deliberate collisions.
std::string file_digest(const std::string& path);

}  // namespace rv
