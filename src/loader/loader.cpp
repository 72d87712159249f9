// run_loader: the script read unit by unit, each unit run on the connection
// of the moment, and the exit status. Reading lives in script.cpp, talking
// to the server in session.cpp and pipeline.cpp.
#include "loader/loader.hpp"

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "loader/insert_shapes.hpp"
#include "loader/outcome.hpp"
#include "loader/pipeline.hpp"
#include "loader/script.hpp"
#include "loader/session.hpp"

namespace rv {

namespace {

// Commits wait for the disk only at the end of a batch this long after the
// last one that did; the commits in between do not, so what a crash can take
// is never acknowledged, and the wait costs little however small the batches.
constexpr std::chrono::milliseconds kAcknowledgeEvery{200};

class Loader {
  public:
    // Runs the open `script` with `options`; Error lines go to `out`.
    Loader(const LoaderOptions& options, std::FILE* out, FilePtr script)
        : options_(options),
          shapes_(std::max<std::size_t>(1, options.group)),
          units_(std::move(script), std::max<std::size_t>(1, options.batch), shapes_),
          outcome_(out, options.echo_statement),
          pipeline_(session_, shapes_, outcome_, std::max<std::size_t>(1, options.batch)) {}

    // Runs the whole script; throws Stop when it cannot go on.
    void run();

    const Outcome& outcome() const { return outcome_; }

  private:
    // Runs `unit` and returns the unit after it.
    Unit run_unit(Unit unit);

    // Switches to `database` (made durable first); throws Stop on failure.
    void connect(const std::string& database);

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
    // changes, settings and several statements on one line all work.
    void run_alone(const Statement& statement);

    const LoaderOptions& options_;
    InsertShapes shapes_;
    UnitReader units_;
    Outcome outcome_;
    Session session_;
    Pipeline pipeline_;
    std::chrono::steady_clock::time_point acknowledged_at_;  // when a batch was made durable
};

void Loader::run() {
    Unit unit = units_.next();
    while (unit.kind != Unit::Kind::End) {
        unit = run_unit(std::move(unit));
    }
    ensure_connection();  // an empty script still proves the connection
    make_durable();
    if (units_.error() != 0) {
        throw Stop("cannot read " + options_.file + ": " + std::strerror(units_.error()));
    }
}

Unit Loader::run_unit(Unit unit) {
    switch (unit.kind) {
        case Unit::Kind::Connect:
            connect(unit.database);
            break;
        case Unit::Kind::Alone:
            ensure_connection();
            run_alone(unit.statements.front());
            break;
        case Unit::Kind::Batch: {
            ensure_connection();
            const auto now = std::chrono::steady_clock::now();
            const bool durable = now - acknowledged_at_ >= kAcknowledgeEvery;
            pipeline_.start(unit.statements, durable);
            Unit next = units_.next();  // read on while the server works
            pipeline_.finish(unit.statements);
            if (durable) {
                make_durable();  // rarely left to do: see make_durable
                acknowledged_at_ = now;
            }
            return next;
        }
        case Unit::Kind::End:
            return unit;
    }
    return units_.next();
}

void Loader::connect(const std::string& database) {
    if (session_.is_open() && database == session_.database()) {
        return;
    }
    make_durable();
    session_.close();
    session_.open(database);
    shapes_.forget();
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
    outcome_.acknowledge();
}

void Loader::run_alone(const Statement& statement) {
    if (statement.text.find('\0') != std::string::npos) {
        outcome_.report(statement, "the statement holds a NUL byte and was not sent");
        return;
    }
    const std::optional<std::string> error = session_.run_simple(statement.text);
    shapes_.forget();
    if (error) {
        outcome_.report(statement, *error);
    } else {
        outcome_.add_succeeded(1);
    }
}

}  // namespace

int run_loader(const LoaderOptions& options, std::FILE* out, std::FILE* err) {
    FilePtr script(std::fopen(options.file.c_str(), "r"));
    if (!script) {
        const int cause = errno;
        std::fprintf(err, "oaisql: cannot read %s: %s\n", options.file.c_str(),
                     std::strerror(cause));
        print_summary(out, 0, 0, true);
        return kLoaderStopped;
    }
    Loader loader(options, out, std::move(script));
    try {
        loader.run();
    } catch (const Stop& stop) {
        std::fflush(out);
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
