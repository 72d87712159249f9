// The plan of an update: the script driver walks the section the update
// would run, as the update would, but hands every step to a handler that
// describes it instead of running it. Nothing is started, no database is
// asked and no file is written or removed (the trace aside); where the
// script itself would end the update (the nesting limit, a cmd without a
// word, a change without values), the plan ends the same way.
#pragma once

#include <string>

namespace rv {

// Stands for gv_date in the command lines a plan shows.
inline constexpr const char* kPlanDate = "<date>";

// Prints every step of section `section` (e.g. "Update 1.6.4.") as the update
// would meet it: the nesting of sections by indentation, each step's console
// line, its condition as decided, and what it would run or touch.
void plan_section(const std::string& section);

}  // namespace rv
