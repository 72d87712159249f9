// The batch executor: segments sent through the pipeline, their answers
// read, and the replay that makes a failing statement fail alone.
#include "loader/pipeline.hpp"

#include <algorithm>
#include <cstdlib>

#include "loader/position.hpp"
#include "loader/session.hpp"

namespace rv {

namespace {

// Sent last in a segment, this makes its commit wait for the disk; the
// setting ends with the transaction.
constexpr const char* kWaitForDisk = "SELECT set_config('synchronous_commit', 'on', true)";
// Sent after it where a position file records the commit.
constexpr const char* kTransactionId = "SELECT txid_current()";

// Queues `sql` as a query of its own in the pipeline; false when libpq
// cannot.
bool send_own(PGconn* conn, const char* sql) {
    return PQsendQueryParams(conn, sql, 0, nullptr, nullptr, nullptr, nullptr, 0) == 1;
}

}  // namespace

void Pipeline::start(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi,
                     bool durable) {
    single_rows_.clear();
    durable_ = durable;
    end_ = hi;
    send_segment(batch, lo, std::min(hi, lo + window_), false);
}

bool Pipeline::takes_parameters(const Statement& statement) const {
    return statement.kind == ScriptLineKind::Insert && statement.values.size() <= kMaxParams &&
           values_as_bytes(statement, session_.scs_on());
}

int Pipeline::group_at(const std::vector<Statement>& batch, std::size_t i, std::size_t hi) const {
    const Statement& first = batch[i];
    if (!takes_parameters(first) || shapes_[first.prepared].group < 0) {
        return -1;
    }
    const int group = shapes_[first.prepared].group;
    const std::size_t rows = shapes_.group_rows(shapes_[first.prepared].params);
    if (hi - i < rows) {
        return -1;
    }
    for (const auto& [from, to] : single_rows_) {
        if (i < to && from < i + rows) {
            return -1;
        }
    }
    for (std::size_t j = i + 1; j < i + rows; ++j) {
        if (batch[j].prepared != first.prepared || !takes_parameters(batch[j])) {
            return -1;
        }
    }
    return group;
}

void Pipeline::prepare(int index, std::size_t first, std::size_t rows, std::vector<Sent>& sent) {
    PreparedInsert& shape = shapes_[index];
    if (shape.ready || shape.parse_segment == segment_) {
        return;
    }
    shape.name =
        "oaisql_" + std::to_string(shapes_.generation()) + "_" + std::to_string(index);
    if (PQsendPrepare(session_.get(), shape.name.c_str(), shape.sql.c_str(), shape.params,
                      nullptr) == 0) {
        session_.lost();
    }
    shape.parse_segment = segment_;
    sent.push_back({first, rows, index});
}

int Pipeline::send_prepared(const std::vector<Statement>& batch, std::size_t first,
                            std::size_t rows, int index, std::vector<Sent>& sent) {
    prepare(index, first, rows, sent);
    const PreparedInsert& shape = shapes_[index];
    params_.clear();
    for (std::size_t row = first; row < first + rows; ++row) {
        for (const auto& value : batch[row].values) {
            params_.push_back(value ? value->c_str() : nullptr);
        }
    }
    return PQsendQueryPrepared(session_.get(), shape.name.c_str(), shape.params, params_.data(),
                               nullptr, nullptr, 0);
}

void Pipeline::send_segment(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi,
                            bool literal) {
    if (!in_flight_.empty() && !in_flight_.back().synced) {
        sync_recorded(in_flight_.back());  // these statements must not join its transaction
    }
    ++segment_;
    Segment segment{lo, hi, batch[hi - 1].line, {}, durable_ && hi == end_};
    PGconn* conn = session_.get();
    for (std::size_t i = lo; i < hi;) {
        const Statement& statement = batch[i];
        const int group = literal ? -1 : group_at(batch, i, hi);
        std::size_t rows = 1;
        int ok = 0;
        if (!literal && (group >= 0 || takes_parameters(statement))) {
            const int index = group >= 0 ? group : statement.prepared;
            rows = group >= 0 ? shapes_.group_rows(shapes_[statement.prepared].params) : 1;
            ok = send_prepared(batch, i, rows, index, segment.sent);
        } else {
            ok = PQsendQueryParams(conn, statement.text.c_str(), 0, nullptr, nullptr, nullptr,
                                   nullptr, 0);
        }
        if (ok == 0) {
            session_.lost();
        }
        segment.sent.push_back({i, rows, -1});
        i += rows;
    }
    if (segment.durable) {
        segment.sent.push_back({hi, 0, -1});
        if (!send_own(conn, kWaitForDisk)) {
            session_.lost();
        }
    }
    if (position_ != nullptr) {
        segment.sent.push_back({hi, 0, -1, true});
        if (!send_own(conn, kTransactionId) || PQsendFlushRequest(conn) == 0) {
            session_.lost();
        }
    } else if (PQpipelineSync(conn) == 0) {
        session_.lost();
    } else {
        segment.synced = true;
    }
    session_.flush_all();
    in_flight_.push_back(std::move(segment));
}

void Pipeline::collect_one(const Sent& item, Segment& segment) {
    PGconn* conn = session_.get();
    const Result result(PQgetResult(conn));
    if (!result) {
        session_.lost();
    }
    const ExecStatusType status = PQresultStatus(result.get());
    if (is_failure(status)) {
        if (PQstatus(conn) == CONNECTION_BAD) {
            session_.lost();
        }
        if (item.rows == 0) {
            throw Stop("cannot " + std::string(item.txid ? "record" : "make durable") +
                       " the loaded rows in database " + session_.database() + ": " +
                       error_text(result.get()));
        }
        if (!segment.failure) {
            segment.failure = Failure{item.index, item.rows, error_text(result.get())};
        }
    } else if (status != PGRES_PIPELINE_ABORTED && item.parse >= 0) {
        shapes_[item.parse].ready = true;
    } else if (status == PGRES_TUPLES_OK && item.txid && PQntuples(result.get()) == 1) {
        segment.xid = std::strtoull(PQgetvalue(result.get(), 0, 0), nullptr, 10);
    }
    if (Result(PQgetResult(conn))) {
        throw Stop("unexpected answer from database " + session_.database());
    }
}

void Pipeline::sync_recorded(Segment& segment) {
    for (const Sent& item : segment.sent) {
        collect_one(item, segment);
    }
    segment.answered = true;
    if (!segment.failure) {
        if (segment.xid == 0) {
            throw Stop("no transaction id from database " + session_.database());
        }
        position_->commit(segment.line, segment.xid);
    }
    if (PQpipelineSync(session_.get()) == 0) {
        session_.lost();
    }
    session_.flush_all();
    segment.synced = true;
}

std::optional<Pipeline::Failure> Pipeline::collect_segment() {
    Segment segment = std::move(in_flight_.front());
    in_flight_.pop_front();
    if (!segment.synced) {
        sync_recorded(segment);
    }
    for (std::size_t i = 0; !segment.answered && i < segment.sent.size(); ++i) {
        collect_one(segment.sent[i], segment);
    }
    const Result sync(PQgetResult(session_.get()));
    if (!sync || PQresultStatus(sync.get()) != PGRES_PIPELINE_SYNC) {
        session_.lost();
    }
    if (!segment.failure) {
        outcome_.add_succeeded(segment.hi - segment.lo);
        if (segment.durable) {
            outcome_.acknowledge(segment.line);
        }
    }
    return segment.failure;
}

void Pipeline::run_range(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi) {
    while (lo < hi) {
        if (in_flight_.empty()) {
            send_segment(batch, lo, std::min(hi, lo + window_), false);
        }
        const std::size_t end = in_flight_.front().hi;
        const std::optional<Failure> failure = collect_segment();
        if (!failure) {
            // A recorded commit waits for the position file to reach the
            // disk, the time of some hundred statements: it grows back at once.
            const std::size_t growth = position_ != nullptr ? window_ : window_ / 4;
            window_ = std::min(batch_, window_ + std::max<std::size_t>(1, growth));
            lo = end;
            continue;
        }
        if (failure->rows > 1) {
            // Which row of the group failed is not known: the same
            // segment again, those rows one by one.
            single_rows_.emplace_back(failure->index, failure->index + failure->rows);
            continue;
        }
        // A failure costs the work of its segment so far: where they
        // come often, segments get shorter.
        window_ = std::max<std::size_t>(1, window_ / 2);
        lo = isolate(batch, lo, hi, *failure);
    }
}

std::size_t Pipeline::isolate(const std::vector<Statement>& batch, std::size_t lo,
                              std::size_t hi, const Failure& failure) {
    const std::size_t k = failure.index;
    if (k == lo) {
        // First of its transaction: the failure is its own.
        outcome_.report(batch[k], failure.message);
        return k + 1;
    }
    // [lo, k) was rolled back with it: commit it again, then run the
    // failing statement alone so that it reports by itself; what follows
    // need not wait for that answer, unless a position file is to have the
    // failure before a commit beyond it.
    run_range(batch, lo, k);
    send_segment(batch, k, k + 1, true);
    if (k + 1 < hi && position_ == nullptr) {
        send_segment(batch, k + 1, std::min(hi, k + 1 + window_), false);
    }
    if (const std::optional<Failure> alone = collect_segment()) {
        outcome_.report(batch[k], alone->message);
    }
    return k + 1;
}

}  // namespace rv
