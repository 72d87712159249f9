#include "loader/loader.hpp"

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "loader/statement.hpp"
#include "sys/file_io.hpp"

namespace rv {

namespace {

// Parameters one statement may carry (the protocol counts them in 16 bits).
constexpr std::size_t kMaxParams = 65535;

struct ConnectionCloser {
    void operator()(PGconn* conn) const { PQfinish(conn); }
};
using Connection = std::unique_ptr<PGconn, ConnectionCloser>;

struct ResultClearer {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultClearer>;

using File = FilePtr;

struct MallocFree {
    void operator()(char* p) const { std::free(p); }
};

// The run cannot go on; the text says why.
class Stop : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// One line of the script that does something: a statement, or (kind
// Connect) a database to switch to, named in `text`.
struct Statement {
    std::size_t line = 0;
    ScriptLineKind kind = ScriptLineKind::Pipelined;
    std::string text;
    int prepared = -1;  // kind Insert: index of its prepared statement
    std::vector<std::optional<std::string>> values;
};

// What the executor takes next from the script.
struct Unit {
    enum class Kind { End, Connect, Alone, Batch } kind = Kind::End;
    std::vector<Statement> statements;  // Alone: exactly one
    std::string database;               // Connect
};

// One INSERT shape (table and column list) for one row, or for a group of
// rows of that shape in one statement; prepared once per connection.
struct PreparedInsert {
    std::string sql;
    int params = 0;
    std::string name;               // valid while `ready`
    bool ready = false;             // the server holds it
    std::size_t parse_segment = 0;  // the segment that last carried its Parse
    int group = -1;                 // one row: index of the group variant, once made
};

// A message sent in the current segment: the Parse of prepared statement
// `parse` (when >= 0), or statements [index, index + rows) of the batch.
struct Sent {
    std::size_t index;
    std::size_t rows;
    int parse;
};

// Statements [lo, hi) of a batch sent as one transaction, and its messages.
struct Segment {
    std::size_t lo;
    std::size_t hi;
    std::vector<Sent> sent;
};

// The first failing message of a segment: the statements it carried.
struct Failure {
    std::size_t index;
    std::size_t rows;
    std::string message;
};

bool has_backslash(const std::vector<std::optional<std::string>>& values) {
    return std::any_of(values.begin(), values.end(), [](const std::optional<std::string>& v) {
        return v && v->find('\\') != std::string::npos;
    });
}

// Primary message and detail of a failed statement, on one line.
std::string error_text(const PGresult* result) {
    const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    std::string text;
    if (primary != nullptr) {
        text = primary;
        if (const char* detail = PQresultErrorField(result, PG_DIAG_MESSAGE_DETAIL)) {
            text += " (" + std::string(detail) + ")";
        }
    } else {
        text = PQresultErrorMessage(result);
    }
    text = one_line(text);
    return text.empty() ? "the statement failed without a message" : text;
}

// Notices and warnings are not failures and must not look like them.
void ignore_notice(void* /*arg*/, const char* /*message*/) {}

// The script, line by line; lines of any length, bytes as they stand.
class ScriptReader {
  public:
    explicit ScriptReader(File file) : file_(std::move(file)) {}

    // Next line (without its line end) and its number; false at the end of
    // the script or on a read error (see error()).
    bool next(std::string_view& line, std::size_t& number) {
        char* raw = buffer_.release();
        errno = 0;
        const ssize_t got = ::getline(&raw, &capacity_, file_.get());
        buffer_.reset(raw);
        if (got < 0) {
            if (std::ferror(file_.get())) {
                error_ = errno != 0 ? errno : EIO;
            }
            return false;
        }
        line = std::string_view(raw, static_cast<std::size_t>(got));
        if (!line.empty() && line.back() == '\n') {
            line.remove_suffix(1);
        }
        number = ++number_;
        return true;
    }

    int error() const { return error_; }

  private:
    File file_;
    std::unique_ptr<char, MallocFree> buffer_;
    std::size_t capacity_ = 0;
    std::size_t number_ = 0;
    int error_ = 0;
};

class Loader {
  public:
    Loader(const LoaderOptions& options, std::FILE* out, File script)
        : options_(options),
          out_(out),
          reader_(std::move(script)),
          batch_(std::max<std::size_t>(1, options.batch)),
          group_(std::max<std::size_t>(1, options.group)),
          window_(batch_) {}

    // Runs the whole script; throws Stop when it cannot go on.
    void run() {
        Unit unit = next_unit();
        while (unit.kind != Unit::Kind::End) {
            switch (unit.kind) {
                case Unit::Kind::Connect:
                    connect(unit.database);
                    unit = next_unit();
                    break;
                case Unit::Kind::Alone:
                    ensure_connection();
                    run_alone(unit.statements.front());
                    unit = next_unit();
                    break;
                case Unit::Kind::Batch: {
                    ensure_connection();
                    std::vector<Statement>& batch = unit.statements;
                    single_rows_.clear();
                    send_segment(batch, 0, std::min(batch.size(), window_), false);
                    Unit next = next_unit();  // read on while the server works
                    run_range(batch, 0, batch.size());
                    unit = std::move(next);
                    break;
                }
                case Unit::Kind::End:
                    break;
            }
        }
        ensure_connection();  // an empty script still proves the connection
        make_durable();
        if (reader_.error() != 0) {
            throw Stop("cannot read " + options_.file + ": " + std::strerror(reader_.error()));
        }
    }

    std::size_t succeeded() const { return succeeded_; }
    std::size_t failed() const { return failed_; }

  private:
    // ---- reading ----------------------------------------------------------

    std::optional<Statement> read_item() {
        std::string_view line;
        std::size_t number = 0;
        while (reader_.next(line, number)) {
            ScriptLine parsed = classify_line(line);
            if (parsed.kind == ScriptLineKind::Skip) {
                continue;
            }
            Statement statement;
            statement.line = number;
            statement.kind = parsed.kind;
            statement.text = std::string(parsed.text);
            if (parsed.kind == ScriptLineKind::Insert) {
                statement.prepared = prepared_index(parsed.insert);
                statement.values = std::move(parsed.insert.values);
            }
            return statement;
        }
        return std::nullopt;
    }

    int prepared_index(const InsertForm& form) {
        std::string key(form.table);
        key += " (";
        for (std::size_t i = 0; i < form.columns.size(); ++i) {
            if (i > 0) {
                key += ',';
            }
            key += form.columns[i];
        }
        key += ')';
        if (const auto found = prepared_by_key_.find(key); found != prepared_by_key_.end()) {
            return found->second;
        }
        const int columns = static_cast<int>(form.columns.size());
        prepared_.push_back(make_prepared("INSERT INTO " + key, columns, 1));
        const int index = static_cast<int>(prepared_.size() - 1);
        if (const std::size_t rows = group_rows(columns); rows > 1) {
            prepared_.push_back(make_prepared("INSERT INTO " + key, columns, rows));
            prepared_[index].group = index + 1;
        }
        prepared_by_key_.emplace(std::move(key), index);
        return index;
    }

    // Rows of `columns` values sent in one statement: the parameters of one
    // statement are limited.
    std::size_t group_rows(int columns) const {
        return std::min<std::size_t>(group_, kMaxParams / static_cast<std::size_t>(columns));
    }

    static PreparedInsert make_prepared(const std::string& head, int columns, std::size_t rows) {
        PreparedInsert prepared;
        prepared.params = static_cast<int>(rows) * columns;
        prepared.sql = head + " VALUES ";
        int param = 0;
        for (std::size_t row = 0; row < rows; ++row) {
            prepared.sql += row > 0 ? ",(" : "(";
            for (int column = 0; column < columns; ++column) {
                prepared.sql += (column > 0 ? ",$" : "$") + std::to_string(++param);
            }
            prepared.sql += ')';
        }
        return prepared;
    }

    Unit next_unit() {
        Unit unit;
        std::optional<Statement> first = std::exchange(pending_, std::nullopt);
        if (!first) {
            first = read_item();
        }
        if (!first) {
            return unit;
        }
        if (first->kind == ScriptLineKind::Connect) {
            unit.kind = Unit::Kind::Connect;
            unit.database = std::move(first->text);
            return unit;
        }
        unit.statements.push_back(std::move(*first));
        if (unit.statements.front().kind == ScriptLineKind::Alone) {
            unit.kind = Unit::Kind::Alone;
            return unit;
        }
        unit.kind = Unit::Kind::Batch;
        while (unit.statements.size() < batch_) {
            std::optional<Statement> more = read_item();
            if (!more) {
                break;
            }
            if (more->kind != ScriptLineKind::Insert && more->kind != ScriptLineKind::Pipelined) {
                pending_ = std::move(more);
                break;
            }
            unit.statements.push_back(std::move(*more));
        }
        return unit;
    }

    // ---- the connection ---------------------------------------------------

    void connect(const std::string& database) {
        if (conn_ && database == database_) {
            return;
        }
        make_durable();
        conn_.reset();
        const std::array<const char*, 3> keys{"dbname", "fallback_application_name", nullptr};
        const std::array<const char*, 3> values{database.c_str(), "oaisql", nullptr};
        Connection conn(PQconnectdbParams(keys.data(), values.data(), 0));
        if (!conn || PQstatus(conn.get()) != CONNECTION_OK) {
            throw Stop(
                "cannot connect to database " + database + ": " +
                (conn ? one_line(PQerrorMessage(conn.get())) : std::string("out of memory")));
        }
        PQsetNoticeProcessor(conn.get(), ignore_notice, nullptr);
        const char* scs = PQparameterStatus(conn.get(), "standard_conforming_strings");
        scs_on_ = scs != nullptr && std::string_view(scs) == "on";
        if (!command(conn.get(), "SET synchronous_commit = off") ||
            PQsetnonblocking(conn.get(), 1) != 0 || PQenterPipelineMode(conn.get()) != 1) {
            throw Stop("cannot prepare the connection to database " + database + ": " +
                       one_line(PQerrorMessage(conn.get())));
        }
        conn_ = std::move(conn);
        database_ = database;
        forget_prepared();
    }

    static bool command(PGconn* conn, const char* sql) {
        const Result result(PQexec(conn, sql));
        const ExecStatusType status = PQresultStatus(result.get());
        return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
    }

    // Batches commit without waiting for the disk; before the loader
    // reports or leaves a database, one transaction that waits for it makes
    // everything committed before it durable as well.
    void make_durable() {
        PGconn* conn = conn_.get();
        if (conn == nullptr || committed_ == succeeded_ + failed_) {
            return;
        }
        if (PQexitPipelineMode(conn) != 1 || !command(conn, "RESET synchronous_commit") ||
            !command(conn, "SELECT txid_current()") ||
            !command(conn, "SET synchronous_commit = off") || PQenterPipelineMode(conn) != 1) {
            if (PQstatus(conn) == CONNECTION_BAD) {
                lost();
            }
            throw Stop("cannot make the loaded rows durable in database " + database_ + ": " +
                       one_line(PQerrorMessage(conn)));
        }
        committed_ = succeeded_ + failed_;
    }

    void ensure_connection() {
        if (!conn_) {
            connect(kLoaderDefaultDatabase);
        }
    }

    [[noreturn]] void lost() {
        throw Stop("lost the connection to database " + database_ + ": " +
                   one_line(PQerrorMessage(conn_.get())));
    }

    // Statements that change the schema may invalidate what was prepared,
    // and a new connection knows nothing: prepare again under new names.
    void forget_prepared() {
        ++generation_;
        for (PreparedInsert& prepared : prepared_) {
            prepared.ready = false;
            prepared.parse_segment = 0;
        }
    }

    // Sends everything queued, reading meanwhile so that neither side can
    // wait for the other with full buffers.
    void flush_all() {
        for (;;) {
            const int pending = PQflush(conn_.get());
            if (pending == 0) {
                return;
            }
            if (pending < 0) {
                lost();
            }
            pollfd fd{PQsocket(conn_.get()), POLLIN | POLLOUT, 0};
            if (::poll(&fd, 1, -1) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                lost();
            }
            if ((fd.revents & POLLIN) != 0 && PQconsumeInput(conn_.get()) == 0) {
                lost();
            }
        }
    }

    // ---- batches ----------------------------------------------------------

    // Whether the statement goes as its prepared shape with parameters:
    // when the server reads backslashes in quotes as escapes, the text of
    // such a value means something else than its bytes, and goes literally.
    bool takes_parameters(const Statement& statement) const {
        return statement.kind == ScriptLineKind::Insert && statement.values.size() <= kMaxParams &&
               (scs_on_ || !has_backslash(statement.values));
    }

    // The group variant when statements [i, hi) begin with a full group of
    // rows of one shape outside the rows that go one by one, else -1.
    int group_at(const std::vector<Statement>& batch, std::size_t i, std::size_t hi) const {
        const Statement& first = batch[i];
        if (!takes_parameters(first) || prepared_[first.prepared].group < 0) {
            return -1;
        }
        const int group = prepared_[first.prepared].group;
        const std::size_t rows = group_rows(prepared_[first.prepared].params);
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

    // Makes sure the server holds prepared statement `index` when the
    // statements [first, first + rows) that use it run.
    void prepare(int index, std::size_t first, std::size_t rows, std::vector<Sent>& sent) {
        PreparedInsert& shape = prepared_[index];
        if (shape.ready || shape.parse_segment == segment_) {
            return;
        }
        shape.name = "oaisql_" + std::to_string(generation_) + "_" + std::to_string(index);
        if (PQsendPrepare(conn_.get(), shape.name.c_str(), shape.sql.c_str(), shape.params,
                          nullptr) == 0) {
            lost();
        }
        shape.parse_segment = segment_;
        sent.push_back({first, rows, index});
    }

    // Sends statements [lo, hi) of `batch` and a sync: one transaction.
    // Runs of rows of one shape go several in one INSERT. A `literal`
    // segment sends the text of the script as it stands and prepares
    // nothing, so that the next segment may follow it at once.
    void send_segment(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi,
                      bool literal) {
        ++segment_;
        Segment segment{lo, hi, {}};
        PGconn* conn = conn_.get();
        for (std::size_t i = lo; i < hi;) {
            const Statement& statement = batch[i];
            const int group = literal ? -1 : group_at(batch, i, hi);
            std::size_t rows = 1;
            int ok = 0;
            if (!literal && (group >= 0 || takes_parameters(statement))) {
                const int index = group >= 0 ? group : statement.prepared;
                rows = group >= 0 ? group_rows(prepared_[statement.prepared].params) : 1;
                prepare(index, i, rows, segment.sent);
                const PreparedInsert& shape = prepared_[index];
                params_.clear();
                for (std::size_t row = i; row < i + rows; ++row) {
                    for (const auto& value : batch[row].values) {
                        params_.push_back(value ? value->c_str() : nullptr);
                    }
                }
                ok = PQsendQueryPrepared(conn, shape.name.c_str(), shape.params, params_.data(),
                                         nullptr, nullptr, 0);
            } else {
                ok = PQsendQueryParams(conn, statement.text.c_str(), 0, nullptr, nullptr, nullptr,
                                       nullptr, 0);
            }
            if (ok == 0) {
                lost();
            }
            segment.sent.push_back({i, rows, -1});
            i += rows;
        }
        if (PQpipelineSync(conn) == 0) {
            lost();
        }
        flush_all();
        in_flight_.push_back(std::move(segment));
    }

    // Reads the answers to the oldest segment on its way; the first
    // failure, if any (the server skips everything after it up to the sync).
    std::optional<Failure> collect_segment() {
        PGconn* conn = conn_.get();
        const Segment segment = std::move(in_flight_.front());
        in_flight_.pop_front();
        std::optional<Failure> failure;
        for (const Sent& item : segment.sent) {
            const Result result(PQgetResult(conn));
            if (!result) {
                lost();
            }
            const ExecStatusType status = PQresultStatus(result.get());
            if (status == PGRES_FATAL_ERROR || status == PGRES_NONFATAL_ERROR ||
                status == PGRES_BAD_RESPONSE) {
                if (PQstatus(conn) == CONNECTION_BAD) {
                    lost();
                }
                if (!failure) {
                    failure = Failure{item.index, item.rows, error_text(result.get())};
                }
            } else if (status != PGRES_PIPELINE_ABORTED && item.parse >= 0) {
                prepared_[item.parse].ready = true;
            }
            if (Result(PQgetResult(conn))) {
                throw Stop("unexpected answer from database " + database_);
            }
        }
        const Result sync(PQgetResult(conn));
        if (!sync || PQresultStatus(sync.get()) != PGRES_PIPELINE_SYNC) {
            lost();
        }
        return failure;
    }

    // Runs statements [lo, hi) of `batch` so that each one that succeeds on
    // its own is committed exactly once, in file order. A segment starting
    // at `lo` may already be on its way.
    void run_range(const std::vector<Statement>& batch, std::size_t lo, std::size_t hi) {
        while (lo < hi) {
            if (in_flight_.empty()) {
                send_segment(batch, lo, std::min(hi, lo + window_), false);
            }
            const std::size_t end = in_flight_.front().hi;
            const std::optional<Failure> failure = collect_segment();
            if (!failure) {
                succeeded_ += end - lo;
                window_ = std::min(batch_, window_ + std::max<std::size_t>(1, window_ / 4));
                lo = end;
                continue;
            }
            const std::size_t k = failure->index;
            if (failure->rows > 1) {
                // Which row of the group failed is not known: the same
                // segment again, those rows one by one.
                single_rows_.emplace_back(k, k + failure->rows);
                continue;
            }
            // A failure costs the work of its segment so far: where they
            // come often, segments get shorter.
            window_ = std::max<std::size_t>(1, window_ / 2);
            if (k == lo) {
                // First of its transaction: the failure is its own.
                report(batch[k], failure->message);
                lo = k + 1;
                continue;
            }
            // [lo, k) was rolled back with it: commit it again, then run
            // the failing statement alone so that it reports by itself;
            // what follows need not wait for that answer.
            run_range(batch, lo, k);
            send_segment(batch, k, k + 1, true);
            if (k + 1 < hi) {
                send_segment(batch, k + 1, std::min(hi, k + 1 + window_), false);
            }
            if (const std::optional<Failure> alone = collect_segment()) {
                report(batch[k], alone->message);
            } else {
                ++succeeded_;
            }
            lo = k + 1;
        }
    }

    // A statement that is not a plain INSERT, UPDATE or DELETE runs by
    // itself through the simple protocol, as its own transaction: schema
    // changes, settings and several statements on one line all work.
    void run_alone(const Statement& statement) {
        if (statement.text.find('\0') != std::string::npos) {
            report(statement, "the statement holds a NUL byte and was not sent");
            return;
        }
        PGconn* conn = conn_.get();
        if (PQexitPipelineMode(conn) != 1 || PQsendQuery(conn, statement.text.c_str()) == 0) {
            lost();
        }
        flush_all();
        std::optional<std::string> error;
        while (const Result result{PQgetResult(conn)}) {
            switch (PQresultStatus(result.get())) {
                case PGRES_COPY_IN: {
                    int queued = 0;
                    while ((queued = PQputCopyEnd(conn, "oaisql feeds no COPY data")) == 0) {
                        flush_all();
                    }
                    if (queued < 0) {
                        lost();
                    }
                    flush_all();
                    break;
                }
                case PGRES_COPY_OUT: {
                    char* data = nullptr;
                    while (PQgetCopyData(conn, &data, 0) > 0) {
                        PQfreemem(data);
                    }
                    break;
                }
                case PGRES_FATAL_ERROR:
                case PGRES_NONFATAL_ERROR:
                case PGRES_BAD_RESPONSE:
                    if (!error) {
                        error = error_text(result.get());
                    }
                    break;
                default:
                    break;
            }
        }
        if (PQstatus(conn) == CONNECTION_BAD || PQenterPipelineMode(conn) != 1) {
            lost();
        }
        forget_prepared();
        if (error) {
            report(statement, *error);
        } else {
            ++succeeded_;
        }
    }

    void report(const Statement& statement, const std::string& message) {
        ++failed_;
        std::fprintf(out_, "Error in line %zu: %s", statement.line, message.c_str());
        if (options_.echo_statement) {
            std::fprintf(out_, " | statement: %s", statement.text.c_str());
        }
        std::fputc('\n', out_);
    }

    const LoaderOptions& options_;
    std::FILE* out_;
    ScriptReader reader_;
    std::size_t batch_;
    std::size_t group_;
    std::size_t window_;  // statements per segment: halves after a failure, grows back slowly
    std::optional<Statement> pending_;

    Connection conn_;
    std::string database_;
    bool scs_on_ = true;
    std::vector<PreparedInsert> prepared_;
    std::unordered_map<std::string, int> prepared_by_key_;
    std::size_t generation_ = 0;
    std::size_t segment_ = 0;
    std::deque<Segment> in_flight_;
    std::vector<std::pair<std::size_t, std::size_t>> single_rows_;  // of the current batch
    std::vector<const char*> params_;

    std::size_t succeeded_ = 0;
    std::size_t failed_ = 0;
    std::size_t committed_ = 0;  // statements run when the last durable commit was made
};

void summary(std::FILE* out, std::size_t succeeded, std::size_t failed, bool stopped) {
    std::fprintf(out, "oaisql: %zu statements, %zu succeeded, %zu failed%s\n", succeeded + failed,
                 succeeded, failed, stopped ? ", stopped" : "");
    std::fflush(out);
}

}  // namespace

int run_loader(const LoaderOptions& options, std::FILE* out, std::FILE* err) {
    File script(std::fopen(options.file.c_str(), "r"));
    if (!script) {
        const int cause = errno;
        std::fprintf(err, "oaisql: cannot read %s: %s\n", options.file.c_str(),
                     std::strerror(cause));
        summary(out, 0, 0, true);
        return kLoaderStopped;
    }
    Loader loader(options, out, std::move(script));
    try {
        loader.run();
    } catch (const Stop& stop) {
        std::fflush(out);
        std::fprintf(err, "oaisql: %s\n", stop.what());
        std::fflush(err);
        summary(out, loader.succeeded(), loader.failed(), true);
        return kLoaderStopped;
    }
    summary(out, loader.succeeded(), loader.failed(), false);
    return loader.failed() == 0 ? kLoaderAllDone : kLoaderSomeFailed;
}

}  // namespace rv
