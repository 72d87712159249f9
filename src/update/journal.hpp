// The run journal: every `update` and `downgrade` run records in the work
// directory what it runs (command, releases, the update script and its
// digest), each step's start and end, and the run's end, one line at a time,
// each on disk before the step goes on. A run that did not reach its end
// (killed, machine down, ended by a failing step or a signal) is unfinished:
// `resume` continues it, and no other update or downgrade starts before it
// is resumed or discarded.
//
// A step is named by its path: the step numbers from the top section down
// to it ("3" is step 3 of the section the command runs, "5.2" step 2 of the
// section that step 5 calls). Only steps that do something are recorded
// (not `skip`, `exit` or `KEY_NOT_FOUND`): the script and the releases being
// the same, a resumed run meets them as the first run did.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace rv {

// Name of the journal in the work directory.
inline constexpr const char* kJournalFileName = "rv_db_update.journal";

// What a journal says about its run.
struct JournalRun {
    std::string command;      // "update" or "downgrade"
    std::string version_old;  // the releases the run went from and to
    std::string version;
    std::string script;       // path of the update script
    std::string digest;       // file_digest of the script when the run started
    std::string started;      // "YYYY-MM-DD hh:mm:ss"
    std::set<std::string> ended;  // paths of the steps that ended
    std::string interrupted;       // path of the innermost step begun and not ended
    std::string interrupted_text;  // its step text
    std::string stopped;           // why the run ended early, as far as it said
    bool finished = false;         // the run reached its end
};

// The journal of the work directory `work_dir`; nullopt when there is none
// (or no work directory). A journal that cannot be read or is not one ends
// the run (FINISH), naming the file.
std::optional<JournalRun> read_journal(const std::string& work_dir);

// Path of the journal of `work_dir`.
std::string journal_path(const std::string& work_dir);

// Ends the run (FINISH) when the journal of `work_dir` holds an unfinished
// run, saying where it stopped and how to continue or discard it.
void refuse_unfinished_run(const std::string& work_dir);

// Starts the journal of a new run in `work_dir`, replacing the last one (and
// the load positions it left, see steps/unload.hpp). Ends the run (FINISH)
// when the journal cannot be written. Without a work directory the run goes
// unrecorded.
void journal_start(const std::string& work_dir, const JournalRun& run);

// Continues the journal of the unfinished run `run` in `work_dir`: steps it
// ended are not run again, its interrupted step runs again as a rerun.
void journal_resume(const std::string& work_dir, const JournalRun& run);

// Records the start of the step `path` (`text`: the step as it runs).
// Returns false when the resumed run ended that step already: it is not run
// again.
bool journal_step_begins(const std::string& path, const std::string& text);

// Whether the step `path` is the one the resumed run was interrupted in.
bool journal_is_rerun(const std::string& path);

// Records that the step `path` failed as `line` says (the run goes on).
void journal_step_failed(const std::string& path, const std::string& line);

// Records the end of the step `path`.
void journal_step_ends(const std::string& path);

// Records that the run ended early with `reason`; the run stays unfinished.
void journal_stopped(const std::string& reason);

// Records that the run reached its end and removes the journal and the load
// positions: nothing is left to resume.
void journal_finished();

// Closes the journal without a record (the run ends either way).
void journal_close();

}  // namespace rv
