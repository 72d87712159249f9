#include "update/driver.hpp"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "config/ini.hpp"
#include "config/product.hpp"
#include "db/exec_statement.hpp"
#include "log/finish.hpp"
#include "log/trace.hpp"
#include "steps/change.hpp"
#include "steps/command.hpp"
#include "steps/failures.hpp"
#include "steps/unload.hpp"
#include "sys/runner.hpp"
#include "sys/strings.hpp"
#include "update/condition.hpp"
#include "update/journal.hpp"
#include "update/summary.hpp"

namespace rv {

namespace {

// Current nesting of iDbUpdate calls.
int iSectionDepth = 0;

// Numbers of the steps whose sections run now, and the sections, outermost
// first.
std::vector<int> gStepPath;
std::vector<std::string> gSections;

void replace_first(std::string& word, std::string_view name, const std::string& value) {
    if (const auto at = word.find(name); at != std::string::npos) {
        word.replace(at, name.size(), value);
    }
}

// Prints a step's console line before its handler runs (and perhaps starts
// a child that writes to the same console).
__attribute__((format(printf, 1, 2))) void step_line(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fflush(stdout);
}

// Runs the statement of an sql step; a failure goes into the summary.
void sql_step(const std::string& database, const std::string& statement) {
    if (std::string why; !iExecDbStatement(database, statement, &why)) {
        step_failed("sql " + statement + ": " + why);
    }
}

// Runs the step `expanded` for `keyword`; arguments start at `argStart`.
// Returns 0 when the section is to end.
int dispatch(Keyword keyword, const std::string& expanded, std::size_t argStart, int iStep, bool rerun) {
    const StepArgs args = step_args(keyword, expanded, argStart);
    if (const std::string line = step_console_line(keyword, args, iStep); !line.empty()) {
        step_line("%s\n", line.c_str());
    }
    switch (keyword) {
        case Keyword::change:
            db_change(args.rest, rerun);
            break;
        case Keyword::cmd:
            iCmdExecute(args.rest);
            break;
        case Keyword::dump:
            db_unload("dump", args.database, args.rest);
            break;
        case Keyword::exportTable:
            db_unload("export", args.database, args.rest);
            break;
        case Keyword::exit:
            WRITE_TRACE(1, "--- PARSER breaks bcs. of keyword 'exit'");
            return 0;
        case Keyword::import:
            db_load(args.database, args.rest, rerun);
            break;
        case Keyword::rmdir:
            iRmDir(args.rest);
            break;
        case Keyword::sql:
            sql_step(args.database, args.rest);
            break;
        case Keyword::skip:
            break;
        case Keyword::section:
            // The whole step text names the section, keyword included.
            WRITE_TRACE(2, "call iDbUpdate [%s]", expanded.c_str());
            iDbUpdate(expanded);
            break;
        case Keyword::keyNotFound:
            WRITE_TRACE(1, "--- PARSER breaks bcs. of keyword 'KEY_NOT_FOUND'");
            return 0;
    }
    return 1;
}

// The journal's name of step `iStep` of the section running now.
std::string step_path(int iStep) {
    std::string path;
    for (const int outer : gStepPath) {
        path += std::to_string(outer) + ".";
    }
    return path + std::to_string(iStep);
}

// Runs a step unless the run was told to stop; a step that must end the run
// is named in the status line. Steps that do something are recorded in the
// run journal; one that a resumed run ended already is not run again.
// Returns 0 when the section is to end.
int run_step(Keyword keyword, const std::string& expanded, std::size_t argStart, int iStep) {
    const std::string step = "step " + std::to_string(iStep) + " (" + expanded + ")";
    if (const int signo = stop_signal(); signo != 0) {
        FINISH(RV_ERROR, "stopped by " + signal_name(signo) + " before " + step + "; later steps not run");
    }
    const bool recorded = keyword != Keyword::skip && keyword != Keyword::exit && keyword != Keyword::keyNotFound;
    const std::string path = step_path(iStep);
    if (recorded && !journal_step_begins(path, expanded)) {
        step_line("step=%d ended before the interruption, not run again\n", iStep);
        return 1;
    }
    gStepPath.push_back(iStep);
    struct Inner {
        ~Inner() { gStepPath.pop_back(); }
    } inner;
    int result = 0;
    try {
        result = dispatch(keyword, expanded, argStart, iStep, recorded && journal_is_rerun(path));
    } catch (const StepFailure& failure) {
        FINISH(RV_ERROR, step + " failed: " + failure.what() + "; later steps not run");
    }
    note_step_failures(gSections.empty() ? "" : gSections.back(), iStep, path);
    if (recorded) {
        journal_step_ends(path);
    }
    return result;
}

// The update's own handling of the steps: a step whose condition holds runs.
class RunningSteps : public StepHandler {
  public:
    void section(const std::string&, int, const std::string&, bool, int) override {}
    int step(const StepCall& call) override {
        if (!call.runs()) {
            return 1;
        }
        if (call.verdict == StepCall::Verdict::malformed) {
            print_condition_format_help(call.line);
        }
        return run_step(call.keyword, call.expanded, call.argStart, call.number);
    }
};

RunningSteps gRunningSteps;
StepHandler* gStepHandler = &gRunningSteps;

}  // namespace

void set_step_handler(StepHandler* handler) { gStepHandler = handler != nullptr ? handler : &gRunningSteps; }

Keyword keyword_of(std::string_view word) {
    static constexpr std::pair<std::string_view, Keyword> kTable[] = {
        {"change", Keyword::change}, {"cmd", Keyword::cmd},       {"dump", Keyword::dump},
        {"export", Keyword::exportTable}, {"exit", Keyword::exit}, {"import", Keyword::import},
        {"rmdir", Keyword::rmdir},   {"sql", Keyword::sql},       {"skip", Keyword::skip},
        {"update", Keyword::section}, {"KEY_NOT_FOUND", Keyword::keyNotFound},
    };
    for (const auto& [name, keyword] : kTable) {
        if (word == name) {
            return keyword;
        }
    }
    return Keyword::section;
}

StepText split_step(std::string_view line) {
    StepText text;
    text.argStart = get_string(line, text.keyword, 0, ' ');
    text.command = std::string(line);
    if (text.keyword != "[") {
        return text;
    }
    text.conditional = true;
    text.behind = get_string(line, text.condition, 2, ']');
    if (line.find(" && ") == std::string_view::npos) {
        // The condition text stands where the keyword belongs.
        text.malformed = true;
        text.command.clear();
        text.keyword = text.condition;
        text.argStart = 0;
    } else {
        get_string(line, text.command, text.behind + 4, '\0');
        text.argStart = get_string(text.command, text.keyword, 0, ' ');
    }
    return text;
}

StepArgs step_args(Keyword keyword, const std::string& expanded, std::size_t argStart) {
    StepArgs args;
    switch (keyword) {
        case Keyword::dump:
        case Keyword::exportTable:
        case Keyword::import:
        case Keyword::sql:
            get_string(expanded, args.rest, get_string(expanded, args.database, argStart, ' '), '\0');
            break;
        case Keyword::change:
        case Keyword::cmd:
        case Keyword::rmdir:
            get_string(expanded, args.rest, argStart, '\0');
            break;
        default:
            break;
    }
    return args;
}

std::vector<std::string> table_list(const std::string& list) {
    std::vector<std::string> tables;
    for (std::string& table : split(list, ',', EmptyFields::keep)) {
        if (table.empty()) {
            break;
        }
        tables.push_back(std::move(table));
    }
    return tables;
}

std::string step_console_line(Keyword keyword, const StepArgs& args, int iStep) {
    const std::string step = "step=" + std::to_string(iStep);
    const std::string db = step + " db=" + args.database;
    switch (keyword) {
        case Keyword::change:
            return step + " change table=" + args.rest;
        case Keyword::cmd:
            return step + " cmd=" + args.rest;
        case Keyword::dump:
            return db + " dump=" + args.rest;
        case Keyword::exportTable:
            return db + " export=" + args.rest;
        case Keyword::import:
            return db + " import=" + args.rest;
        case Keyword::rmdir:
            return step + " rmdir=" + args.rest;
        case Keyword::sql:
            return db + " sql=" + args.rest;
        default:
            return {};
    }
}

std::string expand_versions(std::string_view text) {
    // Split at every single blank: runs of blanks give empty words, so the
    // spacing survives the join.
    std::string expanded;
    bool first = true;
    for (std::string& word : split(text, ' ', EmptyFields::keep)) {
        WRITE_TRACE(3, "got token: %s", word.c_str());
        if (word.find("$old_version") != std::string::npos) {
            replace_first(word, "$old_version", pathes.version_old);
        } else {
            replace_first(word, "$new_version", pathes.version);
        }
        if (!first) {
            expanded += ' ';
        }
        first = false;
        expanded += word;
    }
    return str_trim(expanded);
}

int parser(std::string_view cpString, int iStep, bool repeated) {
    StepCall call;
    call.number = iStep;
    call.depth = iSectionDepth;
    call.line = std::string(cpString);
    call.repeated = repeated;
    WRITE_TRACE(1, "+++ PARSER %s  (%d)", call.line.c_str(), iStep);
    const StepText text = split_step(call.line);
    if (text.conditional) {
        WRITE_TRACE(1, "check condition: [%s]", text.condition.c_str());
        call.condition = text.condition;
        if (text.malformed) {
            WRITE_TRACE(1, "WARNING: condition line in illegal format: %s", call.line.c_str());
            call.verdict = StepCall::Verdict::malformed;
        } else if (iCondition(call.condition)) {
            WRITE_TRACE(1, "condition is valid: %s", call.condition.c_str());
            call.verdict = StepCall::Verdict::holds;
        } else {
            WRITE_TRACE(1, "condition is not valid: %s", call.condition.c_str());
            call.verdict = StepCall::Verdict::fails;
        }
    }
    if (call.runs()) {
        call.keyword = keyword_of(text.keyword);
        call.expanded = expand_versions(text.command);
        // The expansion drops the tabs before the keyword: its arguments
        // start that much earlier.
        call.argStart = text.argStart - std::min(text.argStart, text.command.find_first_not_of(" \t"));
    }
    if (gStepHandler->step(call) == 0) {
        return 0;
    }
    WRITE_TRACE(1, "--- PARSER");
    return 1;
}

void iDbUpdate(std::string_view cpVersion) {
    const std::string name(cpVersion);
    if (iSectionDepth >= kMaxSectionDepth) {
        FINISH(RV_ERROR, "iDbUpdate: sections nested deeper than " + std::to_string(kMaxSectionDepth) +
                             ", section [" + name + "] not run (does a section call itself?)");
    }
    // The depth goes back however the section is left.
    struct Nested {
        explicit Nested(const std::string& section) {
            ++iSectionDepth;
            gSections.push_back(section);
        }
        ~Nested() {
            --iSectionDepth;
            gSections.pop_back();
        }
    } nested(name);
    WRITE_TRACE(1, "+++ DbUpdate [%s]", name.c_str());
    const std::string section = "[" + name + "]";
    std::string step;
    std::string msg;
    const bool found = i_GetPrivateProfileString(rvdb_ini, section, "last_step_nr", step, msg);
    WRITE_TRACE(2, "got last_step_nr: %s, szMsg: %s", step.c_str(), msg.c_str());
    const std::optional<int> limited = step_count_of(step);
    if (!limited) {
        FINISH(RV_ERROR, "iDbUpdate: section [" + name + "] has last_step_nr=" + step + ", more than " +
                             std::to_string(kMaxStepCount) + " steps; none of them runs");
    }
    const int count = *limited;
    gStepHandler->section(name, iSectionDepth, step, found, count);
    for (int i = 1; i <= count; ++i) {
        const std::string key = "step_" + std::to_string(i);
        WRITE_TRACE(1, "i_GetPrivateProfileString ( %s, %s, %s, szTmp )", rvdb_ini.c_str(),
                    section.c_str(), key.c_str());
        // A missing key leaves the buffer as it was: the previous step's
        // text runs again under the new number.
        const std::string before = step;
        const bool stepFound = i_GetPrivateProfileString(rvdb_ini, section, key, step, msg);
        if (parser(step, i, !stepFound && step == before) == 0) {
            break;
        }
    }
    WRITE_TRACE(1, "--- DbUpdate %s", name.c_str());
}

std::optional<int> step_count_of(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0) {
        ++at;
    }
    const bool negative = at < text.size() && text[at] == '-';
    at += at < text.size() && (text[at] == '-' || text[at] == '+') ? 1 : 0;
    long long count = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        count = std::min<long long>(count * 10 + (text[at] - '0'), kMaxStepCount + 1LL);
    }
    if (negative) {
        return 0;
    }
    if (count > kMaxStepCount) {
        return std::nullopt;
    }
    return static_cast<int>(count);
}

std::string main_version(std::string_view version) {
    const auto dot = version.rfind('.');
    if (dot == std::string_view::npos) {
        return std::string(version);
    }
    return std::string(version.substr(0, dot + 1));
}

}  // namespace rv
