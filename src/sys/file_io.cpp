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

bool read_line(std::FILE* fp, std::string& line, LineFeed lf) {
    // Tables run to millions of lines: the C library finds the line feed in
    // its buffer, NUL bytes included, into a buffer that grows as needed.
    struct Free {
        void operator()(char* p) const { std::free(p); }
    };
    static std::unique_ptr<char, Free> buffer;
    static std::size_t capacity = 0;
    char* raw = buffer.release();
    const ssize_t n = getdelim(&raw, &capacity, '\n', fp);
    buffer.reset(raw);
    if (n <= 0) {
        line.clear();
        return false;
    }
    std::size_t size = static_cast<std::size_t>(n);
    if (raw[size - 1] == '\n' && lf == LineFeed::drop) {
        --size;
    }
    line.assign(raw, size);
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

bool LineReader::next(std::string_view& line) {
    char* raw = buffer_.release();
    errno = 0;
    const ssize_t got = ::getline(&raw, &capacity_, fp_);
    buffer_.reset(raw);
    if (got < 0) {
        if (std::ferror(fp_)) {
            error_ = errno != 0 ? errno : EIO;
        }
        return false;
    }
    line = std::string_view(raw, static_cast<std::size_t>(got));
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
