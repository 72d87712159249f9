// The position file: reading it, writing it, and asking the server which of
// its transactions committed.
#include "loader/position.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <thread>

#include "loader/session.hpp"
#include "sys/file_io.hpp"

namespace rv {

namespace {

constexpr std::string_view kHeader = "oaisql-position 1";

// Zero bytes behind the records of a new file, for the records to come: a
// record written over them leaves the file's size as it is, so that syncing
// it writes no metadata (about a third cheaper on ext4 than appending). The
// reader ignores them as it ignores any text after the last line feed.
constexpr std::size_t kRoom = 64 * 1024;

// How often, and how long apart, committed_line asks again while a recorded
// transaction is still in progress: a minute in all.
constexpr int kStatusTries = 600;
constexpr std::chrono::milliseconds kStatusPause{100};

// Owns a file descriptor.
struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    int release() { return std::exchange(fd, -1); }
};

// Writes `text` at `offset` of `fd`.
bool write_all(int fd, std::string_view text, off_t offset) {
    while (!text.empty()) {
        const ssize_t n = ::pwrite(fd, text.data(), text.size(), offset);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(n < 0 ? 0 : static_cast<std::size_t>(n));
        offset += n < 0 ? 0 : n;
    }
    return true;
}

// Takes the decimal number (digits only) that `text` begins with, up to a
// blank or the end, into `number` and drops it and the blank; false when
// there is none.
bool take_number(std::string_view& text, std::uint64_t& number) {
    const std::size_t end = std::min(text.find(' '), text.size());
    if (end == 0 || text[0] < '0' || text[0] > '9') {
        return false;
    }
    const auto [at, ec] = std::from_chars(text.data(), text.data() + end, number);
    if (ec != std::errc() || at != text.data() + end) {
        return false;
    }
    text.remove_prefix(end == text.size() ? end : end + 1);
    return true;
}

// One record after the header (`number` 2 on) into `position`; false when
// it is none, or out of place.
bool parse_record(std::string_view record, std::size_t number, LoadPosition& position) {
    const std::size_t blank = std::min(record.find(' '), record.size());
    const std::string_view kind = record.substr(0, blank);
    std::string_view rest = record.substr(std::min(blank + 1, record.size()));
    std::uint64_t line = 0;
    std::uint64_t xid = 0;
    if ((number == 2) != (kind == "durable") || position.ended || !take_number(rest, line)) {
        return false;
    }
    if (kind == "durable") {
        position.durable = line;
    } else if (kind == "commit" && take_number(rest, xid) && xid > 0) {
        position.commits.emplace_back(line, xid);
    } else if (kind == "error" && !rest.empty()) {
        position.errors.emplace_back(line, std::string(rest));
        rest = {};
    } else if (kind == "pending") {
        position.pending = line;
    } else if (kind == "end") {
        position.ended = true;
    } else {
        return false;
    }
    position.last = std::max<std::size_t>(position.last, line);
    return rest.empty();
}

}  // namespace

std::optional<LoadPosition> read_load_position(const std::string& posfile, std::string* error) {
    std::string ignored;
    std::string& why = error != nullptr ? *error : ignored;
    why.clear();
    const FilePtr file(std::fopen(posfile.c_str(), "r"));
    if (!file) {
        if (errno != ENOENT) {
            why = "cannot read " + posfile + ": " + std::strerror(errno);
        }
        return std::nullopt;
    }
    std::string text;
    for (std::string piece; read_line(file.get(), piece, LineFeed::keep);) {
        text += piece;
    }
    if (std::ferror(file.get())) {
        why = "cannot read " + posfile + ": " + std::strerror(errno);
        return std::nullopt;
    }
    LoadPosition position;
    std::size_t number = 0;
    // What follows the last line feed was cut short and never counted.
    for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos;
         at = end + 1) {
        const std::string_view record(text.data() + at, end - at);
        if (!(++number == 1 ? record == kHeader : parse_record(record, number, position))) {
            why = posfile + " is no position file of oaisql: line " + std::to_string(number) +
                  " is not a record";
            return std::nullopt;
        }
    }
    if (number < 2) {
        why = posfile + " is no position file of oaisql: it has no durable record";
        return std::nullopt;
    }
    return position;
}

std::size_t committed_line(Session& session, const LoadPosition& position) {
    if (position.commits.empty()) {
        return position.durable;
    }
    std::string ids;
    for (const auto& commit : position.commits) {
        ids += (ids.empty() ? "" : ",") + std::to_string(commit.second);
    }
    // txid_status fails for an id the server has not handed out yet, as the
    // id of a transaction a crash lost may be. Every id below this
    // transaction's own was handed out before it; it is rolled back, so that
    // its id never counts as committed, even where it is such a lost one
    // handed out again. (The snapshot's xmax would not do: an id at or above
    // it may still be committing.)
    const std::string sql =
        "SELECT CASE WHEN x >= txid_current() THEN 'never begun' ELSE txid_status(x) END FROM "
        "unnest('{" + ids + "}'::bigint[]) WITH ORDINALITY AS t(x, n) ORDER BY n";
    for (int tries = 1;; ++tries) {
        session.query("BEGIN");
        const Result statuses = session.query(sql);
        session.query("ROLLBACK");
        if (PQntuples(statuses.get()) != static_cast<int>(position.commits.size())) {
            throw Stop("unexpected answer from database " + session.database());
        }
        std::size_t line = position.durable;
        std::optional<std::uint64_t> busy;
        for (int i = 0; i < PQntuples(statuses.get()); ++i) {
            const auto& [recorded, xid] = position.commits[static_cast<std::size_t>(i)];
            if (PQgetisnull(statuses.get(), i, 0) != 0) {
                throw Stop("the server cannot tell whether transaction " + std::to_string(xid) +
                           " of the interrupted run committed: it is too old");
            }
            const std::string_view status = PQgetvalue(statuses.get(), i, 0);
            line = status == "committed" ? std::max(line, recorded) : line;
            busy = status == "in progress" ? std::optional(xid) : busy;
        }
        if (!busy) {
            return line;
        }
        if (tries == kStatusTries) {
            throw Stop("transaction " + std::to_string(*busy) +
                       " of the interrupted run is still in progress");
        }
        std::this_thread::sleep_for(kStatusPause);
    }
}

PositionFile::~PositionFile() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void PositionFile::start(std::size_t line,
                         std::vector<std::pair<std::size_t, std::string>> unsaid) {
    durable_ = line;
    records_.clear();
    for (auto& [at, text] : unsaid) {
        records_.push_back({at, "error " + std::to_string(at) + " " + text + "\n"});
    }
    rewrite();
}

void PositionFile::commit(std::size_t line, std::uint64_t xid) {
    append({line, "commit " + std::to_string(line) + " " + std::to_string(xid) + "\n"}, true);
}

void PositionFile::pending(std::size_t line) {
    append({line, "pending " + std::to_string(line) + "\n"}, true);
}

void PositionFile::error(std::size_t line, const std::string& text) {
    append({line, "error " + std::to_string(line) + " " + text + "\n"}, false);
}

void PositionFile::durable(std::size_t line) {
    if (fd_ < 0 || (line <= durable_ && records_.empty())) {
        return;
    }
    durable_ = std::max(durable_, line);
    std::erase_if(records_, [this](const Record& record) { return record.line <= durable_; });
    rewrite();
}

void PositionFile::end(std::size_t last) {
    append({last, "end " + std::to_string(last) + "\n"}, true);
}

void PositionFile::append(Record record, bool sync) {
    if (fd_ < 0) {
        return;
    }
    if (!write_all(fd_, record.text, end_) || (sync && ::fdatasync(fd_) != 0)) {
        failed("cannot write", path_);
    }
    end_ += static_cast<off_t>(record.text.size());
    records_.push_back(std::move(record));
}

void PositionFile::rewrite() {
    const std::string temp = path_ + ".new";
    std::string text = std::string(kHeader) + "\ndurable " + std::to_string(durable_) + "\n";
    for (const Record& record : records_) {
        text += record.text;
    }
    const std::size_t end = text.size();
    text.resize(end + kRoom, '\0');
    Fd file{::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    if (file.fd < 0 || !write_all(file.fd, text, 0) || ::fdatasync(file.fd) != 0) {
        failed("cannot write", temp);
    }
    if (::rename(temp.c_str(), path_.c_str()) != 0) {
        failed("cannot rename a new version over", path_);
    }
    // The new name must be on disk before a record appended to it counts.
    const std::filesystem::path parent = std::filesystem::path(path_).parent_path();
    const std::string folder = parent.empty() ? "." : parent.string();
    const Fd dir{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (dir.fd < 0 || ::fsync(dir.fd) != 0) {
        failed("cannot sync the folder", folder);
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = file.release();
    end_ = static_cast<off_t>(end);
}

void PositionFile::failed(const char* what, const std::string& file) const {
    const int cause = errno;
    throw Stop(std::string(what) + " " + file + ": " + std::strerror(cause));
}

}  // namespace rv
