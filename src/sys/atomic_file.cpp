#include "sys/atomic_file.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace rv {

AtomicFile::AtomicFile(std::string target)
    : target_(std::move(target)), temp_(target_ + ".new." + std::to_string(getpid())) {
    fp_ = std::fopen(temp_.c_str(), "w");
    if (fp_ == nullptr) {
        failed("cannot write ", temp_, errno);
    }
}

bool AtomicFile::failed(const char* what, const std::string& file, int err) {
    why_ = what + file + ": " + std::strerror(err);
    errno = err;
    return false;
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
        return failed("cannot write ", temp_, err);
    }
    if (std::rename(temp_.c_str(), target_.c_str()) != 0) {
        return failed("cannot rename to the target ", temp_, errno);
    }
    committed_ = true;
    return true;
}

}  // namespace rv
