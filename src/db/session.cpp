#include "db/session.hpp"

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

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

// The shortest time limit of connecting the client library's clients keep.
constexpr long kMinConnectTimeout = 2;

// The reason of the last failure of connectdb or doquery, on one line. A
// fixed buffer: it is written inside the region a jump may leave.
std::array<char, 512> gFailure{};

// How a wait for the server ended.
enum class Wait { ready, timed_out, failed };

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

// The signal mask while waiting for the server: the current one with the
// wait signals let through.
void wait_mask(sigset_t& mask) {
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    if (gWaitSignalsSet) {
        for (int signo = 1; signo < NSIG; ++signo) {
            if (sigismember(&gWaitSignals, signo) == 1) {
                sigdelset(&mask, signo);
            }
        }
    }
}

// The time from now until `deadline` (CLOCK_MONOTONIC) in `left`; false when
// it has passed.
bool time_left(const timespec& deadline, timespec& left) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    left.tv_sec = deadline.tv_sec - now.tv_sec;
    left.tv_nsec = deadline.tv_nsec - now.tv_nsec;
    if (left.tv_nsec < 0) {
        left.tv_nsec += 1000000000L;
        --left.tv_sec;
    }
    return left.tv_sec > 0 || (left.tv_sec == 0 && left.tv_nsec > 0);
}

// Waits until the connection's socket is ready, with the wait signals let
// through, at most until `deadline` when one is given. This is the only
// place where a signal handler can interrupt the layer; an interrupted wait
// counts as ready.
Wait wait_for_server(bool for_write, const timespec* deadline = nullptr) {
    pollfd pfd{};
    pfd.fd = PQsocket(conn);
    pfd.events = static_cast<short>(for_write ? POLLOUT : POLLIN);
    if (pfd.fd < 0) {
        return Wait::failed;
    }
    timespec left{};
    if (deadline != nullptr && !time_left(*deadline, left)) {
        return Wait::timed_out;
    }
    sigset_t mask;
    wait_mask(mask);
    const int ready = ppoll(&pfd, 1, deadline != nullptr ? &left : nullptr, &mask);
    if (ready == 0) {
        return Wait::timed_out;
    }
    return ready > 0 || errno == EINTR ? Wait::ready : Wait::failed;
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

// Takes the answers to the statement sent into `res`: the last one counts,
// but an error is kept; a copy answer ends the statement's answers.
void collect_results() {
    while (true) {
        while (PQisBusy(conn)) {
            if (wait_for_server(false) != Wait::ready || !PQconsumeInput(conn)) {
                break;
            }
        }
        PGresult* next = PQgetResult(conn);
        if (next == nullptr) {
            return;
        }
        if (is_error(res) && res != nullptr) {
            PQclear(next);
        } else {
            clear_result();
            res = next;
        }
        if (is_copy(res)) {
            return;
        }
    }
}

// Appends `text` to gFailure on one line: every run of blanks and line
// breaks becomes one blank, and none opens it. Cut where the buffer ends.
void add_failure(const char* text) {
    std::size_t used = std::strlen(gFailure.data());
    for (const char* c = text; *c != '\0' && used + 1 < gFailure.size(); ++c) {
        if (std::isspace(static_cast<unsigned char>(*c)) == 0) {
            gFailure[used++] = *c;
        } else if (used > 0 && gFailure[used - 1] != ' ') {
            gFailure[used++] = ' ';
        }
    }
    gFailure[used] = '\0';
}

// Ends the reason in gFailure: without a closing blank, and never empty.
void end_failure() {
    std::size_t used = std::strlen(gFailure.data());
    if (used > 0 && gFailure[used - 1] == ' ') {
        gFailure[--used] = '\0';
    }
    if (used == 0) {
        add_failure("no reason given");
    }
}

// Makes `text` the reason of the failure.
void note_failure(const char* text) {
    gFailure[0] = '\0';
    add_failure(text);
    end_failure();
}

// The reason of a failed statement: the server's severity, message, detail
// and hint (not the position in the statement).
void note_result_failure(const PGresult* result) {
    const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    if (primary == nullptr) {
        note_failure(PQresultErrorMessage(result));
        return;
    }
    const char* severity = PQresultErrorField(result, PG_DIAG_SEVERITY);
    note_failure(severity != nullptr ? severity : "ERROR");
    add_failure(": ");
    add_failure(primary);
    const std::pair<const char*, int> parts[] = {{" DETAIL: ", PG_DIAG_MESSAGE_DETAIL},
                                                 {" HINT: ", PG_DIAG_MESSAGE_HINT}};
    for (const auto& [label, field] : parts) {
        if (const char* text = PQresultErrorField(result, field)) {
            add_failure(label);
            add_failure(text);
        }
    }
    end_failure();
}

// A connect_timeout value as the client library's clients take it: whole
// seconds, none for an empty value, zero or less, and two at least. -1, with
// the reason in gFailure, for anything else.
int timeout_seconds(const char* text) {
    if (*text == '\0') {
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    const long seconds = std::strtol(text, &end, 10);
    while (end != text && std::isspace(static_cast<unsigned char>(*end)) != 0) {
        ++end;
    }
    if (end == text || *end != '\0' || errno == ERANGE || seconds > INT_MAX || seconds < INT_MIN) {
        std::snprintf(gFailure.data(), gFailure.size(),
                      "invalid integer value \"%s\" for connection option \"connect_timeout\"", text);
        return -1;
    }
    return seconds <= 0 ? 0 : static_cast<int>(std::max(seconds, kMinConnectTimeout));
}

// The time limit of connecting that the connection being made has, from its
// connection string or else PGCONNECT_TIMEOUT: see timeout_seconds.
int connect_timeout() {
    PQconninfoOption* const options = PQconninfo(conn);
    int seconds = 0;
    for (const PQconninfoOption* o = options; o != nullptr && o->keyword != nullptr; ++o) {
        if (std::strcmp(o->keyword, "connect_timeout") == 0 && o->val != nullptr) {
            seconds = timeout_seconds(o->val);
        }
    }
    PQconninfoFree(options);
    return seconds;
}

// Takes the connection being made in `conn` as far as it goes, for at most
// `timeout` seconds when that is above 0. A time limit that ran out is the
// reason in gFailure. The limit covers the whole attempt: unlike the
// library's own blocking connect, a host that does not answer in time is not
// followed by the next one of a host list (the product names one server).
void complete_connection(int timeout) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeout;
    PostgresPollingStatusType state = PGRES_POLLING_WRITING;
    while (PQstatus(conn) != CONNECTION_BAD && state != PGRES_POLLING_OK && state != PGRES_POLLING_FAILED) {
        const Wait wait = wait_for_server(state == PGRES_POLLING_WRITING, timeout > 0 ? &deadline : nullptr);
        if (wait == Wait::timed_out) {
            std::snprintf(gFailure.data(), gFailure.size(),
                          "timeout expired: no answer from the server within %d seconds (connect_timeout)",
                          timeout);
        }
        if (wait != Wait::ready) {
            return;
        }
        state = PQconnectPoll(conn);
    }
}

// The text of a report after "PERROR" and the blanks and colons behind it.
const char* perror_format(const char* format) {
    const char* rest = format + sizeof kPerror - 1;
    return rest + std::strspn(rest, " :");
}

bool is_perror(const char* format) {
    return std::strncmp(format, kPerror, sizeof kPerror - 1) == 0;
}

// Writes halt's report on standard error.
__attribute__((format(printf, 1, 0))) void report(const char* format, std::va_list args,
                                                   int error) {
    if (is_perror(format)) {
        std::vfprintf(stderr, perror_format(format), args);
        errno = error;
        std::perror("");
    } else {
        std::vfprintf(stderr, format, args);
    }
    std::fflush(stderr);
}

// The text `report` writes.
__attribute__((format(printf, 1, 0))) std::string report_text(const char* format,
                                                              std::va_list args, int error) {
    const bool perror = is_perror(format);
    std::va_list measure;
    va_copy(measure, args);
    const char* text_format = perror ? perror_format(format) : format;
    const int size = std::vsnprintf(nullptr, 0, text_format, measure);
    va_end(measure);
    std::string text(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    std::vsnprintf(text.data(), text.size() + 1, text_format, args);
    if (perror) {
        text.append(std::strerror(error)).append("\n");
    }
    return text;
}

// Resets the first clean-up handler installed for one of kCleanupSignals to
// the default action and calls it with 0; ignored signals are passed over.
// Returns when there is none, or when it returns.
void call_cleanup_handler() {
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
        return;
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
    gFailure[0] = '\0';
    // Connected step by step rather than in one call, so that the
    // connection object is in `conn` whenever a signal can come.
    conn = PQconnectStart(options);
    if (conn != nullptr) {
        if (const int timeout = connect_timeout(); timeout >= 0) {
            complete_connection(timeout);
        }
    }
    if (gFailure[0] != '\0' || PQstatus(conn) != CONNECTION_OK) {
        // The failed connection object stays in `conn` for the jump target.
        const bool own = gFailure[0] != '\0';
        if (!own) {
            note_failure(PQerrorMessage(conn));
        }
        halt("Connection to database using '%s' failed.\n%s\n", options,
             own ? gFailure.data() : PQerrorMessage(conn));
    }
    return conn;
}

PGresult* doquery(const char* query) {
    clear_result();
    gFailure[0] = '\0';
    // Sent and collected step by step rather than in one call, so that a
    // signal can come only while waiting, with every result already in `res`
    // and the statement's state in the connection.
    if (PQsendQuery(conn, query)) {
        collect_results();
    }
    if (is_error(res)) {
        if (res != nullptr) {
            std::fprintf(stderr, "query error:  %s\n", PQresultErrorMessage(res));
            note_result_failure(res);
        } else {
            std::fprintf(stderr, "connection error:  %s\n", PQerrorMessage(conn));
            note_failure(PQerrorMessage(conn));
        }
        finish_connection();
        halt("failed query:  %s\n", query);
    }
    return res;
}

const char* session_failure() {
    return gFailure.data();
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
    // Nothing with a destructor may live here while the clean-up handler
    // runs: it may jump away.
    const int error = errno;
    std::va_list args;
    va_start(args, format);
    report(format, args, error);
    va_end(args);
    call_cleanup_handler();

    // Nobody jumped away: the caller gets the report as an exception.
    va_start(args, format);
    std::string text = report_text(format, args, error);
    va_end(args);
    throw SessionHalted(text);
}

void PgConnCloser::operator()(PGconn* c) const {
    PQfinish(c);
}

void PgResultClearer::operator()(PGresult* r) const {
    PQclear(r);
}

}  // namespace rv
