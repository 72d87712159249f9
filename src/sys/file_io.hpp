// The owner of a C stream, and a line reader without a length limit. A
// stream is closed when its owner goes away; callers that must see the close
// status release() the stream and close it themselves.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace rv {

struct FileCloser {
    void operator()(std::FILE* fp) const { std::fclose(fp); }
    std::unique_ptr<char[]> buffer = nullptr;  // the stream's own, when it has one
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Bytes a stream read from start to end buffers at a time.
inline constexpr std::size_t kSequentialBuffer = 1024 * 1024;

// Opens `path` for reading from start to end, with a buffer of
// kSequentialBuffer bytes; null when it cannot be opened (errno tells why).
FilePtr open_sequential(const std::string& path);

// How read_line treats the line feed.
enum class LineFeed { drop, keep };

// Reads the next piece of a line of `fp` into `piece`, as fgets would with
// room for `max` characters: up to and including its line feed, at most
// `max` characters (a longer line goes on in the next piece). Returns false
// at end of input with nothing read.
bool read_piece(std::FILE* fp, std::string& piece, std::size_t max);

// Reads the next line of `fp` into `line`, whole, with or without its line
// feed. Returns false at end of input with nothing read.
bool read_line(std::FILE* fp, std::string& line, LineFeed lf = LineFeed::drop);

// Reads the file `path`, opened with `flags` (close-on-exec added), from its
// start, handing each piece read to `take`, until the end, a read error
// (which ends it as the end would) or `take` returns false. Returns 0, or
// the errno of a failed open.
int read_pieces(const std::string& path, int flags, const std::function<bool(std::string_view)>& take);

// Writes all of `data` to `fd`, going on after an interrupted or short
// write; false with errno set when a write fails (EIO when it wrote
// nothing).
bool write_fully(int fd, std::string_view data);

// Room for a line of any length, as getdelim grows it.
class LineBuffer {
  public:
    // Reads the next line of `fp`, its line feed included, into the buffer:
    // its length, or -1 at the end of input or on a read error (errno set).
    ssize_t read(std::FILE* fp);

    const char* data() const { return buffer_.get(); }

  private:
    struct MallocFree {
        void operator()(char* p) const { std::free(p); }
    };

    std::unique_ptr<char, MallocFree> buffer_;
    std::size_t capacity_ = 0;
};

// The lines of a stream one after the other, of any length, each a view
// into the reader's buffer that stays valid until the next call.
class LineReader {
  public:
    // Reads `fp`, which must outlive the reader.
    explicit LineReader(std::FILE* fp) : fp_(fp) {}

    // The next line, without its line feed; false at the end of input or on
    // a read error (see error()).
    bool next(std::string_view& line);

    // The errno of a failed read, 0 when there was none.
    int error() const { return error_; }

  private:
    std::FILE* fp_;
    LineBuffer buffer_;
    int error_ = 0;
};

// Counts the line feeds of a file as far as it is written: a file that
// another process is still writing can be counted again and again, each
// count reading only what was added since the last.
class LineFeedCount {
  public:
    explicit LineFeedCount(std::string path) : path_(std::move(path)) {}

    // The line feeds written so far (0 while the file cannot be opened).
    std::size_t update();

  private:
    std::string path_;
    FilePtr file_;
    std::size_t count_ = 0;
};

}  // namespace rv
