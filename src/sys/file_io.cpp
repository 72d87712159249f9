#include "sys/file_io.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

namespace rv {

ssize_t LineBuffer::read(std::FILE* fp) {
    // Tables run to millions of lines: the C library finds the line feed in
    // its buffer, NUL bytes included, into a buffer that grows as needed.
    char* raw = buffer_.release();
    errno = 0;
    const ssize_t got = ::getdelim(&raw, &capacity_, '\n', fp);
    buffer_.reset(raw);
    return got;
}

bool read_line(std::FILE* fp, std::string& line, LineFeed lf) {
    static LineBuffer buffer;
    const ssize_t n = buffer.read(fp);
    if (n <= 0) {
        line.clear();
        return false;
    }
    std::size_t size = static_cast<std::size_t>(n);
    if (buffer.data()[size - 1] == '\n' && lf == LineFeed::drop) {
        --size;
    }
    line.assign(buffer.data(), size);
    return true;
}

int read_pieces(const std::string& path, int flags, const std::function<bool(std::string_view)>& take) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0 || !take(std::string_view(buffer, static_cast<std::size_t>(n)))) {
            return 0;
        }
    }
}

bool write_fully(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            errno = n == 0 ? EIO : errno;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool LineReader::next(std::string_view& line) {
    const ssize_t got = buffer_.read(fp_);
    if (got < 0) {
        if (std::ferror(fp_)) {
            error_ = errno != 0 ? errno : EIO;
        }
        return false;
    }
    line = std::string_view(buffer_.data(), static_cast<std::size_t>(got));
    if (!line.empty() && line.back() == '\n') {
        line.remove_suffix(1);
    }
    return true;
}

FilePtr open_sequential(const std::string& path) {
    FilePtr fp(std::fopen(path.c_str(), "r"));
    // A file the stream's own buffer holds a few times over needs no other.
    struct stat st {};
    if (fp && (::fstat(fileno(fp.get()), &st) != 0 || st.st_size > 4 * BUFSIZ)) {
        auto buffer = std::make_unique_for_overwrite<char[]>(kSequentialBuffer);
        if (std::setvbuf(fp.get(), buffer.get(), _IOFBF, kSequentialBuffer) == 0) {
            fp.get_deleter().buffer = std::move(buffer);
        }
    }
    return fp;
}

bool read_piece(std::FILE* fp, std::string& piece, std::size_t max) {
    piece.clear();
    int c = 0;
    while (piece.size() < max && (c = std::getc(fp)) != EOF) {
        piece.push_back(static_cast<char>(c));
        if (c == '\n') {
            break;
        }
    }
    return !piece.empty();
}

std::size_t LineFeedCount::update() {
    if (!file_) {
        file_.reset(std::fopen(path_.c_str(), "r"));
        if (!file_) {
            return count_;
        }
    }
    std::clearerr(file_.get());  // a file that grows goes on after its end
    char buffer[65536];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file_.get())) > 0) {
        count_ += static_cast<std::size_t>(std::count(buffer, buffer + n, '\n'));
    }
    return count_;
}

}  // namespace rv
