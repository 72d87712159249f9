#include "update/driver.hpp"

#include <algorithm>
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

enum class Keyword { change, cmd, dump, exportTable, exit, import, rmdir, sql, skip, section, keyNotFound };

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
    std::string database;
    std::string rest;
    const auto database_and_rest = [&] {
        const std::size_t next = get_string(expanded, database, argStart, ' ');
        get_string(expanded, rest, next, '\0');
    };
    switch (keyword) {
        case Keyword::change:
            get_string(expanded, rest, argStart, '\0');
            step_line("step=%d change table=%s\n", iStep, rest.c_str());
            db_change(rest, rerun);
            break;
        case Keyword::cmd:
            get_string(expanded, rest, argStart, '\0');
            step_line("step=%d cmd=%s\n", iStep, rest.c_str());
            iCmdExecute(rest);
            break;
        case Keyword::dump:
            database_and_rest();
            step_line("step=%d db=%s dump=%s\n", iStep, database.c_str(), rest.c_str());
            db_unload("dump", database, rest);
            break;
        case Keyword::exportTable:
            database_and_rest();
            step_line("step=%d db=%s export=%s\n", iStep, database.c_str(), rest.c_str());
            db_unload("export", database, rest);
            break;
        case Keyword::exit:
            WRITE_TRACE(1, "--- PARSER breaks bcs. of keyword 'exit'");
            return 0;
        case Keyword::import:
            database_and_rest();
            step_line("step=%d db=%s import=%s\n", iStep, database.c_str(), rest.c_str());
            db_load(database, rest, rerun);
            break;
        case Keyword::rmdir:
            get_string(expanded, rest, argStart, '\0');
            step_line("step=%d rmdir=%s\n", iStep, rest.c_str());
            iRmDir(rest);
            break;
        case Keyword::sql:
            database_and_rest();
            step_line("step=%d db=%s sql=%s\n", iStep, database.c_str(), rest.c_str());
            sql_step(database, rest);
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

}  // namespace

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

int parser(std::string_view cpString, int iStep) {
    const std::string line(cpString);
    WRITE_TRACE(1, "+++ PARSER %s  (%d)", line.c_str(), iStep);
    std::string keyword;
    std::size_t argStart = get_string(line, keyword, 0, ' ');
    std::string command = line;
    bool execute = true;

    if (keyword == "[") {
        std::string condition;
        const std::size_t behindBracket = get_string(line, condition, 2, ']');
        WRITE_TRACE(1, "check condition: [%s]", condition.c_str());
        if (line.find(" && ") == std::string::npos) {
            WRITE_TRACE(1, "WARNING: condition line in illegal format: %s", line.c_str());
            print_condition_format_help(line);
            // The condition text stands where the keyword belongs.
            command.clear();
            keyword = condition;
            argStart = 0;
        } else if (iCondition(condition)) {
            WRITE_TRACE(1, "condition is valid: %s", condition.c_str());
            get_string(line, command, behindBracket + 4, '\0');
            argStart = get_string(command, keyword, 0, ' ');
        } else {
            WRITE_TRACE(1, "condition is not valid: %s", condition.c_str());
            execute = false;
        }
    }

    if (execute) {
        const std::string expanded = expand_versions(command);
        // The expansion drops the tabs before the keyword: its arguments
        // start that much earlier.
        argStart -= std::min(argStart, command.find_first_not_of(" \t"));
        if (run_step(keyword_of(keyword), expanded, argStart, iStep) == 0) {
            return 0;
        }
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
    i_GetPrivateProfileString(rvdb_ini, section, "last_step_nr", step, msg);
    WRITE_TRACE(2, "got last_step_nr: %s, szMsg: %s", step.c_str(), msg.c_str());
    const int count = std::atoi(step.c_str());
    for (int i = 1; i <= count; ++i) {
        const std::string key = "step_" + std::to_string(i);
        WRITE_TRACE(1, "i_GetPrivateProfileString ( %s, %s, %s, szTmp )", rvdb_ini.c_str(),
                    section.c_str(), key.c_str());
        // A missing key leaves the buffer as it was: the previous step's
        // text runs again under the new number.
        i_GetPrivateProfileString(rvdb_ini, section, key, step, msg);
        if (parser(step, i) == 0) {
            break;
        }
    }
    WRITE_TRACE(1, "--- DbUpdate %s", name.c_str());
}

}  // namespace rv
