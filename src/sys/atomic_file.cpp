#include "sys/atomic_file.hpp"

#include <unistd.h>

#include <cerrno>

namespace rv {

AtomicFile::AtomicFile(std::string target)
    : target_(std::move(target)), temp_(target_ + ".new." + std::to_string(getpid())) {
    fp_ = std::fopen(temp_.c_str(), "w");
}

AtomicFile::~AtomicFile() { discard(); }

void AtomicFile::discard() {
    if (fp_ != nullptr) {
        std::fclose(fp_);
        fp_ = nullptr;
    }
    if (!committed_) {
        std::remove(temp_.c_str());
    }
}

bool AtomicFile::commit() {
    if (fp_ == nullptr) {
        return false;
    }
    bool ok = std::fflush(fp_) == 0 && fsync(fileno(fp_)) == 0;
    int err = ok ? 0 : errno;
    if (std::fclose(fp_) != 0 && ok) {
        ok = false;
        err = errno;
    }
    fp_ = nullptr;
    if (!ok) {
        errno = err;
        return false;
    }
    if (std::rename(temp_.c_str(), target_.c_str()) != 0) {
        return false;
    }
    committed_ = true;
    return true;
}

}  // namespace rv
