// The step lines of the update script: the release expansion, the
// conditions and the parser, run against a throwaway installation whose
// children are only recorded (the refusing runner) and whose database
// cannot be reached (PGHOST names a directory that does not exist). Beyond
// crashes: the expansion never lengthens a line with these releases and
// replaces one name a word ($old_version first); a rewritten condition
// decides as before, rewrites to itself and decides the same mirrored
// (b >< a); skip, exit and KEY_NOT_FOUND start nothing and end the section
// as they say; a cmd step runs exactly the text behind its keyword; a
// section that calls itself ends the run rather than the stack.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "config/product.hpp"
#include "log/finish.hpp"
#include "steps/command.hpp"
#include "support.hpp"
#include "sys/strings.hpp"
#include "update/condition.hpp"
#include "update/driver.hpp"
#include "update/summary.hpp"

namespace {

std::size_t count(std::string_view text, std::string_view part) {
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

void check_expansion(const std::string& text) {
    const std::string out = rv::expand_versions(text);
    FUZZ_CHECK(out.size() <= text.size());
    std::size_t oldWords = 0, newWords = 0;
    for (const std::string& word : rv::split(text, ' ', rv::EmptyFields::keep)) {
        oldWords += word.find("$old_version") != std::string::npos;
        newWords += word.find("$old_version") == std::string::npos && word.find("$new_version") != std::string::npos;
    }
    FUZZ_CHECK(count(out, "$old_version") == count(text, "$old_version") - oldWords);
    FUZZ_CHECK(count(out, "$new_version") == count(text, "$new_version") - newWords);
    if (text.find('$') == std::string::npos) {
        std::string trimmed = text;
        FUZZ_CHECK(out == rv::str_trim(trimmed));
    }
}

void check_condition(const std::string& text) {
    const std::vector<std::string> words = rv::split(text, ' ', rv::EmptyFields::keep);
    std::string rewritten = text;
    const bool holds = rv::iCondition(rewritten);
    if (words.size() < 2 || words[1].empty()) {
        return;  // one word: a database type
    }
    FUZZ_CHECK(rewritten.starts_with("[ ") && rewritten.ends_with(" ]"));
    // Decided again, the rewritten condition holds as before and rewrites to itself.
    std::string inner = rewritten.substr(2, rewritten.size() - 4);
    const std::vector<std::string> again = rv::split(inner, ' ', rv::EmptyFields::keep);
    FUZZ_CHECK(rv::iCondition(inner) == holds && inner == rewritten);
    std::string op = again[1];
    for (char& c : op) {
        c = c == '<' ? '>' : c == '>' ? '<' : c;
    }
    std::string mirrored = again[2] + " " + op + " " + again[0];
    FUZZ_CHECK(rv::iCondition(mirrored) == holds);
}

void check_step(const std::string& line) {
    rvfuzz::RefusingRunner& runner = rvfuzz::runner();
    std::string keyword;
    rv::get_string(line, keyword, 0, ' ');
    int result = -1;
    try {
        result = rv::parser(line, 1);
    } catch (const rv::Fatal&) {
    }
    if (keyword == "skip" || keyword == "exit" || keyword == "KEY_NOT_FOUND") {
        FUZZ_CHECK(runner.ran.empty() && result == (keyword == "skip" ? 1 : 0));
    } else if (keyword == "cmd" && line.find("gv_date") == std::string::npos) {
        // The arguments: the expanded line behind the keyword and its blank.
        const std::string expanded = rv::expand_versions(line);
        std::string rest;
        rv::get_string(expanded, rest, rv::get_string(expanded, keyword, 0, ' '), '\0');
        if (rest.find_first_not_of(' ') != std::string::npos) {
            FUZZ_CHECK(result == 1 && runner.ran.size() == 1 && runner.ran[0] == rv::build_command_line(rest));
        }
    }
    // Each input is a run of its own: what it left is freed before the next
    // one. Kept, it would grow for the whole session, and libFuzzer, seeing
    // more allocations than frees, would run every input a second time to
    // look for a leak.
    runner.ran.clear();
    rv::clear_failure_summary();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    rvtest::Sandbox& box = rvfuzz::sandbox();
    static const bool ready = [&] {
        rv::pathes.version = "1.6.4.71";
        rv::pathes.version_old = "1.6.3.20";
        rv::rvdb_ini = box.path("rv_db_update.ini");
        rvtest::write_file(rv::rvdb_ini, "[sub]\nlast_step_nr=3\nstep_1=cmd echo $old_version > gv_rw_work:x\n"
                                         "step_2=[ $new_version > \"1.6.3.\" ] && exit\nstep_3=ring\n"
                                         "[ring]\nlast_step_nr=1\nstep_1=ring\n");
        setenv("PGHOST", box.path("no-server-here").c_str(), 1);
        return true;
    }();
    (void)ready;
    FuzzedDataProvider in(data, size);
    const std::string condition = in.ConsumeRandomLengthString(80);
    const std::string line = in.ConsumeRemainingBytesAsString();
    check_expansion(line);
    check_condition(condition);
    check_step(line);
    return 0;
}
