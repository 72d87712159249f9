// Replaces a file as a whole: the new content is written under a temporary
// name beside the target and renamed over it on commit, so a reader (or a
// run that crashed half-way) sees either the old file or the whole new one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace rv {

// Bytes the temporary file is written in at a time: table images and INSERT
// scripts run to hundreds of megabytes.
inline constexpr std::size_t kAtomicFileBuffer = 64 * 1024;
// Bytes written after which the disk is asked to begin writing them, so that
// the sync of the commit finds most of a large file on the disk already.
inline constexpr std::size_t kAtomicFileWriteBehind = 8 * 1024 * 1024;

class AtomicFile {
public:
    // Opens "<target>.new.<pid>" for writing; check ok().
    explicit AtomicFile(std::string target);
    // Removes the temporary file unless commit() succeeded.
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    bool ok() const { return fp_ != nullptr; }
    std::FILE* stream() const { return fp_; }
    const std::string& target() const { return target_; }
    const std::string& temp() const { return temp_; }

    // Flushes, syncs and closes the temporary file and renames it over the
    // target. Returns false (leaving the target as it was) on any error;
    // errno and why() then tell what failed.
    bool commit();

    // What failed, naming the file that failed and the system's reason
    // ("cannot write <temporary file>: No space left on device"); "" while
    // nothing failed.
    const std::string& why() const { return why_; }

private:
    // Closes and removes the temporary file; the target stays as it was.
    void discard();

    // The stream's writes: all of `data` to the temporary file, the disk
    // asked to begin writing every kAtomicFileWriteBehind bytes; -1 with
    // errno set when a write fails.
    static ssize_t write_out(void* self, const char* data, std::size_t size);
    static int close_out(void* self);

    std::string target_;
    std::string temp_;
    int fd_ = -1;                   // the temporary file, owned by fp_ once it is open
    std::uint64_t written_ = 0;     // bytes written to it
    std::uint64_t behind_ = 0;      // bytes of it the disk was asked to write
    std::FILE* fp_ = nullptr;
    std::unique_ptr<char[]> buffer_;  // the stream's
    bool committed_ = false;
    std::string why_;

    // Records `what` failed on `file` with `err`; returns false.
    bool failed(const char* what, const std::string& file, int err);
};

// Removes the temporary files AtomicFile left in `dir` when its process was
// killed: "<name>.new.<pid>" whose pid is no running process of the same
// program as this one (a process gone, or one of another program that got
// the pid since). Only safe where no other process of this program can be
// writing into `dir`. Returns the paths removed.
std::vector<std::string> remove_abandoned_temporaries(const std::string& dir);

}  // namespace rv
