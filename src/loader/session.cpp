// The connection to the server: opening it, the durable commit, statements
// run alone, and the flushing that pipeline mode needs.
#include "loader/session.hpp"

#include <poll.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include "loader/statement.hpp"

namespace rv {

namespace {

// How long the loader asks for an answer before it sleeps until one comes:
// on a virtual machine a sleep and the wake-up behind it may take longer
// than the server needs to begin or end a COPY.
constexpr std::chrono::microseconds kAwaitAnswer{500};

// A transaction that must wait for the disk has to write to the log itself:
// one that writes nothing (txid_current() alone) commits without waiting,
// and the commits before it would stay unwritten. A transactional message in
// the log is the smallest such write, open to every user, and invisible to
// the tables.
constexpr const char* kWalWritingStatement = "SELECT pg_logical_emit_message(true, 'oaisql', 'durable')";

// Notices and warnings are not failures and must not look like them.
void ignore_notice(void* /*arg*/, const char* /*message*/) {}

// Runs `sql` on `conn` outside pipeline mode; true when it succeeded.
bool command(PGconn* conn, const char* sql) {
    const Result result(PQexec(conn, sql));
    const ExecStatusType status = PQresultStatus(result.get());
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

}  // namespace

bool is_failure(ExecStatusType status) {
    return status == PGRES_FATAL_ERROR || status == PGRES_NONFATAL_ERROR ||
           status == PGRES_BAD_RESPONSE;
}

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

void Session::open(const std::string& database) {
    const std::array<const char*, 3> keys{"dbname", "fallback_application_name", nullptr};
    const std::array<const char*, 3> values{database.c_str(), "oaisql", nullptr};
    Connection conn(PQconnectdbParams(keys.data(), values.data(), 0));
    if (!conn || PQstatus(conn.get()) != CONNECTION_OK) {
        throw Stop("cannot connect to database " + database + ": " +
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
}

void Session::make_durable() {
    PGconn* conn = conn_.get();
    // "on" rather than the server's default, which may be off as well.
    if (PQexitPipelineMode(conn) != 1 || !command(conn, "SET synchronous_commit = on") ||
        !command(conn, kWalWritingStatement) ||
        !command(conn, "SET synchronous_commit = off") || PQenterPipelineMode(conn) != 1) {
        if (PQstatus(conn) == CONNECTION_BAD) {
            lost();
        }
        throw Stop("cannot make the loaded rows durable in database " + database_ + ": " +
                   one_line(PQerrorMessage(conn)));
    }
}

Result Session::query(const std::string& sql) {
    PGconn* conn = conn_.get();
    if (PQexitPipelineMode(conn) != 1) {
        lost();
    }
    Result result(PQexec(conn, sql.c_str()));
    const ExecStatusType status = PQresultStatus(result.get());
    if (PQstatus(conn) == CONNECTION_BAD || PQenterPipelineMode(conn) != 1) {
        lost();
    }
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw Stop("database " + database_ + " refused a query of the loader: " +
                   error_text(result.get()));
    }
    return result;
}

std::optional<std::string> Session::run_simple(const std::string& sql) {
    PGconn* conn = conn_.get();
    if (PQexitPipelineMode(conn) != 1 || PQsendQuery(conn, sql.c_str()) == 0) {
        lost();
    }
    flush_all();
    std::optional<std::string> error;
    while (const Result result{PQgetResult(conn)}) {
        if (is_failure(PQresultStatus(result.get()))) {
            if (!error) {
                error = error_text(result.get());
            }
        } else {
            drain(result.get());
        }
    }
    if (PQstatus(conn) == CONNECTION_BAD || PQenterPipelineMode(conn) != 1) {
        lost();
    }
    return error;
}

// Ends a COPY that `result` started: the loader feeds none and takes none.
void Session::drain(const PGresult* result) {
    PGconn* conn = conn_.get();
    const ExecStatusType status = PQresultStatus(result);
    if (status == PGRES_COPY_IN) {
        int queued = 0;
        while ((queued = PQputCopyEnd(conn, "oaisql feeds no COPY data")) == 0) {
            flush_all();
        }
        if (queued < 0) {
            lost();
        }
        flush_all();
    } else if (status == PGRES_COPY_OUT) {
        char* data = nullptr;
        while (PQgetCopyData(conn, &data, 0) > 0) {
            PQfreemem(data);
        }
    }
}

bool Session::answered() {
    PGconn* conn = conn_.get();
    if (PQisBusy(conn) == 0) {
        return true;
    }
    // Asking the socket whether it has data takes none of its locks, which
    // the server needs to send.
    pollfd fd{PQsocket(conn), POLLIN, 0};
    if (::poll(&fd, 1, 0) <= 0) {
        return false;
    }
    if (PQconsumeInput(conn) == 0) {
        lost();
    }
    return PQisBusy(conn) == 0;
}

void Session::await_answer() {
    const auto until = std::chrono::steady_clock::now() + kAwaitAnswer;
    while (!answered() && std::chrono::steady_clock::now() < until) {
    }
}

bool Session::flush_all() {
    bool spoke = false;
    for (;;) {
        const int pending = PQflush(conn_.get());
        if (pending == 0) {
            return spoke;
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
        spoke = spoke || (fd.revents & POLLIN) != 0;
        if ((fd.revents & POLLIN) != 0 && PQconsumeInput(conn_.get()) == 0) {
            lost();
        }
    }
}

void Session::lost() const {
    throw Stop("lost the connection to database " + database_ + ": " +
               one_line(PQerrorMessage(conn_.get())));
}

}  // namespace rv
