#include "steps/psql_dump.hpp"
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

std::optional<std::uint64_t> footer_of(const std::string& sqo);

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

// The client's row count footer: exactly "(N rows)" or "(1 row)". `count`
// is set only by a footer.
bool parse_footer(const std::string& line, long& count) {
    if (line.empty() || line.front() != '(') {
        return false;  // the scan would fail at the first character, at the cost of a scan
    }
    char tail[8] = {};
    int used = 0;
    long number = 0;
    if (std::sscanf(line.c_str(), "(%ld %6[rows])%n", &number, tail, &used) != 2 ||
        static_cast<std::size_t>(used) != line.size()) {
        return false;
    }
    if (std::string_view(tail) != "rows" && (std::string_view(tail) != "row" || number != 1)) {
        return false;
    }
    count = number;
    return true;
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
// the wait off (the client, with everything it started, is stopped). On a
// terminal, a progress line counts the rows of the answer `sqo` for `id` as
// they come.
RunResult run_client(std::string cmd, bool interruptible, const std::string& settings, const std::string& id,
                     const std::string& sqo) {
    ProgressLine progress(STDERR_FILENO, "dump " + id + " (select)");
    LineFeedCount answer(sqo);
    ChildCommand command{cmd, {}, interruptible ? kSigquitText : nullptr, true,
                         {{"PSQLRC", settings}, {"PGOPTIONS", dump_server_options()}}};
    if (progress.live()) {
        command.on_tick = [&progress, &answer] {
            const std::size_t lines = answer.update();  // the statement and the column names first
            progress.set_done(lines > 2 ? lines - 2 : 0);
        };
    }
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
    switch (run_client(cmd, interruptible, settings.path(), id, sqo)) {
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
    const bool ok = iPGSQL_MAKE_DB_GET_FILE(id, sqo, cpMsg);
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

namespace {

// A query answer on its way into a table image.
struct Answer {
    const std::string& id;
    ProgressLine& progress;               // counts the rows written
    std::vector<std::string> names;       // as the client printed them
    std::vector<std::string> lowerNames;  // as the image writes them
    long rows = 0;
    long footerCount = -1;  // -1 until a row count footer was read
};

// Reads the column names behind the echoed statement; false when the answer
// has none.
bool read_column_names(std::FILE* in, Answer& answer) {
    std::string line;
    read_line(in, line);  // the echoed statement
    if (!read_line(in, line)) {
        return false;
    }
    answer.names = split(line, '|', EmptyFields::keep);
    for (const auto& name : answer.names) {
        WRITE_TRACE(3, "column: %s ", name.c_str());
    }
    WRITE_TRACE(3, "read the values");
    answer.lowerNames = answer.names;
    for (auto& name : answer.lowerNames) {
        lowercase(name);
    }
    return true;
}

// Why the columns of `answer` do not fit an image; "" when they do. Asked
// once the answer is known to be a query result.
std::string column_refusal(const Answer& answer) {
    const std::string& id = answer.id;
    if (answer.names.size() > kDumpColumnsMax) {
        return "iPGSQL_MAKE_DB_GET_FILE: " + id + " has " + std::to_string(answer.names.size()) +
               " columns, a table image holds at most " + std::to_string(kDumpColumnsMax);
    }
    for (const auto& name : answer.names) {
        // The image's reader takes the name up to the first '='.
        if (name.empty() || name.find('=') != std::string::npos) {
            return "iPGSQL_MAKE_DB_GET_FILE: column name \"" + name + "\" of " + id +
                   " is empty or holds '=', a table image cannot carry it";
        }
        if (name.size() > kDumpColumnNameMax) {
            return "iPGSQL_MAKE_DB_GET_FILE: column name " + name + " of " + id + " has " +
                   std::to_string(name.size()) + " bytes, a table image allows at most " +
                   std::to_string(kDumpColumnNameMax);
        }
    }
    return {};
}

// The image line "|name=value|...|\n" of the answer's row `line` (values
// trimmed of blanks) into `record`, its storage reused; false when the row
// has not one field for each of `names`.
bool image_record(std::string_view line, const std::vector<std::string>& names, std::string& record) {
    record.assign("|");
    std::size_t field = 0;
    for (std::size_t at = 0; at <= line.size(); ++field) {
        const std::size_t bar = std::min(line.find('|', at), line.size());
        if (field == names.size()) {
            return false;
        }
        record.append(names[field]).append(1, '=').append(trimmed(line.substr(at, bar - at))).append(1, '|');
        at = bar + 1;
    }
    record += '\n';
    return field == names.size();
}

// Writes the rows up to the footer as image lines "|name=value|...|";
// returns why the answer cannot become an image, or "".
std::string copy_rows(std::FILE* in, std::FILE* out, Answer& answer) {
    std::string line;
    std::string record;
    while (read_line(in, line)) {
        if (parse_footer(line, answer.footerCount)) {
            break;
        }
        if (answer.rows == 0) {
            if (std::string refusal = column_refusal(answer); !refusal.empty()) {
                return refusal;
            }
        }
        WRITE_TRACE(3, "values: %s ", line.c_str());
        if (!image_record(line, answer.lowerNames, record)) {
            return "iPGSQL_MAKE_DB_GET_FILE: row " + std::to_string(answer.rows + 1) + " of " +
                   answer.id + " has " + std::to_string(std::count(line.begin(), line.end(), '|') + 1) +
                   " fields for " + std::to_string(answer.names.size()) +
                   " columns (a value holding '|' or a line break cannot be dumped): " + line;
        }
        std::fwrite(record.data(), 1, record.size(), out);
        ++answer.rows;
        answer.progress.advance();
    }
    return {};
}

// The row count footer that ends the answer `sqo`, or nullopt.
std::optional<std::uint64_t> footer_of(const std::string& sqo) {
    FilePtr in(std::fopen(sqo.c_str(), "r"));
    if (!in || std::fseek(in.get(), 0, SEEK_END) != 0) {
        return std::nullopt;
    }
    constexpr long kTail = 64;  // longer than any footer and its line feed
    const long size = std::ftell(in.get());
    std::fseek(in.get(), size > kTail ? size - kTail : 0, SEEK_SET);
    std::string line;
    std::string last;
    while (read_line(in.get(), line)) {
        last = line.empty() ? last : line;
    }
    long count = -1;
    if (!parse_footer(last, count) || count < 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(count);
}

// Why the rows read do not match the footer of `sqo` (or there is none);
// "" when they do.
std::string count_refusal(const Answer& answer, const std::string& sqo) {
    if (answer.footerCount < 0) {
        return answer.rows > 0
                   ? "iPGSQL_MAKE_DB_GET_FILE: " + answer.id + ": no row count at the end of " + sqo
                   : std::string();
    }
    if (answer.rows == 0) {
        if (std::string refusal = column_refusal(answer); !refusal.empty()) {
            return refusal;
        }
    }
    if (answer.footerCount != answer.rows) {
        return "iPGSQL_MAKE_DB_GET_FILE: " + answer.id + ": " + std::to_string(answer.rows) +
               " rows read, but the database reported " + std::to_string(answer.footerCount);
    }
    return {};
}

}  // namespace

bool iPGSQL_MAKE_DB_GET_FILE(std::string_view cpId, const std::string& cpSqlOutFile, std::string& cpMsg) {
    const std::string id(cpId);
    WRITE_TRACE(1, "+++ iPGSQL_MAKE_DB_GET_FILE");
    const std::string image = table_image_path(id);
    // Every failure leaves no image behind: neither a half-written one nor
    // an older one that a later import would load instead.
    const auto fail = [&](const std::string& msg) {
        cpMsg = msg;
        if (!image.empty()) {
            std::remove(image.c_str());
        }
        WRITE_TRACE(1, "--- PGSQL_MAKE_DB_GET_FILE returns -1: %s ", cpMsg.c_str());
        return false;
    };
    if (image.empty()) {
        return fail(std::string("iPGSQL_MAKE_DB_GET_FILE: ") + kWorkDirUnknown);
    }
    AtomicFile out(image);
    if (!out.ok()) {
        return fail("Can't open file " + out.temp() + " to write: " + std::strerror(errno));
    }
    FilePtr in = open_sequential(cpSqlOutFile);
    if (!in) {
        return fail("Can't open file " + cpSqlOutFile + " to read");
    }
    ProgressLine progress(STDERR_FILENO, "dump " + id + " (image)");
    if (progress.live()) {
        if (const auto footer = footer_of(cpSqlOutFile)) {
            progress.set_total(*footer);
        }
    }
    Answer answer{id, progress, {}, {}};
    if (!read_column_names(in.get(), answer)) {
        return fail("Can't find lines with column-names");
    }
    if (const std::string refusal = copy_rows(in.get(), out.stream(), answer); !refusal.empty()) {
        return fail(refusal);
    }
    if (const std::string refusal = count_refusal(answer, cpSqlOutFile); !refusal.empty()) {
        return fail(refusal);
    }
    in.reset();

    if (answer.rows == 0) {
        std::remove(image.c_str());
    } else if (!out.commit()) {
        const int err = errno;
        i_FILE_CLOSE(err);
        return fail("Can't write file " + image + ": " + out.why());
    }
    cpMsg = std::to_string(answer.rows);
    WRITE_TRACE(1, "--- PGSQL_MAKE_DB_GET_FILE   rows= %s ", cpMsg.c_str());
    return true;
}

}  // namespace rv
