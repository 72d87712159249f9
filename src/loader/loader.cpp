// run_loader: the script read unit by unit, each unit run on the connection
// of the moment, and the exit status. Reading lives in script.cpp, talking
// to the server in session.cpp and pipeline.cpp.
#include "loader/loader.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "loader/copy_path.hpp"
#include "loader/insert_shapes.hpp"
#include "loader/outcome.hpp"
#include "loader/pipeline.hpp"
#include "loader/position.hpp"
#include "loader/script.hpp"
#include "loader/session.hpp"
#include "sys/progress.hpp"

namespace rv {

namespace {

// The statements of the script of `options` when a progress line on `err`
// is to show them, else nullopt.
std::optional<ScriptCount> count_for_progress(const LoaderOptions& options, std::FILE* err) {
    if (options.quiet || ::isatty(::fileno(err)) != 1) {
        return std::nullopt;
    }
    return count_statements(options.file);
}

// Commits wait for the disk only at the end of a batch this long after the
// last one that did; the commits in between do not, so what a crash can take
// is never acknowledged, and the wait costs little however small the batches.
constexpr std::chrono::milliseconds kAcknowledgeEvery{200};

class Loader {
  public:
    // Runs the open `script` with `options`; Error lines go to `out`, notes
    // to `err`. `resume`: the interrupted run recorded in options.position
    // to continue, none to start anew.
    Loader(const LoaderOptions& options, std::FILE* out, std::FILE* err, FilePtr script,
           std::optional<LoadPosition> resume)
        : options_(options),
          err_(err),
          position_(options.position.empty() ? nullptr
                                             : std::make_unique<PositionFile>(options.position)),
          shapes_(std::max<std::size_t>(1, options.group)),
          units_(std::move(script), std::max<std::size_t>(1, options.batch), shapes_),
          outcome_(out, options.echo_statement, position_.get()),
          pipeline_(session_, shapes_, outcome_, position_.get(),
                    std::max<std::size_t>(1, options.batch)),
          copy_(session_, shapes_, outcome_, position_.get(), [this] { return units_.read_ahead(); }),
          resume_(std::move(resume)),
          count_(count_for_progress(options, err)),
          progress_(options.quiet ? -1 : ::fileno(err), options.file,
                    count_ ? std::optional<std::uint64_t>(count_->statements) : std::nullopt) {}

    // Runs the whole script; throws Stop when it cannot go on.
    void run();

    const Outcome& outcome() const { return outcome_; }

  private:
    // Runs `unit` and returns the unit after it.
    Unit run_unit(Unit unit);

    // Runs the statements of the batch `unit` that the interrupted run did
    // not take; returns the unit after it.
    Unit run_batch(Unit unit);

    // Loads and commits the open COPY run, if any (`durable`: waiting for
    // the disk); the script is done up to its last line then.
    void end_copy_run(bool durable);

    // The end of the part of `batch` from `lo` that goes one way: a run
    // for COPY (`copy` set) or statements up to where such a run begins.
    std::size_t part_end(const std::vector<Statement>& batch, std::size_t lo, bool& copy);

    // Switches to `database` (made durable first); throws Stop on failure.
    void connect(const std::string& database);

    // Continuing an interrupted run, on its first connection: asks the
    // server how far it got, makes that durable, says again the Error lines
    // it may not have said, and starts the position file from there.
    void settle();

    // Connects to the default database unless a connection is open.
    void ensure_connection();

    // Acknowledges everything run so far. The last segment of a durable
    // batch waits for the disk, which makes the commits before it durable
    // as well; where none did since the last acknowledgement (statements
    // run alone, a batch whose last statement failed), one transaction that
    // waits for the disk does so. Throws Stop.
    void make_durable();

    // A statement that is not a plain INSERT, UPDATE or DELETE runs by
    // itself through the simple protocol, as its own transaction: schema
    // changes, settings and several statements on one line all work. With
    // a position file it is recorded as pending before, and made durable
    // after.
    void run_alone(const Statement& statement);

    const LoaderOptions& options_;
    std::FILE* err_;
    std::unique_ptr<PositionFile> position_;  // none without -p
    InsertShapes shapes_;
    UnitReader units_;
    Outcome outcome_;
    Session session_;
    Pipeline pipeline_;
    CopyPath copy_;
    std::optional<LoadPosition> resume_;  // until the first connection settles it
    std::size_t skip_through_ = 0;        // statements up to this line ran before
    std::size_t done_line_ = 0;           // the script is done up to this line
    std::chrono::steady_clock::time_point acknowledged_at_;  // when a batch was made durable
    std::optional<ScriptCount> count_;  // with a progress line only
    ProgressLine progress_;             // the statements done
};

void Loader::run() {
    if (position_ && !resume_) {
        position_->start(0);
    }
    Unit unit = units_.next();
    while (unit.kind != Unit::Kind::End) {
        unit = run_unit(std::move(unit));
    }
    end_copy_run(false);
    ensure_connection();  // an empty script still proves the connection
    make_durable();
    if (units_.error() != 0) {
        throw Stop("cannot read " + options_.file + ": " + std::strerror(units_.error()));
    }
    if (position_) {
        position_->end(units_.lines());
    }
}

Unit Loader::run_unit(Unit unit) {
    if (unit.kind != Unit::Kind::Batch) {
        end_copy_run(false);
    }
    switch (unit.kind) {
        case Unit::Kind::Connect:
            connect(unit.database);
            break;
        case Unit::Kind::Alone:
            ensure_connection();
            run_alone(unit.statements.front());
            break;
        case Unit::Kind::Batch:
            return run_batch(std::move(unit));
        case Unit::Kind::End:
            return unit;
    }
    return units_.next();
}

Unit Loader::run_batch(Unit unit) {
    ensure_connection();
    std::vector<Statement>& batch = unit.statements;
    if (batch.front().line <= skip_through_) {
        batch.erase(batch.begin(),
                    std::find_if(batch.begin(), batch.end(),
                                 [this](const Statement& s) { return s.line > skip_through_; }));
        if (batch.empty()) {
            return units_.next();
        }
    }
    const auto now = std::chrono::steady_clock::now();
    const bool durable = now - acknowledged_at_ >= kAcknowledgeEvery;
    const std::size_t last_line = batch.back().line;
    std::optional<Unit> next;
    for (std::size_t lo = 0; lo < batch.size();) {
        if (copy_.open() && !copy_.continues(batch[lo])) {
            end_copy_run(false);
        }
        bool copy = false;
        const std::size_t hi = part_end(batch, lo, copy);
        if (copy) {
            copy_.add(batch, lo, hi);
        } else {
            end_copy_run(false);
            pipeline_.start(batch, lo, hi, durable && hi == batch.size());
            if (hi == batch.size()) {
                next = units_.next();  // read on while the server works
            }
            pipeline_.finish(batch, lo, hi);
        }
        lo = hi;
    }
    progress_.advance(batch.size());
    if (!next) {
        next = units_.next();  // read on while the server loads the run
    }
    if (copy_.full() || durable) {
        end_copy_run(durable);
    }
    done_line_ = copy_.open() ? copy_.first_line() - 1 : last_line;
    if (durable) {
        make_durable();  // rarely left to do: see make_durable
        acknowledged_at_ = now;
    }
    return std::move(*next);
}

void Loader::end_copy_run(bool durable) {
    if (copy_.open()) {
        done_line_ = copy_.finish(durable);
    }
}

std::size_t Loader::part_end(const std::vector<Statement>& batch, std::size_t lo, bool& copy) {
    if (options_.statements_only) {
        return batch.size();
    }
    if (copy_.open()) {
        // batch[lo] continues the run (the caller ends it otherwise), however
        // few rows follow it; no table is asked about while a run is open.
        if (const std::size_t end = copy_.run_end(batch, lo); end > lo) {
            copy = true;
            return end;
        }
        end_copy_run(false);
    }
    std::size_t i = lo;
    while (i < batch.size()) {
        const std::size_t end = copy_.run_end(batch, i);
        if (end - i >= kCopyMinRows) {
            copy = i == lo;
            return copy ? end : i;
        }
        i = std::max(i + 1, end);
    }
    return i;
}

void Loader::connect(const std::string& database) {
    if (session_.is_open() && database == session_.database()) {
        return;
    }
    make_durable();
    session_.close();
    session_.open(database);
    shapes_.forget();
    if (resume_) {
        settle();
    }
}

void Loader::settle() {
    const std::size_t line = committed_line(session_, *resume_);
    session_.make_durable();  // what the interrupted run committed may not be on disk yet
    std::vector<std::pair<std::size_t, std::string>> unsaid;
    for (auto& [at, text] : resume_->errors) {
        if (at <= line) {
            outcome_.report_again(text);
            unsaid.emplace_back(at, std::move(text));
        }
    }
    position_->start(line, std::move(unsaid));
    skip_through_ = done_line_ = line;
    resume_.reset();
    progress_.clear();
    std::fprintf(err_, "oaisql: continuing %s after line %zu\n", options_.file.c_str(), line);
    progress_.set_done(count_ ? count_->statements_through(line) : 0);
    progress_.rebase();
}

void Loader::ensure_connection() {
    if (!session_.is_open()) {
        connect(kLoaderDefaultDatabase);
    }
}

void Loader::make_durable() {
    if (session_.is_open() && outcome_.awaits_disk()) {
        session_.make_durable();
    }
    outcome_.acknowledge(done_line_);
}

void Loader::run_alone(const Statement& statement) {
    if (statement.line <= skip_through_) {
        return;
    }
    if (position_) {
        position_->pending(statement.line);
    }
    if (statement.unterminated) {
        outcome_.report(statement, "the script ends inside a quoted literal of this statement");
    } else if (statement.text.find('\0') != std::string::npos) {
        outcome_.report(statement, "the statement holds a NUL byte and was not sent");
    } else if (const std::optional<std::string> error = session_.run_simple(statement.text)) {
        outcome_.report(statement, *error);
    } else {
        outcome_.add_succeeded(1);
    }
    shapes_.forget();
    progress_.advance();
    done_line_ = statement.line;
    if (position_) {
        make_durable();
    }
}

// The interrupted run that options.position records into `resume`, with
// -r; returns the exit status when there is nothing to run, -1 to go on.
int read_resume(const LoaderOptions& options, std::FILE* out, std::FILE* err,
                std::optional<LoadPosition>& resume) {
    if (!options.resume) {
        return -1;
    }
    std::string why;
    resume = read_load_position(options.position, &why);
    if (!why.empty()) {
        std::fprintf(err, "oaisql: %s\n", why.c_str());
        print_summary(out, 0, 0, true);
        return kLoaderStopped;
    }
    if (!resume) {
        std::fprintf(err, "oaisql: no position file %s: loading %s from its first line\n",
                     options.position.c_str(), options.file.c_str());
    } else if (resume->ended) {
        print_summary(out, 0, 0, false);
        return kLoaderAllDone;
    }
    return -1;
}

}  // namespace

int run_loader(const LoaderOptions& options, std::FILE* out, std::FILE* err) {
    FilePtr script = open_sequential(options.file);
    if (!script) {
        const int cause = errno;
        std::fprintf(err, "oaisql: cannot read %s: %s\n", options.file.c_str(),
                     std::strerror(cause));
        try {
            if (!options.position.empty() && !options.resume) {
                PositionFile(options.position).start(0);  // a run begun: none to continue
            }
        } catch (const Stop& stop) {
            std::fprintf(err, "oaisql: %s\n", stop.what());
        }
        print_summary(out, 0, 0, true);
        return kLoaderStopped;
    }
    std::optional<LoadPosition> resume;
    if (const int status = read_resume(options, out, err, resume); status >= 0) {
        return status;
    }
    Loader loader(options, out, err, std::move(script), std::move(resume));
    try {
        loader.run();
    } catch (const Stop& stop) {
        std::fflush(out);
        clear_progress_line();
        std::fprintf(err, "oaisql: %s\n", stop.what());
        std::fflush(err);
        print_summary(out, loader.outcome().succeeded(), loader.outcome().failed(), true);
        return kLoaderStopped;
    }
    const Outcome& outcome = loader.outcome();
    print_summary(out, outcome.succeeded(), outcome.failed(), false);
    return outcome.failed() == 0 ? kLoaderAllDone : kLoaderSomeFailed;
}

}  // namespace rv
