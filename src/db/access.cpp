#include "db/access.hpp"
#include "log/trace.hpp"

#include <libpq-fe.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

#include "config/environment.hpp"
#include "db/dates.hpp"
#include "db/records.hpp"
#include "db/session.hpp"
#include "db/signals.hpp"
#include "log/prot.hpp"

// How a SIGQUIT (or a failing statement) gets back into iDB_ACCESS.
//
// The jump target is run_guarded below: it saves gSigenv and is the only
// frame a jump lands in. signal_psql_handler jumps there in two cases: when
// halt calls it after the session layer reported a failed connection or
// statement, and when a SIGQUIT comes in. The frames that a jump crosses must
// hold only objects without destructors, or their memory is lost. So:
//  - SIGQUIT is blocked for the whole call (run_shielded, the frame above
//    run_guarded, sets that up). The session layer lets it through
//    only while it waits for the server's socket (connecting, and waiting for
//    the statement's answer), and run_guarded once more at the very end, so
//    that a SIGQUIT that came while it was blocked still makes the statement
//    fail. halt is reached only from the session layer's connectdb and
//    doquery. A jump can therefore leave only the session layer,
//    iPSQL_DO_SQL before its statement has been answered, and run_guarded.
//  - Those frames hold plain pointers, characters, flags and a fixed
//    std::array for the statement text. The connection and the result stay in
//    the session layer's globals and are given back at the jump target (a
//    statement still running on the server is cancelled there). The
//    statement text, its accent positions, the trace context and the result
//    strings live in iDB_ACCESS and its caller, above the jump target. The
//    reason of a failed connection or statement waits in the session
//    layer's fixed buffer (session_failure) until iDB_ACCESS, back from the
//    jump, copies it.
// Everything that builds strings (tracing, the environment set-up, turning a
// result into a record list or an export text) runs while SIGQUIT is blocked
// and no call can halt.
// Nor does halt's exception cross run_guarded: halt throws only when it
// finds no clean-up handler, and here it always finds signal_psql_handler
// (SIGTERM, SIGINT and SIGHUP are at their default action during the call).

namespace rv {

namespace {

constexpr const char* kVersionId = "db_access 1.0";
constexpr const char* kConnectOptions = "dbname=ravik_db";
constexpr std::string_view kSelect = "select";

// run_guarded's answer after a jump back.
constexpr int kJumped = -1;

// The reason of a call that was broken off by SIGQUIT alone.
constexpr const char* kSigquitReason = "broken off by SIGQUIT";

// Why the last call was broken off (db_failure).
std::string gBrokenOff;

void set_action(int signo, void (*handler)(int), struct sigaction* old) {
    new_action = {};
    new_action.sa_handler = handler;
    sigemptyset(&new_action.sa_mask);
    new_action.sa_flags = 0;
    sigaction(signo, &new_action, old);
}

// Copies the statement into `out` (iDB_ACCESS has made sure it fits), with the
// accent at `accents` written in the connection's client encoding.
void statement_for(PGconn* connection, const char* cpSqlCmd, std::span<const std::size_t> accents,
                   std::array<char, kSqlStatementMax + 1>& out) {
    const char* encoding = PQparameterStatus(connection, "client_encoding");
    const std::string_view accent =
        encoding != nullptr && std::strcmp(encoding, "UTF8") == 0 ? kAccentUtf8 : kAccentLatin1;
    std::size_t used = 0;
    std::size_t next = 0;
    for (std::size_t in = 0; cpSqlCmd[in] != '\0'; ++in) {
        std::string_view piece(cpSqlCmd + in, 1);
        if (next < accents.size() && accents[next] == in) {
            piece = accent;
            ++next;
        }
        if (used + piece.size() > kSqlStatementMax) {
            break;
        }
        std::memcpy(out.data() + used, piece.data(), piece.size());
        used += piece.size();
    }
    out[used] = '\0';
}

// Direct return: runs the statement with the SIGQUIT handler installed and
// returns 1 or 0. After a jump back: gives back the session and returns
// kJumped. Only pointers and plain values cross into the jump region.
int run_guarded(const char* statement, const std::span<const std::size_t>& accents, char cExportFlg,
                std::string& cpMsg, DB_REC_LIS* pRL,
                const sigset_t* entry_mask) {
    if (sigsetjmp(gSigenv, giSaveSignal) != 0) {
        release_session();
        // Unlike the direct path the handler would stay installed here, and a
        // later SIGQUIT would jump into a frame that is gone. A further
        // SIGQUIT that came meanwhile still belongs to this call: ignoring
        // the signal drops it, before the default action is back.
        set_action(SIGQUIT, SIG_IGN, nullptr);
        set_action(SIGQUIT, SIG_DFL, nullptr);
        // A handler that the kernel entered left SIGQUIT blocked.
        sigprocmask(SIG_SETMASK, entry_mask, nullptr);
        return kJumped;
    }
    set_action(SIGQUIT, signal_psql_handler, nullptr);
    i_setenv_ravik("psql");
    const bool ok = iPSQL_DO_SQL(statement, cExportFlg, cpMsg, pRL, accents);
    // A SIGQUIT held back since the statement ran is delivered here.
    sigprocmask(SIG_SETMASK, entry_mask, nullptr);
    set_action(SIGQUIT, SIG_DFL, nullptr);
    return ok ? 1 : 0;
}

// Lower-cases the statement and repairs its quotes; `accents` receives the
// positions of the accents put in.
void clean_statement(std::string& statement, std::vector<std::size_t>& accents) {
    SQL_LOWERCASE(statement);
    if (!CLEANUP_QUOTA(statement, &accents)) {
        WRITE_TRACE(1, "WARNING: cpSqlCmd was changed to: %s", statement.c_str());
    }
}

// A statement that does not fit is refused: a cut one could run as a
// different statement. An accent may take two bytes on the way.
bool statement_fits(const std::string& statement, std::size_t accents, std::string& cpMsg) {
    if (statement.size() + accents <= kSqlStatementMax) {
        return true;
    }
    cpMsg = "DB_ACCESS: statement of " + std::to_string(statement.size()) + " bytes refused, at most " +
            std::to_string(kSqlStatementMax) + " bytes can be sent";
    std::fprintf(stderr, "%s\n", cpMsg.c_str());
    WRITE_TRACE(1, "--- DB_ACCESS returns 0  msg=%s", cpMsg.c_str());
    return false;
}

// Runs the cleaned statement through run_guarded with SIGINT, SIGTERM and
// SIGHUP at their default action (they end the program; the server rolls
// the statement back) and SIGQUIT blocked but for the waits for the server;
// restores their actions afterwards. run_guarded's answer.
int run_shielded(const char* statement, const std::vector<std::size_t>& accents, char cExportFlg,
                 std::string& cpMsg, DB_REC_LIS* pRL) {
    set_action(SIGINT, SIG_DFL, &old_SIGINT_action);
    set_action(SIGTERM, SIG_DFL, &old_SIGTERM_action);
    set_action(SIGHUP, SIG_DFL, &old_SIGHUP_action);
    sigset_t quit;
    sigset_t entry_mask;
    sigemptyset(&quit);
    sigaddset(&quit, SIGQUIT);
    sigprocmask(SIG_BLOCK, &quit, &entry_mask);
    let_through_while_waiting({SIGQUIT});

    const int result = run_guarded(statement, accents, cExportFlg, cpMsg, pRL, &entry_mask);

    sigaction(SIGINT, &old_SIGINT_action, nullptr);
    sigaction(SIGTERM, &old_SIGTERM_action, nullptr);
    sigaction(SIGHUP, &old_SIGHUP_action, nullptr);
    return result;
}

// The export text of a select: its rows as INSERT lines into the table it
// reads. `cpMsg` gets the table name, or the reason why there is none.
bool export_rows(PGresult* result, const char* statement, std::string& cpMsg, DB_REC_LIS* pRL) {
    std::string table = select_table(statement);
    if (table.ends_with(';')) {
        table.pop_back();
    }
    if (table.empty()) {
        cpMsg = "PSQL_DO_SQL: no table name (no \" from \") for the export text of: ";
        cpMsg += statement;
        return false;
    }
    if (table.size() > kTableNameMax) {
        // A cut name would send the rows into another table.
        cpMsg = "PSQL_DO_SQL: table name " + table + " longer than " + std::to_string(kTableNameMax) +
                " characters for the export text";
        return false;
    }
    cpMsg = table;
    return iPSQL_MAKE_EXPORT_FILE(result, cpMsg, pRL);
}

// Turns the server's answer to `statement` into `cpMsg` and the record list.
bool take_answer(PGresult* result, const char* statement, bool select, char cExportFlg,
                 std::string& cpMsg, DB_REC_LIS* pRL) {
    if (!select) {
        cpMsg = PQcmdTuples(result);
        return true;
    }
    switch (sql_form(statement, cExportFlg == 'y')) {
        case SqlForm::calculated:
            return iPSQL_GET_CALCULATED_VALUE(result, cpMsg);
        case SqlForm::export_text:
            return export_rows(result, statement, cpMsg, pRL);
        default:
            return iPSQL_MAKE_DB_REC_LIS(result, cpMsg, pRL);
    }
}

// E002 for the first record of a list, E004 for a further one.
void protocol_no_memory(bool first, const std::string& szId) {
    switch (eLang) {
        case LANG_DE:
            if (first) {
                PROT("E002-DATABAS DB_SEL_FIRST %s: kann keine Memory allokieren.", szId.c_str());
            } else {
                PROT("E004-DATABAS DB_SEL_ALLOC %s: kann keine Memory allokieren.", szId.c_str());
            }
            break;
        case LANG_BA:
            if (first) {
                PROT("E002-DATABAS DB_SEL_FIRST %s: ko koa Memory allokieren.", szId.c_str());
            } else {
                PROT("E004-DATABAS DB_SEL_ALLOC %s: ko koan Memory allokieren.", szId.c_str());
            }
            break;
        default:
            if (first) {
                PROT("E002-DATABAS DB_SEL_FIRST %s: cannot allocate memory.", szId.c_str());
            } else {
                PROT("E004-DATABAS DB_SEL_ALLOC %s: cannot allocate memory.", szId.c_str());
            }
            break;
    }
}

void protocol_empty_list(const std::string& szId) {
    switch (eLang) {
        case LANG_DE:
        case LANG_BA:  // no dialect text of its own
            PROT("E003-DATABAS DB_SEL_ALLOC %s: die Recordsliste ist leer, kann kein neues "
                 "Element allokieren",
                 szId.c_str());
            break;
        default:
            PROT("E003-DATABAS DB_SEL_ALLOC %s: the recordlist is empty, cannot allocate a new "
                 "element.",
                 szId.c_str());
            break;
    }
}

}  // namespace

bool iDB_SEL_FIRST(DB_REC_LIS* pRL, std::string_view cpData) {
    WRITE_TRACE(3, "+++ DB_SEL_FIRST  id=%s", pRL->szId.c_str());
    try {
        pRL->records.clear();
        pRL->records.push_back({1, std::string(cpData)});
    } catch (const std::bad_alloc&) {
        WRITE_TRACE(1, "DB_SEL_FIRST  cannot allocate memory");
        WRITE_TRACE(3, "--- DB_SEL_FIRST  cannot allocate memory");
        protocol_no_memory(true, pRL->szId);
        return false;
    }
    WRITE_TRACE(3, "--- DB_SEL_FIRST  first record > %s <",
                pRL->records.front().cpData.c_str());
    return true;
}

bool iDB_SEL_ALLOC(DB_REC_LIS* pRL, std::string_view cpData) {
    WRITE_TRACE(3, "+++ DB_SEL_ALLOC data:%.*s  id=%s", static_cast<int>(cpData.size()), cpData.data(),
                pRL->szId.c_str());
    if (pRL->records.empty()) {
        WRITE_TRACE(3, "--- DB_SEL_ALLOC the record-list is empty, cannot allocate a new element");
        protocol_empty_list(pRL->szId);
        return false;
    }
    try {
        // Numbered by the count before it: the second record carries 1 too.
        pRL->records.push_back({pRL->iRows(), std::string(cpData)});
    } catch (const std::bad_alloc&) {
        WRITE_TRACE(1, "DB_SEL_ALLOC  cannot allocate memory");
        WRITE_TRACE(3, "--- DB_SEL_ALLOC  cannot allocate memory");
        protocol_no_memory(false, pRL->szId);
        return false;
    }
    WRITE_TRACE(3, "--- DB_SEL_ALLOC new rec >%s<", pRL->records.back().cpData.c_str());
    return true;
}

void signal_psql_handler(int /*signo*/) {
    // write(2) rather than stdio: the signal may have come in the middle of
    // any stdio call. Nothing can be done about a short write here.
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, kSigquitText, sizeof kSigquitText - 1);
    siglongjmp(gSigenv, kSignalJumpValue);
}

bool iPSQL_DO_SQL(const char* cpSqlCmd, char cExportFlg, std::string& cpMsg, DB_REC_LIS* pRL, std::span<const std::size_t> accents) {
    // Inside the jump region up to doquery: nothing with a destructor here.
    WRITE_TRACE(2, "+++ PSQL_DO_SQL psql_lib id=%s  SQL=%s",
                pRL != nullptr ? pRL->szId.c_str() : "", cpSqlCmd);
    if (pRL != nullptr) {
        pRL->records.clear();
    }
    PGconn* const connection = connectdb(kConnectOptions);

    std::array<char, kSqlStatementMax + 1> statement;
    statement_for(connection, cpSqlCmd, accents, statement);
    const bool select = std::string_view(statement.data()).starts_with(kSelect);
    if (select) {
        WRITE_TRACE(3, "it's a SQL select");
    }
    WRITE_TRACE(2, "Librarycall:%s", statement.data());
    PGresult* const result = doquery(statement.data());

    // No jump can come from here on: SIGQUIT is held back and nothing halts.
    const bool ok = take_answer(result, statement.data(), select, cExportFlg, cpMsg, pRL);
    disconnectdb();
    WRITE_TRACE(2, "--- PSQL_DO_SQL  returns %d  msg=%s", ok ? 1 : 0, cpMsg.c_str());
    return ok;
}

bool iDB_ACCESS(std::string_view cpSqlCmd, std::string& cpMsg, DB_REC_LIS* pRL) {
    gBrokenOff.clear();
    if (cpSqlCmd.size() > 1 && (cpSqlCmd[0] == 'D' || cpSqlCmd[0] == 'M') && cpSqlCmd[1] == 'A') {
        return iDB_CONVERT_DATE_TIME(cpSqlCmd, cpMsg);
    }
    std::string copy;
    std::vector<std::size_t> accents;
    try {
        copy.assign(cpSqlCmd);
    } catch (const std::bad_alloc&) {
        cpMsg = "ERROR malloc() for local copy of cpSqlCmd failed";
        WRITE_TRACE(1, "%s", cpMsg.c_str());
        return false;
    }
    WRITE_TRACE(1, "+++ DB_ACCESS id=%s  SQL=%s", pRL != nullptr ? pRL->szId.c_str() : "NULL", copy.c_str());
    WRITE_TRACE(2, "%s", kVersionId);
    clean_statement(copy, accents);
    const char cExportFlg = cpMsg == "export" ? 'y' : 'n';
    if (!statement_fits(copy, accents.size(), cpMsg)) {
        return false;
    }
    if (cExportFlg == 'n') {
        cpMsg.clear();
    }
    i_setenv_ravik("pgsql");

    const int result = run_shielded(copy.c_str(), accents, cExportFlg, cpMsg, pRL);
    if (result == kJumped) {
        const char* reason = session_failure();
        gBrokenOff = *reason != '\0' ? reason : kSigquitReason;
        WRITE_TRACE(1, "--- DB_ACCESS broken off: %s", gBrokenOff.c_str());
        return false;
    }
    WRITE_TRACE(1, "--- DB_ACCESS returns %d  msg=%s", result, cpMsg.c_str());
    return result == 1;
}

const std::string& db_failure() {
    return gBrokenOff;
}

}  // namespace rv
