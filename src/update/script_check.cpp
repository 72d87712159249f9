#include "update/script_check.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <tuple>

#include "config/ini_listing.hpp"
#include "db/access.hpp"
#include "log/finish.hpp"
#include "steps/change.hpp"
#include "steps/command.hpp"
#include "sys/file_io.hpp"
#include "sys/runner.hpp"
#include "sys/strings.hpp"
#include "update/condition.hpp"
#include "update/driver.hpp"

namespace rv {

namespace {

bool starts_nocase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

std::string bracketed(std::string_view name) {
    return "[" + std::string(name) + "]";
}

// The number of a step key ("step_12" -> 12); 0 for any other key.
int step_key_number(std::string_view key) {
    if (!starts_nocase(key, "step_") || key.size() == 5 ||
        key.find_first_not_of("0123456789", 5) != std::string_view::npos) {
        return 0;
    }
    return std::atoi(key.data() + 5);
}

// Whether `text` is a number as written, blanks and a carriage return aside.
bool is_number(std::string text) {
    while (!text.empty() && text.back() == '\r') {
        text.pop_back();
    }
    str_trim(text);
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string plural(std::size_t n, const char* one, const char* more) {
    return std::to_string(n) + " " + (n == 1 ? one : more);
}

class Checker {
  public:
    explicit Checker(const IniListing& script) : script_(script) {}
    std::vector<ScriptFinding> run();

  private:
    // One walk through the steps of a section.
    struct Walk {
        const IniSectionLines* section;
        std::string version;  // the main version a change step reads its section with
        // The tables an earlier step of the section dumped, exported or changed.
        std::set<std::string> images;
    };

    void add(int line, bool error, std::string text);
    void walk(const IniSectionLines& section, const std::string& version);
    int step_count(const IniSectionLines& section);
    void walk_steps(Walk& walk, int count);
    void report_missing(const IniKeyLine& before, int from, int to);
    void check_step(Walk& walk, const std::string& text, int line);
    bool check_condition(const StepText& step, const std::string& text, int line);
    void check_tables(Walk& walk, Keyword keyword, const StepArgs& args, int line);
    void check_change(Walk& walk, const std::string& table, int line);
    void check_additions(const IniSectionLines& section);
    void call(const Walk& from, const std::string& name, int line);

    const IniListing& script_;
    std::vector<ScriptFinding> findings_;
    std::set<std::tuple<int, bool, std::string>> said_;
    std::vector<const IniSectionLines*> stack_;  // the sections being walked, outermost first
    std::set<std::pair<const IniSectionLines*, std::string>> walked_;
    std::set<const IniSectionLines*> changes_;  // change sections already looked at
};

void Checker::add(int line, bool error, std::string text) {
    if (said_.emplace(line, error, text).second) {
        findings_.push_back({line, error, std::move(text)});
    }
}

std::vector<ScriptFinding> Checker::run() {
    for (const int line : script_.long_lines()) {
        add(line, true,
            "line longer than " + std::to_string(kIniLinePiece) +
                " characters: the tool reads the rest as a line of its own, and no step or "
                "statement is longer");
    }
    // First the sections the commands run ([Update <main version>], the
    // downgrades), then the other [Update ...] and [Downgrade ...] sections
    // that none of them called.
    std::vector<std::pair<const IniSectionLines*, std::string>> later;
    for (const IniSectionLines& section : script_.sections()) {
        const IniSectionLines* found = script_.find(section.name);
        if (found != nullptr && found != &section) {
            add(section.line, false,
                "section " + bracketed(section.name) + " stands at line " +
                    std::to_string(found->line) + " already: this one is never read");
            continue;
        }
        const bool update = starts_nocase(section.name, "update ");
        if (found == nullptr || (!update && !starts_nocase(section.name, "downgrade "))) {
            continue;
        }
        const std::string release = section.name.substr(update ? 7 : 10);
        // A downgrade has no main version.
        const std::string version = update ? main_version(release) : "";
        if (release.ends_with('.')) {
            walk(section, version);
        } else {
            later.emplace_back(&section, version);
        }
    }
    for (const auto& pending : later) {
        // (a structured binding cannot be captured by every compiler)
        const auto* section = pending.first;
        if (std::none_of(walked_.begin(), walked_.end(),
                         [section](const auto& w) { return w.first == section; })) {
            walk(*section, pending.second);
        }
    }
    if (walked_.empty()) {
        add(1, false, "no [Update ...] or [Downgrade ...] section: the script runs nothing");
    }
    std::stable_sort(
        findings_.begin(), findings_.end(),
        [](const ScriptFinding& a, const ScriptFinding& b) { return a.line < b.line; });
    return findings_;
}

void Checker::walk(const IniSectionLines& section, const std::string& version) {
    if (!walked_.emplace(&section, version).second) {
        return;
    }
    stack_.push_back(&section);
    Walk steps{&section, version, {}};
    walk_steps(steps, step_count(section));
    stack_.pop_back();
}

// The steps the driver runs in `section`: last_step_nr as it reads it.
int Checker::step_count(const IniSectionLines& section) {
    const std::optional<std::string> text = script_.value(section.name, "last_step_nr");
    const IniKeyLine* last = IniListing::find(section, "last_step_nr");
    if (!text || last == nullptr) {
        add(section.line, true,
            bracketed(section.name) + " has no last_step_nr: none of its steps runs");
        return 0;
    }
    const std::optional<int> limited = step_count_of(*text);
    if (!limited) {
        add(last->line, true,
            "last_step_nr=" + *text + " is more than " + std::to_string(kMaxStepCount) +
                " steps: the update refuses " + bracketed(section.name));
        return 0;
    }
    const int count = *limited;
    if (!is_number(*text)) {
        add(last->line, true,
            "last_step_nr=" + *text + " is no number: the update runs " +
                (count == 0 ? std::string("no step") : plural(count, "step", "steps")) + " of " +
                bracketed(section.name));
    }
    for (const IniKeyLine& key : section.keys) {
        if (step_key_number(key.key) > count && IniListing::find(section, key.key) == &key) {
            add(key.line, false,
                key.key + " stands behind last_step_nr=" + std::to_string(count) +
                    ": it never runs");
        }
    }
    return count;
}

void Checker::walk_steps(Walk& walk, int count) {
    const IniSectionLines& section = *walk.section;
    int highest = 0;
    for (const IniKeyLine& key : section.keys) {
        highest = std::max(highest, step_key_number(key.key));
    }
    // A missing key leaves the driver's text as it was: the text read last
    // (at first, last_step_nr's) runs again.
    const IniKeyLine* before = IniListing::find(section, "last_step_nr");
    int missing = 0;  // the first of the steps missing since `before`
    for (int i = 1; i <= std::min(count, highest); ++i) {
        const std::string key = "step_" + std::to_string(i);
        const std::optional<std::string> text = script_.value(section.name, key);
        if (!text) {
            missing = missing == 0 ? i : missing;
            continue;
        }
        if (missing != 0) {
            report_missing(*before, missing, i - 1);
            missing = 0;
        }
        before = IniListing::find(section, key);
        check_step(walk, *text, before->line);
    }
    if (count > highest && missing == 0) {
        missing = highest + 1;
    }
    if (missing != 0) {
        report_missing(*before, missing, count);
    }
}

void Checker::report_missing(const IniKeyLine& before, int from, int to) {
    const std::string first = "step_" + std::to_string(from);
    add(before.line, false,
        from == to ? first + " is missing: the text of " + before.key + " runs again as step " +
                         std::to_string(from)
                   : first + " to step_" + std::to_string(to) + " are missing: the text of " +
                         before.key + " runs again as each of them");
}

void Checker::check_step(Walk& walk, const std::string& text, int line) {
    const StepText step = split_step(text);
    if (step.conditional && !check_condition(step, text, line)) {
        return;
    }
    std::string command = step.command;
    str_trim(command);
    const Keyword keyword = keyword_of(step.keyword);
    const StepArgs args = step_args(keyword, command, step.argStart);
    switch (keyword) {
        case Keyword::change:
            check_change(walk, args.rest, line);
            break;
        case Keyword::cmd:
            if (args.rest.empty()) {
                add(line, true,
                    "cmd without a command: the update ends here (CmdExecute: Format error)");
            }
            break;
        case Keyword::dump:
        case Keyword::exportTable:
        case Keyword::import:
            check_tables(walk, keyword, args, line);
            break;
        case Keyword::rmdir:
            if (const std::string rm = "rm -rf " + args.rest; rm.size() > kRmDirCommandMax) {
                add(line, true,
                    "removal command of " + std::to_string(rm.size()) +
                        " characters: rmdir refuses more than " + std::to_string(kRmDirCommandMax));
            }
            break;
        case Keyword::section:
            call(walk, command, line);
            break;
        default:
            break;
    }
}

// False when the step goes no further: the driver runs nothing of it.
bool Checker::check_condition(const StepText& step, const std::string& text, int line) {
    if (step.malformed) {
        add(line, true,
            "no \" && \" behind the condition: the update prints a format help and runs nothing of "
            "this step");
        return false;
    }
    if (step.behind > text.size() || text.compare(step.behind, 4, " && ") != 0) {
        add(line, true,
            "\"] && \" does not close the condition: the update reads the step from the fourth "
            "character behind \"]\"");
    }
    for (std::string& fault : condition_faults(step.condition)) {
        add(line, true, std::move(fault));
    }
    return true;
}

void Checker::check_tables(Walk& walk, Keyword keyword, const StepArgs& args, int line) {
    const std::string what = keyword == Keyword::dump     ? "dump"
                             : keyword == Keyword::import ? "import"
                                                          : "export";
    if (args.rest.find_first_of(" \t") != std::string::npos) {
        add(line, true,
            "table list \"" + args.rest + "\" holds a blank: tables are separated by commas alone");
    }
    const std::vector<std::string> tables = table_list(args.rest);
    if (tables.empty()) {
        add(line, true,
            what + " of no table: no list behind the database, or one that begins with a comma");
    }
    for (const std::string& table : tables) {
        if (keyword == Keyword::import) {
            if (!walk.images.contains(table)) {
                add(line, false,
                    "import of " + table +
                        ": no earlier step of this section dumps, exports or changes it");
            }
            continue;
        }
        if (!shell_double_quotable(table)) {
            add(line, true,
                what + " of " + table +
                    ": the name holds a character the shell would change (\" $ ` \\), " + what +
                    " refuses it");
        }
        if (keyword == Keyword::exportTable && table.size() > kTableNameMax) {
            add(line, true,
                "export of " + table + ": the export tool refuses table names longer than " +
                    std::to_string(kTableNameMax) + " characters");
        }
        walk.images.insert(table);
    }
}

void Checker::check_change(Walk& walk, const std::string& table, int line) {
    if (table.empty() || table.find_first_of(" \t") != std::string::npos) {
        add(line, true, "change of \"" + table + "\": one table name, without blanks");
        if (table.empty()) {
            return;
        }
    }
    walk.images.insert(table);
    const std::string name = walk.version + table;
    if (bracketed(name).size() > kIniSectionMax) {
        add(line, true,
            "change of " + table + ": its section " + bracketed(name) + " is longer than the " +
                std::to_string(kIniSectionMax) + " characters a lookup takes, it is never read");
        return;
    }
    const IniSectionLines* section = script_.find(name);
    if (section == nullptr) {
        add(line, false,
            "change of " + table + ": no section " + bracketed(name) +
                ", no column is added or dropped");
    } else if (changes_.insert(section).second) {
        check_additions(*section);
    }
}

// ADD_COLUMNS and ADD_VALUES as the change step pairs them.
void Checker::check_additions(const IniSectionLines& section) {
    for (const char* key : {"ADD_COLUMNS", "ADD_VALUES", "DEL_COLUMNS"}) {
        const std::optional<std::string> whole =
            script_.value(section.name, key, std::string::npos);
        if (whole && whole->size() >= kChangeKeySize) {
            add(IniListing::find(section, key)->line, true,
                std::string(key) + " is longer than " + std::to_string(kChangeKeySize - 1) +
                    " characters: the change step reads it cut");
        }
    }
    const std::optional<std::string> columns =
        script_.value(section.name, "ADD_COLUMNS", kChangeKeySize);
    const std::optional<std::string> values =
        script_.value(section.name, "ADD_VALUES", kChangeKeySize);
    if ((!columns || columns->empty()) && (!values || values->empty())) {
        return;
    }
    const IniKeyLine* at = IniListing::find(section, values ? "ADD_VALUES" : "ADD_COLUMNS");
    if (!columns || !values) {
        add(at->line, true,
            columns ? "ADD_COLUMNS without ADD_VALUES: the word KEY_NOT_FOUND is added as value"
                    : "ADD_VALUES without ADD_COLUMNS: a column KEY_NOT_FOUND is added");
        return;
    }
    const std::vector<std::string> cols = split(*columns, ',', EmptyFields::drop);
    const std::vector<std::string> vals = split(*values, ',', EmptyFields::drop);
    if (!cols.empty() && vals.empty()) {
        add(at->line, true,
            "ADD_VALUES gives no value: the update ends here (db_change: Format error)");
    } else if (cols.size() != vals.size()) {
        add(at->line, true,
            "ADD_COLUMNS names " + plural(cols.size(), "column", "columns") +
                ", ADD_VALUES gives " + plural(vals.size(), "value", "values") +
                ": they are paired in order, the rest is lost");
    }
    for (std::size_t i = 0; i < std::min(cols.size(), vals.size()); ++i) {
        if (cols[i].size() > kChangeColumnNameMax || vals[i].size() > kChangeValueMax) {
            add(at->line, true,
                "column " + cols[i] + " or its value is too long (name " +
                    std::to_string(kChangeColumnNameMax) + ", value " +
                    std::to_string(kChangeValueMax) + " characters): the update ends here");
        }
    }
}

void Checker::call(const Walk& from, const std::string& name, int line) {
    if (name.empty()) {
        add(line, false, "empty step: the update runs nothing for it");
        return;
    }
    if (name.find("$old_version") != std::string::npos ||
        name.find("$new_version") != std::string::npos) {
        return;  // which section it names depends on the releases
    }
    if (bracketed(name).size() > kIniSectionMax) {
        add(line, true,
            "section name " + bracketed(name) + " is longer than the " +
                std::to_string(kIniSectionMax) + " characters a lookup takes: nothing runs");
        return;
    }
    const IniSectionLines* section = script_.find(name);
    if (section == nullptr) {
        const std::string first = name.substr(0, name.find(' '));
        add(line, true,
            first == "update"
                ? "there is no section " + bracketed(name) + " for this step to run"
                : first + " is no keyword, and there is no section " + bracketed(name));
        return;
    }
    const auto again = std::find(stack_.begin(), stack_.end(), section);
    if (again != stack_.end()) {
        std::string ring;
        for (auto it = again; it != stack_.end(); ++it) {
            ring += (*it)->name + " -> ";
        }
        add(line, true,
            "section " + bracketed(section->name) + " calls itself (" + ring + section->name +
                "): the update ends at the nesting limit of " + std::to_string(kMaxSectionDepth));
        return;
    }
    walk(*section, from.version);
}

}  // namespace

std::vector<ScriptFinding> check_script(std::string_view text) {
    const IniListing script(text);
    return Checker(script).run();
}

int check_script_file(const std::string& path) {
    std::string text;
    {
        FilePtr fp(std::fopen(path.c_str(), "r"));
        char buffer[4096];
        std::size_t got = 0;
        while (fp && (got = std::fread(buffer, 1, sizeof buffer, fp.get())) > 0) {
            text.append(buffer, got);
        }
        if (!fp || std::ferror(fp.get())) {
            FINISH(RV_ERROR,
                   "check: cannot read the update script " + path + ": " + std::strerror(errno));
        }
    }
    int status = 0;
    for (const ScriptFinding& finding : check_script(text)) {
        std::printf("%s:%d: %s: %s\n", path.c_str(), finding.line,
                    finding.error ? "error" : "warning", finding.text.c_str());
        status = std::max(status, finding.error ? 2 : 1);
    }
    std::fflush(stdout);
    return status;
}

}  // namespace rv
