// Runs of INSERT lines of one shape loaded through COPY: one transaction a
// run, its rows sent as COPY text data in attempts, each under a savepoint.
// When an attempt fails at a row the server names with a message its INSERT
// would give as well (a constraint it violates), the row is reported and the
// attempt goes again without it. When another message names the row, the
// rows before it are sent again and it runs as its own INSERT statement (so
// that its Error line holds the statement's message, not COPY's); when the
// server does not say which row failed, the attempt is split in halves.
// Every row that succeeds on its own is committed exactly once, in file
// order, as on the statement path. Attempts are as long as the failures
// seen so far make cheapest (AttemptSize); in a short one the server stores
// a row at a time. While the loader waits for the server, it reads the
// script ahead.
//
// Only tables where COPY does what the INSERT statements would do take this
// path: plain and partitioned tables without rules on INSERT, statement
// triggers on INSERT, row security, identity columns that refuse values,
// deferrable constraints and triggers (a deferred failure would fail the
// commit of a whole run), row triggers of their own after INSERT, or a
// foreign key referring to the table or beside a row trigger (COPY fires and
// checks these after its last row, a statement after its own). Rows whose
// values the server would read otherwise than their bytes (backslashes where
// backslashes escape in quotes), values holding a NUL byte and client
// encodings whose characters may hold a backslash byte take the statement
// path as well.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loader/copy_text.hpp"
#include "loader/script.hpp"

namespace rv {

class InsertShapes;
class Outcome;
class PositionFile;
class Session;

class CopyPath {
  public:
    // Loads through `session` (open; its pipeline idle whenever no run is
    // open), the shapes of `shapes`, counting into `outcome` and recording
    // each commit in `position` (when not null). While it waits for the
    // server it calls `read_on`, which reads a statement of the script ahead
    // and returns false when it read none.
    CopyPath(Session& session, InsertShapes& shapes, Outcome& outcome, PositionFile* position,
             std::function<bool()> read_on)
        : session_(session),
          shapes_(shapes),
          outcome_(outcome),
          position_(position),
          read_on_(std::move(read_on)) {}

    // The end of the run of statements of `batch` from `i` that COPY may
    // load together (one shape, every row fit for COPY); `i` when there is
    // none. Asks the server about a table once a connection, which must
    // not happen while a run is open. Throws Stop.
    std::size_t run_end(const std::vector<Statement>& batch, std::size_t i);

    // Whether a run is open: begun by add(), not finished yet.
    bool open() const { return !run_.empty(); }

    // Whether `statement` may join the open run: its shape, and room left.
    bool continues(const Statement& statement) const;

    // The run holds as many rows, or as much text, as it may.
    bool full() const { return run_.size() >= kCopyRows || texts_.size() >= kUnitBytes; }

    // The script line of the open run's first statement.
    std::size_t first_line() const { return run_.front().line; }

    // Adds statements [lo, hi) of `batch` (as run_end found them, of the
    // open run's shape when one is open) to the run, beginning one when
    // none is open, and sends them. Throws Stop when the connection is lost.
    void add(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi);

    // Loads what is left of the open run, reports its failing rows and
    // commits it, waiting for the disk when `durable`; returns the script
    // line of its last statement. Throws Stop when the connection is lost,
    // the commit fails or the position file cannot be written.
    std::size_t finish(bool durable);

  private:
    // What became of an attempt at rows [lo, sent) of the run: failed (at
    // `row`, when the server said which, with `error` when its INSERT would
    // fail with that message), or loaded. A failure with nothing sent: the
    // server refused the COPY itself.
    struct Attempt {
        std::size_t sent = 0;
        bool failed = false;
        std::optional<std::size_t> row = std::nullopt;
        std::optional<std::string> error = std::nullopt;
    };

    // What the last attempt or statement left to do with its savepoint,
    // sent in front of the next command.
    enum class Savepoint { None, Loaded, Failed };

    // Reads the script ahead until the server's answer is there or nothing
    // is left to read, then has the session wait for it a short while.
    void await();

    // The commands that release the savepoint left by the last attempt
    // (rolled back to it first when that failed); their count in `count`.
    std::string leave_savepoint(int& count);

    // Whether COPY may load the rows of shape `index` (asked once a
    // connection).
    bool table_takes_copy(int index);

    // Opens the run's transaction and asks again, under a lock that keeps
    // triggers, rules and constraints from being added to the table until
    // the commit, whether COPY may load it; false when not, or when the
    // table cannot be locked (its rows then go as statements). Throws Stop
    // when the server refuses the transaction.
    bool begin_run();

    // Opens an attempt of the run (the transaction too, at its first) and
    // waits for the server to take data; false when it refused the COPY or
    // the table no longer takes COPY.
    bool open_copy();

    // Hands COPY text `data` to libpq; true when the server spoke meanwhile.
    bool put(std::string_view data);

    // Appends rows [i, end) of the run to the COPY text, handing it on in
    // chunks, leaving out the rows reported already; stops early, with true,
    // when the server speaks.
    bool send_rows(std::size_t& i, std::size_t end);

    // Sends the rows of the run not sent yet, in attempts of at most
    // window_ rows; an attempt stays open for rows to come.
    void pump();

    // Ends the data of the open attempt at rows [from_, next_), reads its
    // outcome and loads what it did not.
    void close_attempt();

    // Reads the outcome of the attempt that sent rows [lo, sent); rolls the
    // savepoint back when it failed.
    Attempt end_copy(std::size_t lo, std::size_t sent);

    // After attempt `done` at rows from `lo`: reports its failing row and
    // returns `lo` when the server named it with its INSERT's message; else
    // loads the rows it did not (the failing row it names believed when
    // `trust_row`) and returns where the run goes on.
    std::size_t recover(std::size_t lo, const Attempt& done, bool trust_row);

    // The run's index of the `n`th row (1 on) an attempt sent of rows
    // [lo, sent), nullopt when it sent fewer.
    std::optional<std::size_t> sent_row(std::size_t lo, std::size_t sent, std::size_t n) const;

    // Loads rows [lo, hi) of the run in attempts of their own (one row: a
    // statement), leaving out the rows reported already.
    void load(std::size_t lo, std::size_t hi, bool trust_row);

    // Where the COPY text of row `i` of the run ends.
    std::size_t copy_end(std::size_t i) const;

    // The statement text of row `i` of the run.
    std::string_view text(std::size_t i) const;

    // Runs row `i` of the run by itself as its INSERT statement under the
    // savepoint; reports it when it fails.
    void insert_alone(std::size_t i);

    // Runs `commands`: the message of the failure of its `may_fail`th
    // result (1 on), if that one failed; throws Stop on any other failure.
    std::optional<std::string> run(const std::string& commands, int may_fail = 0);

    // Sends what libpq holds; true when the server sent something
    // meanwhile (in a COPY: it failed, or gave notice).
    bool flush();

    // Records and commits the run, `durable` waiting for the disk.
    void commit(bool durable);

    Session& session_;
    InsertShapes& shapes_;
    Outcome& outcome_;
    PositionFile* position_;
    // A row of the open run: its script line, and where its statement and
    // its line of COPY text begin in texts_ and copy_text_ (each ends where
    // the next row's begins).
    struct Row {
        std::size_t line = 0;
        std::size_t text = 0;
        std::size_t copy = 0;
    };

    std::function<bool()> read_on_;   // reads the script ahead meanwhile

    std::vector<Row> run_;            // the open run
    int shape_ = -1;                  // its shape
    std::string texts_;               // its statements, one after the other
    std::string copy_text_;           // its rows as COPY text
    bool begun_ = false;              // its transaction is open
    bool refused_ = false;            // the server refused its COPY: rows go as statements
    bool attempt_open_ = false;       // an attempt at rows [from_, next_) takes data
    std::size_t from_ = 0;
    std::size_t next_ = 0;            // the first row of the run not sent or loaded yet
    std::size_t known_ = 0;           // rows [from_, known_) pass: the last, failing, was reported
    std::vector<bool> reported_;      // rows of the run that failed already
    AttemptSize size_;                // rows an attempt sends
    std::optional<std::size_t> check_prepared_;  // the generation of shapes its check is prepared in
    std::uint64_t base_ = 0;          // rows of the runs before this one
    std::size_t failed_ = 0;          // rows of the run that failed
    std::uint64_t xid_ = 0;           // the run's transaction
    Savepoint savepoint_ = Savepoint::None;  // what the last attempt left
};

}  // namespace rv
