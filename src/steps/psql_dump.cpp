#include "steps/psql_dump.hpp"
#include "steps/answer_image.hpp"
#include "log/trace.hpp"
#include "steps/table_image.hpp"


#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "db/signals.hpp"
#include "sys/atomic_file.hpp"
#include "config/files.hpp"
#include "config/process.hpp"
#include "sys/strings.hpp"
#include "sys/file_io.hpp"
#include "sys/progress.hpp"

namespace rv {

namespace {

// Characters the shell would act on inside the client's double-quoted -c
// argument: a statement holding one is refused rather than changed.
constexpr std::string_view kShellActive = "\"$`\\";

// Why the client must not run `sql` ("" when it may), and else the
// directory of its statement and answer files in `tmpDir`.
std::string statement_refusal(const std::string& sql, std::string& tmpDir) {
    if (sql.find_first_of(kShellActive) != std::string::npos) {
        return "iPGSQL_DO_SQL: statement holds a character the shell would change (\" $ ` \\): " + sql;
    }
    tmpDir = product_dir("gv_rw_tmp");
    if (tmpDir.empty()) {
        return "iPGSQL_DO_SQL: directory gv_rw_tmp unknown (neither global variable nor rv.ini key)";
    }
    return {};
}

// Records the statement in `sqi`; false (traced) when the file cannot be
// opened; `why` then says so.
bool write_statement(const std::string& sqi, const std::string& sql, std::string& why) {
    FilePtr in(std::fopen(sqi.c_str(), "w"));
    if (!in) {
        why = "Can't open file " + sqi + " to write: " + std::strerror(errno);
        WRITE_TRACE(1, "--- PGSQL_DO_SQL  cannot open file %s to write", sqi.c_str());
        return false;
    }
    std::fprintf(in.get(), "%s\n", sql.c_str());
    if (std::fclose(in.release()) != 0) {
        i_FILE_CLOSE(errno);
    }
    return true;
}

// What kind of answer `sqo` holds: true with the rows footer or command tag
// that was found in `answer`; false with the client's error or the reason in
// `answer`.
bool classify_answer(const std::string& sqo, std::string& answer) {
    if (const std::optional<std::uint64_t> rows = footer_of(sqo)) {
        answer = *rows == 1 ? " row)" : " rows)";  // what the search below would find
        return true;                                // without reading the rows twice
    }
    answer = " rows)|OR| row)";
    if (file_search(sqo, answer)) {
        return true;
    }
    answer = "INSERT |OR|UPDATE ";
    if (file_search(sqo, answer)) {
        return true;
    }
    std::string error = "ERROR:^";
    answer = file_search(sqo, error)
                 ? error
                 : "didn't find expected strings in database answer; please examine file " + sqo;
    return false;
}

// Removes the image of `id`: no failed dump may leave one, not even an older
// one, for a later import to load.
void drop_image(std::string_view id) {
    if (const std::string image = table_image_path(id); !image.empty()) {
        std::remove(image.c_str());
    }
}

enum class RunResult { finished, interrupted, refused };

// The client's settings for a dump, in a file of the tool's own (named by
// PSQLRC), so that nothing of the operator's settings changes the answer and
// the client fetches the rows in portions instead of holding them all.
// Removed when the dump ends.
class ClientSettings {
  public:
    explicit ClientSettings(std::string path) : path_(std::move(path)) {
        AtomicFile file(path_);
        ok_ = file.ok() && std::fprintf(file.stream(), "\\set FETCH_COUNT %d\n", kDumpFetchRows) > 0 &&
              file.commit();
        why_ = file.why();
    }
    ~ClientSettings() { std::remove(path_.c_str()); }
    ClientSettings(const ClientSettings&) = delete;
    ClientSettings& operator=(const ClientSettings&) = delete;
    bool ok() const { return ok_; }
    const std::string& path() const { return path_; }
    const std::string& why() const { return why_; }

  private:
    std::string path_;
    bool ok_ = false;
    std::string why_;
};

// The server options of the dump's client: the operator's (PGOPTIONS), and
// distinct rows found by sorting rather than hashing, so that the image
// comes in the order of the table's columns (its key first, as a rule) and
// the import inserts in key order, which a table's key index takes about
// twice as fast as the hash order.
std::string dump_server_options() {
    const char* own = std::getenv("PGOPTIONS");
    return (own != nullptr && *own != '\0' ? std::string(own) + " " : std::string()) + "-c enable_hashagg=off";
}

// Runs the client command line `cmd` with the settings file `settings`
// instead of the operator's own; when `interruptible`, a quit signal breaks
// the wait off (the client, with everything it started, is stopped). While
// it runs, `image` takes what the client has written of its answer `sqo`,
// and on a terminal a progress line counts the rows of the answer for `id`.
RunResult run_client(std::string cmd, bool interruptible, const std::string& settings, const std::string& id,
                     const std::string& sqo, AnswerImage& image) {
    ProgressLine progress(STDERR_FILENO, "dump " + id + " (select)");
    LineFeedCount answer(sqo);
    ChildCommand command{cmd, {}, interruptible ? kSigquitText : nullptr, true,
                         {{"PSQLRC", settings}, {"PGOPTIONS", dump_server_options()}}};
    command.on_tick = [&progress, &answer, &image] {
        image.advance();  // the other core is free while the client waits for the server
        if (progress.live()) {
            const std::size_t lines = answer.update();  // the statement and the column names first
            progress.set_done(lines > 2 ? lines - 2 : 0);
        }
    };
    const ChildEnd end = run_reported(command, cmd);
    exit_code_of(end, cmd);  // no child at all ends the run, as for any command
    switch (end.how) {
        case ChildEnd::How::interrupted:
            return RunResult::interrupted;
        case ChildEnd::How::refused:
            return RunResult::refused;
        default:
            return RunResult::finished;
    }
}

bool do_sql(std::string_view cpId, std::string_view cpSqlCmd, std::string& cpMsg,
            bool interruptible, bool& interrupted) {
    const std::string id(cpId);
    const std::string sql(cpSqlCmd);
    WRITE_TRACE(1, "+++ PGSQL_DO_SQL   %s  %s ", id.c_str(), sql.c_str());
    // Whatever way the dump fails, no image of the table may be left for a
    // later import to load: not even an older one. Success writes it anew.
    drop_image(id);
    const auto fail = [&](const std::string& msg) {
        cpMsg = msg;
        WRITE_TRACE(1, "--- PGSQL_DO_SQL Return 0: %s  %s ", sql.c_str(), cpMsg.c_str());
        return false;
    };
    std::string tmpDir;
    if (const std::string refusal = statement_refusal(sql, tmpDir); !refusal.empty()) {
        return fail(refusal);
    }
    const std::string sqi = tmpDir + id + ".sqi";
    const std::string sqo = tmpDir + id + ".sqo";
    if (std::string why; !write_statement(sqi, sql, why)) {
        cpMsg = why;
        return false;
    }

    const std::string cmd = "psql -e -d ravik_db -P null=NULL -A -c \"" + sql + "\" 2>&1 > " + shell_quote(sqo);
    WRITE_TRACE(1, "Systemcall: %s ", cmd.c_str());
    // An answer left from an earlier run must not be taken for this one.
    std::remove(sqo.c_str());
    const ClientSettings settings(tmpDir + id + ".psqlrc");
    if (!settings.ok()) {
        return fail("iPGSQL_DO_SQL: cannot write the client's settings: " + settings.why());
    }
    AnswerImage image(id, sqo);
    switch (run_client(cmd, interruptible, settings.path(), id, sqo, image)) {
        case RunResult::interrupted:
            interrupted = true;
            cpMsg = "the statement was broken off by SIGQUIT";
            return false;
        case RunResult::refused:
            return fail("iPGSQL_DO_SQL: the environment for the database client could not be prepared");
        case RunResult::finished:
            break;
    }

    std::string answer;
    if (!classify_answer(sqo, answer)) {
        return fail(answer);
    }
    WRITE_TRACE(1, "answer from database: %s ", answer.c_str());
    cpMsg = answer;
    const bool ok = image.finish(cpMsg);
    if (ok) {
        std::remove(sqi.c_str());
        std::remove(sqo.c_str());
    }
    WRITE_TRACE(1, "--- PGSQL_DO_SQL   %s ", cpMsg.c_str());
    return ok;
}

}  // namespace

namespace {

volatile sig_atomic_t gQuitDuringDump = 0;

void note_quit(int /*signo*/) {
    erase_progress_line_in_handler();
    [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, kSigquitText, sizeof kSigquitText - 1);
    gQuitDuringDump = 1;
}

// A quit signal counts for the whole dump statement: the wait for the client
// breaks off at once (the runner's own handler), and a quit before or after
// it marks the statement as broken off when it has run.
class QuitDuringDump {
  public:
    QuitDuringDump() {
        gQuitDuringDump = 0;
        struct sigaction action {};
        action.sa_handler = note_quit;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGQUIT, &action, &before_);
    }
    ~QuitDuringDump() { sigaction(SIGQUIT, &before_, nullptr); }
    QuitDuringDump(const QuitDuringDump&) = delete;
    QuitDuringDump& operator=(const QuitDuringDump&) = delete;

    bool came() const { return gQuitDuringDump != 0; }

  private:
    struct sigaction before_ {};
};

}  // namespace

bool iSELECT_INTO_TEMP_FILE(std::string_view cpId, std::string_view cpSql, std::string& cpMsg) {
    WRITE_TRACE(1, "+++ iSELECT_INTO_TEMP_FILE  id:%.*s sql:%.*s", static_cast<int>(cpId.size()), cpId.data(),
                static_cast<int>(cpSql.size()), cpSql.data());
    const QuitDuringDump quit;
    bool interrupted = false;
    bool ok = do_sql(cpId, cpSql, cpMsg, true, interrupted);
    if (interrupted) {
        return false;
    }
    if (quit.came()) {
        drop_image(cpId);
        cpMsg = "the statement was broken off by SIGQUIT";
        return false;
    }
    WRITE_TRACE(1, "--- iSELECT_INTO_TEMP_FILE  returns %d  msg:%s", ok ? 1 : 0, cpMsg.c_str());
    return ok;
}

bool iPGSQL_MAKE_DB_GET_FILE(std::string_view cpId, const std::string& cpSqlOutFile, std::string& cpMsg) {
    AnswerImage image(std::string(cpId), cpSqlOutFile);
    return image.finish(cpMsg);
}

}  // namespace rv
