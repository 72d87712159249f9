// The owner of a C stream, and a line reader without a length limit. A
// stream is closed when its owner goes away; callers that must see the close
// status release() the stream and close it themselves.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
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
