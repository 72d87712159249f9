// The update script driver: runs one section of rv_db_update.ini step by
// step ("step_1" .. "step_<last_step_nr>"), evaluates each step's condition,
// expands $old_version and $new_version, and hands the step to the handler
// of its keyword; `update` and unknown words run another section.
#pragma once

#include <string>
#include <string_view>

namespace rv {

// Sections may call sections up to this depth; deeper nesting (a section
// that calls itself, directly or in a ring) ends the run with an error.
inline constexpr int kMaxSectionDepth = 64;

// Runs the section `cpVersion` (e.g. "Update 1.6.4.") of the update script.
// A missing script, section or step count runs nothing. Fatal conditions
// throw Fatal (FINISH).
void iDbUpdate(std::string_view cpVersion);

// Handles the step line `cpString`, number `iStep`. Returns 0 when the
// section is to end (`exit`, `KEY_NOT_FOUND`), else 1.
int parser(std::string_view cpString, int iStep);

// Replaces the first "$old_version" of every blank-separated word (or, in a
// word without it, the first "$new_version") and trims the result. Runs of
// blanks survive.
std::string expand_versions(std::string_view text);

}  // namespace rv
