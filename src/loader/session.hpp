// The connection to the server: owners for libpq handles, opening a
// connection in pipeline mode, sending without deadlock, statements run by
// themselves through the simple protocol, and the durable commit.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace rv {

// The run cannot go on; the text says why.
class Stop : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct ConnectionCloser {
    void operator()(PGconn* conn) const { PQfinish(conn); }
};
using Connection = std::unique_ptr<PGconn, ConnectionCloser>;

struct ResultClearer {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultClearer>;

// Primary message and detail of the failed statement of `result`, on one
// line; never empty.
std::string error_text(const PGresult* result);

// Whether `status` is the answer of a statement that failed.
bool is_failure(ExecStatusType status);

// One connection at a time, in pipeline mode and non-blocking between
// calls. Every member that talks to the server throws Stop when the
// connection is lost.
class Session {
  public:
    bool is_open() const { return conn_ != nullptr; }
    PGconn* get() const { return conn_.get(); }
    // The database of the open (or last) connection.
    const std::string& database() const { return database_; }
    // Whether the server reads backslashes in quotes as they stand.
    bool scs_on() const { return scs_on_; }

    // Closes the connection, if any.
    void close() { conn_.reset(); }

    // Connects to `database`, with commits that do not wait for the disk;
    // throws Stop when that fails.
    void open(const std::string& database);

    // One transaction that waits for the disk (whatever the server's
    // default), so that everything committed before it is durable as well;
    // throws Stop when that fails.
    void make_durable();

    // Runs `sql` (several statements allowed, no NUL byte) by itself through
    // the simple protocol, as its own transaction: the message of its first
    // failure, nullopt when it succeeded.
    std::optional<std::string> run_simple(const std::string& sql);

    // Runs the single statement `sql` outside the pipeline (idle by then)
    // and returns its answer; throws Stop when it fails.
    Result query(const std::string& sql);

    // Sends everything queued, reading meanwhile so that neither side can
    // wait for the other with full buffers; true when the server sent
    // something while it waited.
    bool flush_all();

    // Whether the answer to what was sent is complete (or the server
    // spoke out of turn), reading what arrived without waiting. Throws Stop
    // when the connection is lost.
    bool answered();

    // Reads for a short while whatever the server answers, so that the
    // next PQgetResult finds it without sleeping; returns at once when an
    // answer is complete. Throws Stop when the connection is lost.
    void await_answer();

    // Throws Stop naming the database and the connection's last message.
    [[noreturn]] void lost() const;

  private:
    // Ends a COPY that `result` started: the loader feeds no data and takes
    // none. Throws Stop when the connection is lost.
    void drain(const PGresult* result);

    Connection conn_;
    std::string database_;
    bool scs_on_ = true;
};

}  // namespace rv
