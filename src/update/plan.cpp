#include "update/plan.hpp"

#include <cstdio>

#include "config/glbv.hpp"
#include "config/product.hpp"
#include "db/access.hpp"
#include "steps/change.hpp"
#include "steps/command.hpp"
#include "steps/table_image.hpp"
#include "sys/runner.hpp"
#include "sys/strings.hpp"
#include "update/driver.hpp"

namespace rv {

namespace {

void say(const std::string& indent, const std::string& text) {
    std::printf("%s%s\n", indent.c_str(), text.c_str());
}

std::string indent_of(int depth) {
    return std::string(2 * static_cast<std::size_t>(depth > 0 ? depth - 1 : 0), ' ');
}

std::string image_of(const std::string& table) {
    const std::string image = table_image_path(table);
    return image.empty() ? std::string("(") + kWorkDirUnknown + ")" : image;
}

// A value as the change step writes it into every row.
std::string sql_value(const std::string& value) {
    if (value == "NULL") {
        return value;
    }
    std::string quoted = "'";
    for (const char c : value) {
        quoted += c == '\'' ? "''" : std::string(1, c);
    }
    return quoted + "'";
}

class DescribedSteps : public StepHandler {
  public:
    void section(const std::string& name, int depth, const std::string& last_step, bool found,
                 int count) override {
        std::string text = "[" + name + "] ";
        if (count > 0) {
            text += "last_step_nr=" + std::to_string(count);
        } else {
            text += found ? "last_step_nr=" + last_step + ": no step runs"
                          : "no section or no last_step_nr: no step runs";
        }
        say(indent_of(depth), text);
    }

    int step(const StepCall& call) override;

  private:
    static std::string head(const StepCall& call, const StepArgs& args);
    static void notes(const StepCall& call, const std::string& indent);
    static void tables(const StepCall& call, const StepArgs& args, const std::string& indent);
    static void change(const std::string& table, const std::string& indent);
};

int DescribedSteps::step(const StepCall& call) {
    const std::string indent = indent_of(call.depth);
    const std::string more = indent + "    ";
    if (!call.runs()) {
        say(indent, "step=" + std::to_string(call.number) + " skipped: " + call.line);
        notes(call, more);
        return 1;
    }
    const StepArgs args = step_args(call.keyword, call.expanded, call.argStart);
    say(indent, head(call, args));
    notes(call, more);
    switch (call.keyword) {
        case Keyword::cmd:
            say(more, "runs:" + build_command_line(args.rest, kPlanDate));
            break;
        case Keyword::rmdir:
            if (const std::string rm = rmdir_command(args.rest); rm.size() > kRmDirCommandMax) {
                say(more, "refused, longer than " + std::to_string(kRmDirCommandMax) +
                              " characters: " + rm);
            } else {
                say(more, "runs: " + rm);
            }
            break;
        case Keyword::sql:
            if (args.rest.size() > kSqlStatementMax) {
                say(more, "refused: a statement of " + std::to_string(args.rest.size()) +
                              " bytes, at most " + std::to_string(kSqlStatementMax) + " are sent");
            }
            break;
        case Keyword::dump:
        case Keyword::exportTable:
        case Keyword::import:
            tables(call, args, more);
            break;
        case Keyword::change:
            change(args.rest, more);
            break;
        case Keyword::section:
            iDbUpdate(call.expanded);
            break;
        case Keyword::exit:
        case Keyword::keyNotFound:
            return 0;
        case Keyword::skip:
            break;
    }
    return 1;
}

// The step's console line, or what stands for it where the update prints none.
std::string DescribedSteps::head(const StepCall& call, const StepArgs& args) {
    if (std::string line = step_console_line(call.keyword, args, call.number); !line.empty()) {
        return line;
    }
    const std::string step = "step=" + std::to_string(call.number) + " ";
    switch (call.keyword) {
        case Keyword::exit:
            return step + "exit: the section ends";
        case Keyword::keyNotFound:
            return step + "KEY_NOT_FOUND: the section ends";
        case Keyword::section:
            return step + "runs [" + call.expanded + "]";
        default:
            return step + "skip";
    }
}

void DescribedSteps::notes(const StepCall& call, const std::string& indent) {
    if (call.repeated) {
        say(indent, "no key step_" + std::to_string(call.number) + ": the text before runs again");
    }
    switch (call.verdict) {
        case StepCall::Verdict::none:
            return;
        case StepCall::Verdict::malformed:
            say(indent,
                "no \" && \" behind the condition [" + call.condition +
                    "]: the update prints a format help and takes the condition for the keyword");
            return;
        default:
            break;
    }
    std::string text = "condition " + call.condition + (call.runs() ? " holds" : " does not hold");
    if (!call.condition.starts_with("[")) {
        const GlbvResult type = glbv_read("gv_db_type");
        text += type.found() ? " (gv_db_type " + type.text + ")" : " (no gv_db_type)";
    }
    say(indent, text);
}

void DescribedSteps::tables(const StepCall& call, const StepArgs& args, const std::string& indent) {
    for (const std::string& table : table_list(args.rest)) {
        const std::string image = image_of(table);
        if (call.keyword == Keyword::import) {
            say(indent, table + ": " + pathes.bin_db + "oaisql loads " + image);
        } else if (!shell_double_quotable(table)) {
            say(indent, table + ": refused, the name holds a character the shell would change");
        } else if (call.keyword == Keyword::dump) {
            say(indent, table + ": select distinct * from " + table + " into " + image);
        } else {
            say(indent, table + ": " + pathes.bin_ravik + "rv_db writes " + image);
        }
    }
}

void DescribedSteps::change(const std::string& table, const std::string& indent) {
    say(indent, "image: " + image_of(table));
    const ChangeSection keys = read_change_section(table, false);
    for (const auto& [column, value] : keys.additions) {
        say(indent, keys.name + " adds " + column + " = " + sql_value(value));
    }
    for (const std::string& column : keys.deletions) {
        say(indent, keys.name + " drops " + column);
    }
    if (keys.additions.empty() && keys.deletions.empty()) {
        say(indent,
            keys.name + " adds and drops no column: the rows become INSERT lines as they are");
    }
}

}  // namespace

void plan_section(const std::string& section) {
    DescribedSteps described;
    set_step_handler(&described);
    // The update's own handlers are back however the plan ends.
    struct Restore {
        ~Restore() { set_step_handler(nullptr); }
    } restore;
    iDbUpdate(section);
    std::fflush(stdout);
}

}  // namespace rv
