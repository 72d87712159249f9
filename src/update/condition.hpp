// Conditions of update script steps: "[ $old_version < \"2.0.1.\" ] && ..."
// compares releases (a release prefix matches every build of it), a single
// word tests the database type. Also the field reader the step parser cuts
// its lines with, and the help it prints for a malformed conditional line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

// Decides the condition text `szCondition` (the words between "[ " and "]").
// One word: true when it equals the global variable gv_db_type, ignoring
// case. Three words: compares the arguments ($old_version and $new_version
// become the quoted releases) over the length of the shorter one minus one,
// and holds when the operator contains '=' (equal), '<' (less) or '>'
// (greater). A comparison rewrites `szCondition` to "[ a op b ]".
bool iCondition(std::string& szCondition);

// What keeps the condition text `condition` from testing what it seems to
// (two blanks, an unquoted literal, an operator that never holds, ...), one
// text each; empty when it is sound. The releases are not needed.
std::vector<std::string> condition_faults(const std::string& condition);

// Copies `iS` from `begin` up to the first `sep` (or the end; sep 0 means the
// end) into `oS`, trims blanks and tabs, and returns the position behind the
// separator (one behind the end when there is none).
std::size_t get_string(std::string_view iS, std::string& oS, std::size_t begin, char sep);

// Prints the format help for the malformed conditional line `line`.
void print_condition_format_help(std::string_view line);

}  // namespace rv
