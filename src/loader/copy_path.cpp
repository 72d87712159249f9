// The COPY path: which runs take it, the attempts under a savepoint, the
// search for the failing rows, and the commit of a run.
#include "loader/copy_path.hpp"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "loader/insert_shapes.hpp"
#include "loader/outcome.hpp"
#include "loader/position.hpp"
#include "loader/session.hpp"

namespace rv {

namespace {

// COPY text handed to libpq at once.
constexpr std::size_t kCopyChunk = 64 * 1024;

// The first server version that takes a condition on COPY's rows.
constexpr int kCopyWhereVersion = 120000;

constexpr const char* kSavepoint = "SAVEPOINT oaisql_copy; ";
constexpr const char* kRelease = "RELEASE SAVEPOINT oaisql_copy; ";
constexpr const char* kRollback =
    "ROLLBACK TO SAVEPOINT oaisql_copy; RELEASE SAVEPOINT oaisql_copy; ";

// Whether a COPY's failure with SQLSTATE `state` carries the message the
// failing row's INSERT would: integrity constraints are checked when the
// row is stored, by the same code and with the same words for both.
bool statement_error(const char* state) {
    return state != nullptr && std::string_view(state).starts_with("23");
}

// Client encodings whose characters may hold the byte of a backslash,
// which the COPY text of a value would then have to escape inside them.
bool embeds_backslash(const char* encoding) {
    constexpr std::array<std::string_view, 6> kEncodings{"SJIS", "BIG5", "GBK",
                                                         "UHC",  "GB18030", "JOHAB"};
    return std::find(kEncodings.begin(), kEncodings.end(), encoding) != kEncodings.end();
}

// Whether `statement` can be a row of COPY text: an INSERT of the fixed
// form (whose values hold no NUL byte) with values that mean their bytes.
bool fits_copy(const Statement& statement, bool scs_on) {
    return statement.kind == ScriptLineKind::Insert && values_as_bytes(statement, scs_on);
}

// Ends the data of the COPY open on `session`.
void end_data(Session& session) {
    PGconn* conn = session.get();
    int ended = 0;
    while ((ended = PQputCopyEnd(conn, nullptr)) == 0) {
        session.flush_all();
    }
    if (ended < 0 && PQstatus(conn) == CONNECTION_BAD) {
        session.lost();
    }
    session.flush_all();
}

}  // namespace

std::size_t CopyPath::run_end(const std::vector<Statement>& batch, std::size_t i) {
    const Statement& first = batch[i];
    if (!fits_copy(first, session_.scs_on()) || !table_takes_copy(first.prepared)) {
        return i;
    }
    std::size_t end = i + 1;
    while (end < batch.size() && batch[end].kind == ScriptLineKind::Insert &&
           batch[end].prepared == first.prepared && fits_copy(batch[end], session_.scs_on())) {
        ++end;
    }
    return end;
}

bool CopyPath::table_takes_copy(int index) {
    PreparedInsert& shape = shapes_[index];
    if (shape.copy < 0) {
        shape.copy = 0;
        if (!embeds_backslash(pg_encoding_to_char(PQclientEncoding(session_.get())))) {
            const Result answer = session_.query(copy_question(table_literal(shape.head)));
            shape.copy = PQntuples(answer.get()) == 1 &&
                         std::string_view(PQgetvalue(answer.get(), 0, 0)) == "t";
        }
    }
    return shape.copy == 1;
}

bool CopyPath::continues(const Statement& statement) const {
    return open() && statement.prepared == shape_ && !full();
}

void CopyPath::add(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi) {
    if (!open()) {
        if (PQexitPipelineMode(session_.get()) != 1) {
            session_.lost();
        }
        run_.reserve(kCopyRows);
        shape_ = batch[lo].prepared;
    }
    for (std::size_t i = lo; i < hi; ++i) {
        run_.push_back(Row{batch[i].line, texts_.size(), copy_text_.size()});
        texts_ += batch[i].text;
        append_copy_row(batch[i], copy_text_);
    }
    reported_.resize(run_.size(), false);
    pump();
}

std::size_t CopyPath::finish(bool durable) {
    pump();
    while (attempt_open_) {
        close_attempt();
        pump();
    }
    commit(durable);
    const std::size_t line = run_.back().line;
    base_ += run_.size();
    run_.clear();
    texts_.clear();
    copy_text_.clear();
    reported_.clear();
    shape_ = -1;
    begun_ = refused_ = false;
    savepoint_ = Savepoint::None;
    from_ = next_ = known_ = failed_ = 0;
    xid_ = 0;
    return line;
}

bool CopyPath::begin_run() {
    PGconn* conn = session_.get();
    const std::string& head = shapes_[shape_].head;
    std::string commands = position_ != nullptr ? "BEGIN; SELECT txid_current(); " : "BEGIN; ";
    int lock_at = position_ != nullptr ? 3 : 2;  // the answer of the lock
    // Prepared once a connection and generation: run after run, the server
    // plans the question once instead of each time.
    const std::string check = "oaisql_copy_check_" + std::to_string(shapes_.generation());
    if (check_prepared_ != shapes_.generation()) {
        commands += "PREPARE " + check + "(text) AS " + copy_question("$1") + "; ";
        check_prepared_ = shapes_.generation();
        ++lock_at;
    }
    commands += kSavepoint;
    commands.append("LOCK TABLE ").append(table_of(head)).append(" IN ROW EXCLUSIVE MODE; ");
    commands += "EXECUTE " + check + "(" + table_literal(head) + ")";
    begun_ = true;
    savepoint_ = Savepoint::Loaded;
    if (PQsendQuery(conn, commands.c_str()) == 0) {
        session_.lost();
    }
    flush();
    bool takes = true;
    for (int seen = 0;; ++seen) {
        await();
        const Result result(PQgetResult(conn));
        if (!result) {
            return takes && savepoint_ == Savepoint::Loaded;
        }
        const ExecStatusType status = PQresultStatus(result.get());
        if (is_failure(status) && (PQstatus(conn) == CONNECTION_BAD || seen < lock_at)) {
            if (PQstatus(conn) == CONNECTION_BAD) {
                session_.lost();
            }
            throw Stop("database " + session_.database() +
                       " refused a statement of the loader: " + error_text(result.get()));
        }
        if (is_failure(status)) {
            savepoint_ = Savepoint::Failed;  // the table is gone, or not ours to lock
        } else if (status == PGRES_TUPLES_OK && seen == 1 && position_ != nullptr) {
            xid_ = std::strtoull(PQgetvalue(result.get(), 0, 0), nullptr, 10);
        } else if (status == PGRES_TUPLES_OK && seen == lock_at + 1) {
            takes = PQntuples(result.get()) == 1 && std::string_view(PQgetvalue(result.get(), 0, 0)) == "t";
        }
    }
}

bool CopyPath::open_copy() {
    PGconn* conn = session_.get();
    if (!begun_ && !begin_run()) {
        shapes_[shape_].copy = 0;  // its rows go as statements
        return false;
    }
    int before = 0;  // commands before the COPY
    std::string commands = leave_savepoint(before);
    commands += kSavepoint;
    commands += "COPY " + shapes_[shape_].head + " FROM STDIN";
    if (size_.rows() < kRowAtATime && PQserverVersion(conn) >= kCopyWhereVersion) {
        // A condition the server cannot answer beforehand (it has no
        // effect) makes it store each row as it comes.
        commands += " WHERE pg_catalog.clock_timestamp() IS NOT NULL";
    }
    ++before;
    if (PQsendQuery(conn, commands.c_str()) == 0) {
        session_.lost();
    }
    flush();
    for (int seen = 0;; ++seen) {
        await();
        const Result result(PQgetResult(conn));
        const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
        if (!result || PQstatus(conn) == CONNECTION_BAD) {
            session_.lost();
        }
        if (status == PGRES_COPY_IN) {
            if (seen != before) {
                throw Stop("unexpected answer from database " + session_.database());
            }
            return true;
        }
        if (is_failure(status) && seen == before) {
            while (Result(PQgetResult(conn))) {
            }
            savepoint_ = Savepoint::Failed;  // the COPY itself is refused: its rows go as statements
            shapes_[shape_].copy = 0;
            return false;
        }
        if (is_failure(status)) {
            throw Stop("database " + session_.database() +
                       " refused a statement of the loader: " + error_text(result.get()));
        }
    }
}

bool CopyPath::put(std::string_view data) {
    PGconn* conn = session_.get();
    int queued = 0;
    while ((queued = PQputCopyData(conn, data.data(), static_cast<int>(data.size()))) == 0) {
        flush();
    }
    return queued < 0 || flush();
}

bool CopyPath::send_rows(std::size_t& i, std::size_t end) {
    while (i < end) {
        if (reported_[i]) {
            ++i;
            continue;
        }
        // Rows next to each other have their COPY lines next to each other:
        // up to a chunk of them goes in one piece.
        const std::size_t from = run_[i].copy;
        std::size_t upto = i + 1;
        while (upto < end && !reported_[upto] && copy_end(upto) - from <= kCopyChunk) {
            ++upto;
        }
        const std::size_t size = copy_end(upto - 1) - from;
        i = upto;
        if (put(std::string_view(copy_text_).substr(from, size))) {
            return true;
        }
    }
    return false;
}

void CopyPath::pump() {
    while (next_ < run_.size()) {
        if (refused_) {
            insert_alone(next_++);
            continue;
        }
        if (!attempt_open_) {
            from_ = next_;
            attempt_open_ = open_copy();
            refused_ = !attempt_open_;
            continue;
        }
        // Rows known to pass (those before a failing row named) go again;
        // new rows join them while they are fewer than a window.
        const std::size_t known = std::max(from_, known_);
        const std::size_t window = size_.rows();
        const std::size_t limit = known - from_ >= window ? known : known + window;
        if (send_rows(next_, std::min(run_.size(), limit)) || next_ == limit) {
            close_attempt();
        }
    }
}

void CopyPath::close_attempt() {
    end_data(session_);
    attempt_open_ = false;
    const Attempt done = end_copy(from_, next_);
    next_ = recover(from_, done, true);
}

CopyPath::Attempt CopyPath::end_copy(std::size_t lo, std::size_t sent) {
    PGconn* conn = session_.get();
    await();
    const Result result(PQgetResult(conn));
    if (!result || Result(PQgetResult(conn))) {
        session_.lost();
    }
    const ExecStatusType status = PQresultStatus(result.get());
    if (status == PGRES_COMMAND_OK) {
        savepoint_ = Savepoint::Loaded;
        size_.reached(base_ + sent);
        return Attempt{sent, false};
    }
    if (!is_failure(status) || PQstatus(conn) == CONNECTION_BAD) {
        session_.lost();
    }
    Attempt attempt{sent, true};
    const char* context = PQresultErrorField(result.get(), PG_DIAG_CONTEXT);
    if (const auto row = copy_failure_row(context != nullptr ? context : "")) {
        attempt.row = sent_row(lo, sent, *row);
    }
    if (attempt.row && statement_error(PQresultErrorField(result.get(), PG_DIAG_SQLSTATE))) {
        attempt.error = error_text(result.get());
    }
    savepoint_ = Savepoint::Failed;
    size_.failed_at(base_ + attempt.row.value_or(lo));
    return attempt;
}

std::size_t CopyPath::recover(std::size_t lo, const Attempt& done, bool trust_row) {
    if (!done.failed) {
        return done.sent;
    }
    if (done.row && done.error) {
        outcome_.report(run_[*done.row].line, text(*done.row), *done.error);
        reported_[*done.row] = true;
        ++failed_;
        known_ = *done.row + 1;
        return lo;
    }
    if (done.row && trust_row) {
        // The server loaded the rows before it: they go again, and are not
        // believed to name their failing row once more.
        load(lo, *done.row, false);
        insert_alone(*done.row);
        return *done.row + 1;
    }
    const std::size_t mid = lo + (done.sent - lo) / 2;
    load(lo, mid, true);
    load(mid, done.sent, true);
    return done.sent;
}

void CopyPath::load(std::size_t lo, std::size_t hi, bool trust_row) {
    while (lo < hi) {
        if (reported_[lo]) {
            ++lo;
            continue;
        }
        if (hi - lo == 1 || refused_) {
            insert_alone(lo++);
            continue;
        }
        if (!open_copy()) {
            refused_ = true;
            continue;
        }
        std::size_t sent = lo;
        send_rows(sent, std::min(hi, lo + size_.rows()));
        end_data(session_);
        lo = recover(lo, end_copy(lo, sent), trust_row);
        trust_row = true;
    }
}

std::optional<std::size_t> CopyPath::sent_row(std::size_t lo, std::size_t sent,
                                              std::size_t n) const {
    for (std::size_t i = lo; i < sent; ++i) {
        if (!reported_[i] && --n == 0) {
            return i;
        }
    }
    return std::nullopt;
}

void CopyPath::await() {
    while (!session_.answered() && read_on_()) {
    }
    session_.await_answer();
}

std::string CopyPath::leave_savepoint(int& count) {
    const Savepoint left = std::exchange(savepoint_, Savepoint::None);
    count = left == Savepoint::Loaded ? 1 : left == Savepoint::Failed ? 2 : 0;
    return left == Savepoint::Loaded ? kRelease : left == Savepoint::Failed ? kRollback : "";
}

std::size_t CopyPath::copy_end(std::size_t i) const {
    return i + 1 < run_.size() ? run_[i + 1].copy : copy_text_.size();
}

std::string_view CopyPath::text(std::size_t i) const {
    const std::size_t end = i + 1 < run_.size() ? run_[i + 1].text : texts_.size();
    return std::string_view(texts_).substr(run_[i].text, end - run_[i].text);
}

void CopyPath::insert_alone(std::size_t i) {
    int count = 0;
    std::string commands = leave_savepoint(count);
    commands += kSavepoint;
    commands += text(i);
    count += 2;
    savepoint_ = Savepoint::Loaded;
    if (const std::optional<std::string> error = run(commands, count)) {
        savepoint_ = Savepoint::Failed;
        outcome_.report(run_[i].line, text(i), *error);
        ++failed_;
    }
}

std::optional<std::string> CopyPath::run(const std::string& commands, int may_fail) {
    PGconn* conn = session_.get();
    if (PQsendQuery(conn, commands.c_str()) == 0) {
        session_.lost();
    }
    flush();
    std::optional<std::string> error;
    await();
    for (int seen = 1; const Result result{PQgetResult(conn)}; ++seen) {
        if (!is_failure(PQresultStatus(result.get()))) {
            continue;
        }
        if (PQstatus(conn) == CONNECTION_BAD) {
            session_.lost();
        }
        if (seen != may_fail) {
            throw Stop("database " + session_.database() +
                       " refused a statement of the loader: " + error_text(result.get()));
        }
        error = error_text(result.get());
    }
    return error;
}

bool CopyPath::flush() {
    if (session_.flush_all()) {
        return true;
    }
    pollfd fd{PQsocket(session_.get()), POLLIN, 0};
    return ::poll(&fd, 1, 0) > 0 && (fd.revents & POLLIN) != 0;
}

void CopyPath::commit(bool durable) {
    const std::size_t line = run_.back().line;
    if (position_ != nullptr) {
        if (xid_ == 0) {
            throw Stop("no transaction id from database " + session_.database());
        }
        position_->commit(line, xid_);
    }
    int count = 0;
    std::string commands = leave_savepoint(count);
    commands += durable ? "SET LOCAL synchronous_commit = on; COMMIT" : "COMMIT";
    count += durable ? 2 : 1;
    if (const std::optional<std::string> error = run(commands, count)) {
        throw Stop("cannot commit the rows up to line " + std::to_string(line) +
                   " in database " + session_.database() + ": " + *error);
    }
    if (PQenterPipelineMode(session_.get()) != 1) {
        session_.lost();
    }
    outcome_.add_succeeded(run_.size() - failed_);
    if (durable) {
        outcome_.acknowledge(line);
    }
}

}  // namespace rv
