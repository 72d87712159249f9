// The update script driver: runs one section of rv_db_update.ini step by
// step ("step_1" .. "step_<last_step_nr>"), evaluates each step's condition,
// expands $old_version and $new_version, and hands the step to the handler
// of its keyword; `update` and unknown words run another section. What
// becomes of a step that the driver reached is up to the step handler: the
// update runs it, a plan only describes it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

// Sections may call sections up to this depth; deeper nesting (a section
// that calls itself, directly or in a ring) ends the run with an error.
inline constexpr int kMaxSectionDepth = 64;

// The most steps a section may have: a higher last_step_nr (a slip of the
// pen would run the last step's text again and again) ends the run when the
// section is reached, before any of its steps runs.
inline constexpr int kMaxStepCount = 999;

// The step count the driver reads from last_step_nr's text `text`: its
// leading number as atoi takes it (no number, or a negative one: 0);
// nullopt when that number is above kMaxStepCount, however long.
std::optional<int> step_count_of(std::string_view text);

// The keywords of a step; any other first word names a section.
enum class Keyword { change, cmd, dump, exportTable, exit, import, rmdir, sql, skip, section, keyNotFound };

// The keyword the first word `word` of a step stands for.
Keyword keyword_of(std::string_view word);

// A step line taken apart as the driver reads it, before anything is
// decided or expanded.
struct StepText {
    bool conditional = false;  // begins with the word "["
    bool malformed = false;    // conditional, but " && " stands nowhere in it
    std::string condition;     // the words between "[ " and the first "]"
    std::size_t behind = 0;    // position behind that "]"
    std::string command;       // what runs: the line, or the text 4 characters behind "]"
    std::string keyword;       // the first word of `command` (a malformed line: the condition)
    std::size_t argStart = 0;  // where the arguments begin in `command`
};

// Takes the step line `line` apart.
StepText split_step(std::string_view line);

// A step as the driver reached it.
struct StepCall {
    enum class Verdict { none, holds, fails, malformed };

    int number = 0;            // its number in its section
    int depth = 0;             // nesting of its section: 1 for the section the command runs
    std::string line;          // the step text
    bool repeated = false;     // there is no key step_<number>: the text before it runs again
    Verdict verdict = Verdict::none;
    std::string condition;     // as decided: "[ a op b ]" with the releases in place, or the type word
    Keyword keyword = Keyword::skip;
    std::string expanded;      // the text behind the condition, versions expanded ("" when it fails)
    std::size_t argStart = 0;  // where the arguments begin in `expanded`

    bool runs() const { return verdict != Verdict::fails; }
};

// What becomes of the sections and steps the driver reaches.
class StepHandler {
  public:
    virtual ~StepHandler() = default;
    // The section `name` begins at `depth`; `last_step` is its last_step_nr
    // as read (`found` false: no section or no key), `count` the steps run.
    virtual void section(const std::string& name, int depth, const std::string& last_step, bool found,
                         int count) = 0;
    // Handles the step; 0 ends its section.
    virtual int step(const StepCall& call) = 0;
};

// Hands the steps to `handler` from now on; nullptr: the update's own
// handlers run them.
void set_step_handler(StepHandler* handler);

// The arguments of a step: the database and the rest (dump, export,
// import, sql), or only the rest (change, cmd, rmdir).
struct StepArgs {
    std::string database;
    std::string rest;
};
StepArgs step_args(Keyword keyword, const std::string& expanded, std::size_t argStart);

// The tables of the table list `list` as the table steps take them: names
// between commas, up to the first empty one (a trailing comma ends the list).
std::vector<std::string> table_list(const std::string& list);

// The console line a step prints before it acts ("step=4 db=ravik_db
// sql=..."), without its line feed; "" for the keywords that print none.
std::string step_console_line(Keyword keyword, const StepArgs& args, int iStep);

// Runs the section `cpVersion` (e.g. "Update 1.6.4.") of the update script.
// A missing script, section or step count runs nothing. Fatal conditions
// throw Fatal (FINISH).
void iDbUpdate(std::string_view cpVersion);

// Handles the step line `cpString`, number `iStep` (`repeated`: its key is
// missing, the text before runs again). Returns 0 when the section is to end
// (`exit`, `KEY_NOT_FOUND`), else 1.
int parser(std::string_view cpString, int iStep, bool repeated = false);

// Replaces the first "$old_version" of every blank-separated word (or, in a
// word without it, the first "$new_version") and trims the result. Runs of
// blanks survive.
std::string expand_versions(std::string_view text);

// The main version of a release: cut after its last '.', the dot kept
// ("2.0.1.5" -> "2.0.1."); a release without a dot stays whole.
std::string main_version(std::string_view version);

}  // namespace rv
