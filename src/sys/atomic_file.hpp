// Replaces a file as a whole: the new content is written under a temporary
// name beside the target and renamed over it on commit, so a reader (or a
// run that crashed half-way) sees either the old file or the whole new one.
#pragma once

#include <cstdio>
#include <string>

namespace rv {

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

    // Flushes, syncs and closes the temporary file and renames it over the
    // target. Returns false (leaving the target as it was) on any error;
    // errno then tells why.
    bool commit();

private:
    // Closes and removes the temporary file; the target stays as it was.
    void discard();

    std::string target_;
    std::string temp_;
    std::FILE* fp_ = nullptr;
    bool committed_ = false;
};

}  // namespace rv
