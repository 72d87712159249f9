#include "sys/atomic_file.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "sys/file_io.hpp"

namespace rv {

namespace {

constexpr std::string_view kTempMark = ".new.";

// The pid "<name>.new.<pid>" ends with, or 0 for any other name.
pid_t temporary_owner(const std::string& name) {
    const auto mark = name.rfind(kTempMark);
    if (mark == std::string::npos || mark == 0 || mark + kTempMark.size() == name.size()) {
        return 0;
    }
    pid_t pid = 0;
    for (std::size_t i = mark + kTempMark.size(); i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9' || pid > 99999999) {
            return 0;
        }
        pid = pid * 10 + (name[i] - '0');
    }
    return pid;
}

// Whether `pid` runs the same program as this process. A process whose
// program cannot be read (another user's) counts as one of ours.
bool runs_this_program(pid_t pid) {
    if (kill(pid, 0) != 0 && errno == ESRCH) {
        return false;
    }
    std::error_code ec;
    const auto other = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
    if (ec) {
        return ec != std::errc::no_such_file_or_directory;
    }
    return other == std::filesystem::read_symlink("/proc/self/exe", ec);
}

}  // namespace

std::vector<std::string> remove_abandoned_temporaries(const std::string& dir) {
    std::vector<std::string> removed;
    std::error_code ec;
    std::filesystem::directory_iterator it(dir, ec);
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        std::error_code file_ec;
        const pid_t owner = temporary_owner(it->path().filename().string());
        if (owner > 0 && it->is_regular_file(file_ec) && !runs_this_program(owner) &&
            std::filesystem::remove(it->path(), file_ec)) {
            removed.push_back(it->path().string());
        }
    }
    return removed;
}

AtomicFile::AtomicFile(std::string target)
    : target_(std::move(target)), temp_(target_ + ".new." + std::to_string(getpid())) {
    fd_ = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) {
        failed("cannot write ", temp_, errno);
        return;
    }
    fp_ = fopencookie(this, "w", cookie_io_functions_t{nullptr, write_out, nullptr, close_out});
    if (fp_ == nullptr) {
        const int err = errno;
        ::close(fd_);
        std::remove(temp_.c_str());
        failed("cannot write ", temp_, err);
        return;
    }
    buffer_ = std::make_unique_for_overwrite<char[]>(kAtomicFileBuffer);
    if (std::setvbuf(fp_, buffer_.get(), _IOFBF, kAtomicFileBuffer) != 0) {
        buffer_.reset();  // the stream keeps a buffer of its own
    }
}

ssize_t AtomicFile::write_out(void* self, const char* data, std::size_t size) {
    auto& file = *static_cast<AtomicFile*>(self);
    if (!write_fully(file.fd_, std::string_view(data, size))) {
        return -1;
    }
    file.written_ += size;
    if (file.written_ - file.behind_ >= kAtomicFileWriteBehind) {
        // Only a request: the sync at the commit is what makes it sure.
        ::sync_file_range(file.fd_, static_cast<off_t>(file.behind_),
                          static_cast<off_t>(file.written_ - file.behind_), SYNC_FILE_RANGE_WRITE);
        file.behind_ = file.written_;
    }
    return static_cast<ssize_t>(size);
}

int AtomicFile::close_out(void* self) { return ::close(static_cast<AtomicFile*>(self)->fd_); }

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
    bool ok = std::fflush(fp_) == 0 && fsync(fd_) == 0;
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
