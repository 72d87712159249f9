// Batches of INSERT, UPDATE and DELETE statements through the pipeline: a
// batch goes in segments, each one transaction closed by a sync, several
// rows of one INSERT shape in one statement. A failure rolls back its
// segment; the statements before it are committed again and the failing
// one runs alone, so that each statement that succeeds on its own is
// committed exactly once, in file order. Segments commit without waiting
// for the disk, except the one that ends a durable batch: its commit waits,
// which makes everything committed before it durable as well, and only then
// is the outcome told to acknowledge.
//
// With a position file, a segment also asks for its transaction's id and
// flushes instead of closing with the sync; once the answers up to the id
// are in, the id and the line the segment reaches go to the file, and only
// then is the sync sent. The answers are read when the segment is collected
// or the next one is sent, whichever comes first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "loader/insert_shapes.hpp"
#include "loader/outcome.hpp"
#include "loader/script.hpp"

namespace rv {

class PositionFile;
class Session;

class Pipeline {
  public:
    // Sends through `session` (open whenever a batch runs), prepares the
    // shapes of `shapes`, counts and reports into `outcome`, records each
    // commit in `position` (when not null); segments hold at most `batch`
    // (>= 1) statements.
    Pipeline(Session& session, InsertShapes& shapes, Outcome& outcome, PositionFile* position,
             std::size_t batch)
        : session_(session),
          shapes_(shapes),
          outcome_(outcome),
          position_(position),
          batch_(batch),
          window_(batch) {}

    // Sends the first segment of statements [lo, hi) of `batch`, so that
    // the server can work while the next unit is read; when `durable`, the
    // commit of their last segment waits for the disk. Throws Stop when the
    // connection is lost.
    void start(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi,
               bool durable);

    // Runs statements [lo, hi) of `batch` (after start) to their end; throws
    // Stop when the connection is lost or the server answers out of order.
    void finish(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi) {
        run_range(batch, lo, hi);
    }

  private:
    // A message sent in the current segment: the Parse of prepared statement
    // `parse` (when >= 0), statements [index, index + rows) of the batch, or
    // (rows 0) the loader's own query: the wait for the disk, or (`txid`)
    // the transaction's id.
    struct Sent {
        std::size_t index;
        std::size_t rows;
        int parse;
        bool txid = false;
    };

    // The first failing message of a segment: the statements it carried.
    struct Failure {
        std::size_t index;
        std::size_t rows;
        std::string message;
    };

    // Statements [lo, hi) of a batch sent as one transaction, up to script
    // line `line`, and its messages; a `durable` one waits for the disk when
    // it commits. Unless `synced`, the sync is still to be sent; once
    // `answered`, the answers before it are read into `failure` and `xid`.
    struct Segment {
        std::size_t lo;
        std::size_t hi;
        std::size_t line;
        std::vector<Sent> sent;
        bool durable;
        bool synced = false;
        bool answered = false;
        std::optional<Failure> failure = std::nullopt;
        std::uint64_t xid = 0;
    };

    // Whether `statement` goes as its prepared shape with parameters: when
    // the server reads backslashes in quotes as escapes, the text of such a
    // value means something else than its bytes, and goes literally.
    bool takes_parameters(const Statement& statement) const;

    // The group variant when statements [i, hi) of `batch` begin with a full
    // group of rows of one shape outside the rows that go one by one, else -1.
    int group_at(const std::vector<Statement>& batch, std::size_t i, std::size_t hi) const;

    // Makes sure the server holds prepared statement `index` when the
    // statements [first, first + rows) that use it run; a Parse it sends is
    // noted in `sent`. Throws Stop when the connection is lost.
    void prepare(int index, std::size_t first, std::size_t rows, std::vector<Sent>& sent);

    // Queues statements [first, first + rows) of `batch` as prepared
    // statement `index` (noting a Parse in `sent`); libpq's status, 0 when
    // queueing failed.
    int send_prepared(const std::vector<Statement>& batch, std::size_t first, std::size_t rows,
                      int index, std::vector<Sent>& sent);

    // Sends statements [lo, hi) of `batch` and a sync: one transaction,
    // durable when it ends a durable batch.
    // Runs of rows of one shape go several in one INSERT. A `literal`
    // segment sends the text of the script as it stands and prepares
    // nothing, so that the next segment may follow it at once. Throws Stop
    // when the connection is lost.
    void send_segment(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi,
                      bool literal);

    // Reads the answer to message `item` of `segment`: its first failure
    // goes to segment.failure, its id to segment.xid. Throws Stop when the
    // connection is lost or the server answers more than once.
    void collect_one(const Sent& item, Segment& segment);

    // Reads the answers to `segment` (sent with a flush, not synced yet),
    // records its commit unless it failed, and sends the sync. Throws Stop
    // when the connection is lost or the position file cannot be written.
    void sync_recorded(Segment& segment);

    // Reads the answers to the oldest segment on its way; the first
    // failure, if any (the server skips everything after it up to the sync).
    // A segment that committed counts its statements as succeeded, and
    // acknowledges all so far when it was durable. Throws Stop when the
    // connection is lost.
    std::optional<Failure> collect_segment();

    // Runs statements [lo, hi) of `batch` so that each one that succeeds on
    // its own is committed exactly once, in file order. A segment starting
    // at `lo` may already be on its way.
    void run_range(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi);

    // After the single statement `failure` of the segment starting at `lo`
    // failed: commits [lo, failure.index) again and runs the failing
    // statement alone, reporting it. Returns where run_range goes on.
    std::size_t isolate(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi,
                        const Failure& failure);

    Session& session_;
    InsertShapes& shapes_;
    Outcome& outcome_;
    PositionFile* position_;
    std::size_t batch_;
    std::size_t window_;  // statements per segment: halves after a failure, grows back
    std::size_t segment_ = 0;
    bool durable_ = false;  // the current range's
    std::size_t end_ = 0;   // the end of the current range
    std::deque<Segment> in_flight_;
    std::vector<std::pair<std::size_t, std::size_t>> single_rows_;  // of the current batch
    std::vector<const char*> params_;
};

}  // namespace rv
