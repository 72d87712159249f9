// A thin session layer over the PostgreSQL client library: one connection
// and one current result in module globals, so that a caller connects, runs
// a statement and disconnects with one call each. Every error ends in halt,
// which hands control to the first installed clean-up handler; the database
// access jumps back from there (see db/access.hpp). Without a handler, halt
// throws SessionHalted.
//
// Jump discipline: a jump can leave connectdb and doquery in two ways: from
// halt (its clean-up handler may jump), or from the handler of a signal that
// the caller let through with let_through_while_waiting, and that signal is
// taken only while the layer waits for the server's socket. At such a point
// the client library has finished whatever it was doing, the connection and
// the result are in the module globals, and the frames in between hold
// nothing that needs a destructor; the jump target gives everything back
// with release_session().
#pragma once

#include <initializer_list>
#include <memory>
#include <stdexcept>

// The client library's handle types, without its header.
typedef struct pg_conn PGconn;
typedef struct pg_result PGresult;

namespace rv {

// Signals that may interrupt the layer's waits for the server (connecting,
// and waiting for a statement's answer); the caller keeps them blocked
// otherwise. Replaces the previous set; none at first.
void let_through_while_waiting(std::initializer_list<int> signals);

// Connects with the connection string `options` and makes the connection the
// current one. Connecting takes at most the connection's connect_timeout (from
// `options`, else PGCONNECT_TIMEOUT) in whole seconds, two at least; zero,
// less or none sets no limit. A limit that runs out, one that is no whole
// number, and any other failed connection halt with
// "Connection to database using '<options>' failed.\n<reason>\n".
PGconn* connectdb(const char* options);

// Runs `query` on the current connection and makes its result the current
// one (the previous result is cleared). A failed statement prints
// "query error:  <reason>\n" (or, without any result,
// "connection error:  <reason>\n") on standard error, closes the
// connection and halts with "failed query:  <query>\n". A statement that
// returns no rows and an empty statement are not errors.
PGresult* doquery(const char* query);

// The reason of the last failure of connectdb or doquery on one line: the
// client library's connection message, the time limit that ran out, or the
// server's message with its detail and hint. Empty while connectdb or
// doquery has not failed since it was last called.
const char* session_failure();

// Clears the current result and closes the current connection.
void disconnectdb();

// Gives back whatever connection and result are still held; for the target
// of a jump that left connectdb or doquery. A statement still running on the
// server is cancelled and its answer taken first. Safe to call at any time.
void release_session();

// What halt throws when no clean-up handler took control: what() is the
// text halt wrote on standard error.
class SessionHalted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reports on standard error and hands control on: a format that begins with
// "PERROR" prints what follows the blanks and colons behind that word, then
// the system error text. Then the first clean-up handler installed for
// SIGTERM, SIGHUP, SIGINT or SIGQUIT (in this order) is reset to the default
// action and called with 0. Ignored signals are passed over and stay
// ignored. Only without such a handler, or when it returns, halt throws
// SessionHalted: so only where no jump target is active. Inside the database
// access the SIGQUIT handler is always installed and jumps back.
[[noreturn]] void halt(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Owning holders for code that no jump crosses.
struct PgConnCloser {
    void operator()(PGconn* conn) const;
};
struct PgResultClearer {
    void operator()(PGresult* res) const;
};
using PgConnPtr = std::unique_ptr<PGconn, PgConnCloser>;
using PgResultPtr = std::unique_ptr<PGresult, PgResultClearer>;

}  // namespace rv
