// The position file of `oaisql -p`: how far a run took its script, so that
// an interrupted run can be continued (-r) without committing a statement
// twice or skipping one. A text file of records, one a line:
//
//   oaisql-position 1           the header
//   durable <line>              every line up to it is done and on disk
//   error <line> <Error line>   a failure whose Error line may not be said yet
//   commit <line> <xid>         transaction <xid> takes the script to <line>
//   pending <line>              the statement of <line> runs alone
//   end <line>                  the script ran to its end, <line> its last
//
// A commit record is on disk before its commit is sent. At each durable
// point the file is replaced as a whole (header, durable record and the
// records beyond it), so it stays small; between them records are appended.
// A last record without its line feed was cut short by a kill or a crash
// and never counted: its commit was not sent. Zero bytes may follow the
// last record: room left for the next ones.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rv {

class Session;

// What a position file says.
struct LoadPosition {
    std::size_t durable = 0;  // every line up to it is done and on disk
    std::size_t last = 0;     // the highest line any record names
    bool ended = false;       // the script ran to its end (exit 0 or 1); `last` is its last line
    std::optional<std::size_t> pending;                          // a statement begun alone
    std::vector<std::pair<std::size_t, std::uint64_t>> commits;  // line, transaction id
    std::vector<std::pair<std::size_t, std::string>> errors;     // line, Error line
};

// Reads the position file `posfile` without a database. Returns nullopt when
// it cannot be read or is no position file; `error`, when given, then gets
// the reason on one line ("cannot read <posfile>: <system's reason>", or
// "<posfile> is no position file of oaisql: line <n> ..."), and is left
// empty when the file does not exist.
std::optional<LoadPosition> read_load_position(const std::string& posfile,
                                               std::string* error = nullptr);

// The line up to which the run recorded in `position` took its script,
// asked of the server behind `session` (open, its pipeline idle): the line
// of the last recorded transaction that committed, at least the durable
// line. Waits while one of them is still in progress (the session of a
// killed run may still be committing it). Throws Stop when the server
// cannot tell whether one committed (it is too old) or the connection fails.
std::size_t committed_line(Session& session, const LoadPosition& position);

// Writes a position file. Every member throws Stop when the file cannot be
// written; nothing is written before start().
class PositionFile {
  public:
    explicit PositionFile(std::string path) : path_(std::move(path)) {}
    ~PositionFile();
    PositionFile(const PositionFile&) = delete;
    PositionFile& operator=(const PositionFile&) = delete;

    // Replaces the file by one that says every line up to `line` is done
    // and on disk, and that the Error lines `unsaid` (of lines up to it)
    // are not said yet.
    void start(std::size_t line, std::vector<std::pair<std::size_t, std::string>> unsaid = {});

    // Before the commit of transaction `xid`, which takes the script to
    // `line`: on disk when it returns.
    void commit(std::size_t line, std::uint64_t xid);

    // Before the statement of `line` runs alone: on disk when it returns.
    void pending(std::size_t line);

    // The failing statement of `line` got the Error line `text` (no line
    // feed), not said yet; on disk with the next commit or pending record.
    void error(std::size_t line, const std::string& text);

    // Every line up to `line` is done and on disk, and every Error line so
    // far is said: replaces the file unless it says so already.
    void durable(std::size_t line);

    // The script ran to its end; `last` is the number of its last line.
    void end(std::size_t last);

  private:
    struct Record {
        std::size_t line;
        std::string text;  // the whole record, line feed included
    };

    // Appends `record`, synced to disk when `sync`.
    void append(Record record, bool sync);

    // Writes the header, the durable record and records_ to a new file and
    // renames it over the file, syncing the file and its folder.
    void rewrite();

    // Throws Stop saying `what` failed on `file`, and errno's reason.
    [[noreturn]] void failed(const char* what, const std::string& file) const;

    std::string path_;
    int fd_ = -1;    // the file, open once started
    off_t end_ = 0;  // where the next record goes
    std::size_t durable_ = 0;
    std::vector<Record> records_;  // beyond the durable record
};

}  // namespace rv
