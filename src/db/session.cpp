#include "db/session.hpp"

#include <libpq-fe.h>
#include <poll.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace rv {

namespace {

// The current connection and result. Plain pointers on purpose: a jump may
// leave this layer while it waits for the server, and the jump target gives
// back what is left here (release_session).
PGconn* conn = nullptr;
PGresult* res = nullptr;

// Signals let through while waiting for the server.
sigset_t gWaitSignals;
bool gWaitSignalsSet = false;

constexpr char kPerror[] = "PERROR";

// The clean-up handlers halt looks for, in this order.
constexpr int kCleanupSignals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT};

// How long release_session waits for a cancelled statement's answer.
constexpr int kCancelWaitMs = 10000;

void clear_result() {
    if (res != nullptr) {
        PQclear(res);
        res = nullptr;
    }
}

void finish_connection() {
    if (conn != nullptr) {
        PQfinish(conn);
        conn = nullptr;
    }
}

bool is_error(const PGresult* result) {
    if (result == nullptr) {
        return true;
    }
    switch (PQresultStatus(result)) {
        case PGRES_BAD_RESPONSE:
        case PGRES_NONFATAL_ERROR:
        case PGRES_FATAL_ERROR:
            return true;
        default:
            return false;
    }
}

// Waits until the connection's socket is ready, with the wait signals let
// through. This is the only place where a signal handler can interrupt the
// layer; false when the socket cannot be waited for.
bool wait_for_server(bool for_write) {
    pollfd pfd{};
    pfd.fd = PQsocket(conn);
    pfd.events = static_cast<short>(for_write ? POLLOUT : POLLIN);
    if (pfd.fd < 0) {
        return false;
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    if (gWaitSignalsSet) {
        for (int signo = 1; signo < NSIG; ++signo) {
            if (sigismember(&gWaitSignals, signo) == 1) {
                sigdelset(&mask, signo);
            }
        }
    }
    const int ready = ppoll(&pfd, 1, nullptr, &mask);
    return ready > 0 || (ready < 0 && errno == EINTR);
}

bool is_copy(const PGresult* result) {
    const ExecStatusType status = PQresultStatus(result);
    return status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH;
}

// Lets a statement that is still running on the server end: asks the server
// to cancel it and takes its answer, so that the connection holds nothing
// more when it is closed. Gives up after kCancelWaitMs.
void cancel_running_statement() {
    if (PQtransactionStatus(conn) != PQTRANS_ACTIVE) {
        return;
    }
    if (PGcancel* cancel = PQgetCancel(conn)) {
        std::array<char, 256> error{};
        PQcancel(cancel, error.data(), static_cast<int>(error.size()));
        PQfreeCancel(cancel);
    }
    while (PQisBusy(conn)) {
        pollfd pfd{};
        pfd.fd = PQsocket(conn);
        pfd.events = POLLIN;
        if (pfd.fd < 0 || poll(&pfd, 1, kCancelWaitMs) <= 0 || !PQconsumeInput(conn)) {
            return;
        }
    }
    while (PGresult* result = PQgetResult(conn)) {
        PQclear(result);
        if (PQisBusy(conn)) {
            return;
        }
    }
}

}  // namespace

void let_through_while_waiting(std::initializer_list<int> signals) {
    sigemptyset(&gWaitSignals);
    for (const int signo : signals) {
        sigaddset(&gWaitSignals, signo);
    }
    gWaitSignalsSet = true;
}

PGconn* connectdb(const char* options) {
    // An older connection would be lost otherwise; the callers pair every
    // connectdb with disconnectdb, so this only guards against misuse.
    finish_connection();
    // Connected step by step rather than in one call, so that the
    // connection object is in `conn` whenever a signal can come.
    conn = PQconnectStart(options);
    PostgresPollingStatusType state = PGRES_POLLING_WRITING;
    while (conn != nullptr && PQstatus(conn) != CONNECTION_BAD && state != PGRES_POLLING_OK &&
           state != PGRES_POLLING_FAILED) {
        if (!wait_for_server(state == PGRES_POLLING_WRITING)) {
            break;
        }
        state = PQconnectPoll(conn);
    }
    if (PQstatus(conn) != CONNECTION_OK) {
        // The failed connection object stays in `conn` for the jump target.
        halt("Connection to database using '%s' failed.\n%s\n", options, PQerrorMessage(conn));
    }
    return conn;
}

PGresult* doquery(const char* query) {
    clear_result();
    // Sent and collected step by step rather than in one call, so that a
    // signal can come only while waiting, with every result already in `res`
    // and the statement's state in the connection.
    if (PQsendQuery(conn, query)) {
        while (true) {
            while (PQisBusy(conn)) {
                if (!wait_for_server(false) || !PQconsumeInput(conn)) {
                    break;
                }
            }
            PGresult* next = PQgetResult(conn);
            if (next == nullptr) {
                break;
            }
            // The last result counts, but an error is kept.
            if (is_error(res) && res != nullptr) {
                PQclear(next);
            } else {
                clear_result();
                res = next;
            }
            if (is_copy(res)) {
                break;
            }
        }
    }
    if (is_error(res)) {
        if (res != nullptr) {
            std::fprintf(stderr, "query error:  %s\n", PQresultErrorMessage(res));
        } else {
            std::fprintf(stderr, "connection error:  %s\n", PQerrorMessage(conn));
        }
        finish_connection();
        halt("failed query:  %s\n", query);
    }
    return res;
}

void disconnectdb() {
    clear_result();
    finish_connection();
}

void release_session() {
    clear_result();
    if (conn != nullptr) {
        cancel_running_statement();
    }
    finish_connection();
}

void halt(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    if (std::strncmp(format, kPerror, sizeof kPerror - 1) == 0) {
        const char* rest = format + sizeof kPerror - 1;
        rest += std::strspn(rest, " :");
        std::vfprintf(stderr, rest, args);
        std::perror("");
    } else {
        std::vfprintf(stderr, format, args);
    }
    va_end(args);
    std::fflush(stderr);

    for (const int signo : kCleanupSignals) {
        struct sigaction previous {};
        if (sigaction(signo, nullptr, &previous) != 0) {
            continue;
        }
        const bool info = (previous.sa_flags & SA_SIGINFO) != 0;
        if (!info && (previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN)) {
            continue;
        }
        std::signal(signo, SIG_DFL);
        if (info) {
            previous.sa_sigaction(0, nullptr, nullptr);
        } else {
            previous.sa_handler(0);
        }
        break;
    }
    std::exit(1);
}

void PgConnCloser::operator()(PGconn* c) const {
    PQfinish(c);
}

void PgResultClearer::operator()(PGresult* r) const {
    PQclear(r);
}

}  // namespace rv
