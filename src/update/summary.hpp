// The failure summary: the steps of a run that failed and let the run go on
// (see steps/failures.hpp), in order, one line each
// ("[Update 1.6.4.] step 5 import media: 3 of 1,000 statements failed"),
// written to standard error and the trace at the run's end. The exit status
// stays 0 when the run reached its end; the journal records the same lines.
#pragma once

#include <string>

namespace rv {

// Takes the failures the step `step` of section `section` (journal path
// `path`) left and records them.
void note_step_failures(const std::string& section, int step, const std::string& path);

// Writes the summary to standard error and the trace (nothing when no step
// failed) and forgets it.
void print_failure_summary();

// Forgets the failures recorded so far (a new run starts).
void clear_failure_summary();

}  // namespace rv
