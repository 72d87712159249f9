#include "update/journal.hpp"


#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "log/finish.hpp"
#include "log/trace.hpp"
#include "loader/position.hpp"
#include "steps/table_image.hpp"
#include "steps/unload.hpp"
#include "sys/durable_append.hpp"
#include "sys/file_io.hpp"
#include "sys/strings.hpp"
#include "sys/timefmt.hpp"

namespace rv {

namespace {

constexpr const char* kFirstLine = "rv_db_update journal 1";

// The journal this run writes, and what the run it resumes had done.
DurableAppend gJournal;
JournalRun gResumed;
std::string gWorkDir;

// Fields are separated by tabs; a tab, line feed or backslash inside one is
// written as \t, \n or \\.
std::string escaped(const std::string& field) {
    std::string out;
    for (const char c : field) {
        switch (c) {
            case '\t': out += "\\t"; break;
            case '\n': out += "\\n"; break;
            case '\\': out += "\\\\"; break;
            default: out += c;
        }
    }
    return out;
}

std::string unescaped(const std::string& field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 1 < field.size()) {
            const char c = field[++i];
            out += c == 't' ? '\t' : c == 'n' ? '\n' : c;
        } else {
            out += field[i];
        }
    }
    return out;
}

void record(const std::vector<std::string>& fields) {
    std::string line;
    for (const std::string& field : fields) {
        line += line.empty() ? "" : "\t";
        line += escaped(field);
    }
    if (!gJournal.is_open()) {
        return;
    }
    if (!gJournal.append(line)) {
        const std::string why = gJournal.why();
        gJournal.close();
        FINISH(RV_ERROR, "the run journal cannot be written: " + why + "; the run stops before its next step");
    }
}

std::string now_text() {
    std::string stamp = "I";
    time_get(stamp);  // "YYYYMMDDhhmmss"
    if (stamp.size() < 14) {
        return stamp;
    }
    return stamp.substr(0, 4) + "-" + stamp.substr(4, 2) + "-" + stamp.substr(6, 2) + " " + stamp.substr(8, 2) +
           ":" + stamp.substr(10, 2) + ":" + stamp.substr(12, 2);
}

// Takes one line of a journal into `run`; false when it is none.
bool take_line(const std::vector<std::string>& f, JournalRun& run) {
    const std::string& what = f[0];
    if (what == "run" && f.size() == 7) {
        run = JournalRun{f[1], f[2], f[3], f[4], f[5], f[6], {}, {}, {}, {}, false};
    } else if (what == "begin" && f.size() == 3) {
        run.interrupted = f[1];
        run.interrupted_text = f[2];
    } else if (what == "end" && f.size() == 2) {
        run.ended.insert(f[1]);
        // The section around the step ended goes on: it is interrupted
        // unless it ends as well.
        const auto dot = f[1].rfind('.');
        run.interrupted = dot == std::string::npos ? "" : f[1].substr(0, dot);
    } else if (what == "stopped" && f.size() == 2) {
        run.stopped = f[1];
    } else if (what == "finished" && f.size() == 1) {
        run.finished = true;
    } else if ((what != "resumed" || f.size() != 2) && (what != "failed" || f.size() != 3)) {
        return false;
    }
    return true;
}

// Lines of the file `path`, counted without keeping them.
std::size_t count_lines(const std::string& path) {
    FilePtr in(std::fopen(path.c_str(), "r"));
    std::size_t lines = 0;
    for (int c = 0; in && (c = std::getc(in.get())) != EOF;) {
        lines += c == '\n' ? 1 : 0;
    }
    return lines;
}

// How far the interrupted import `text` ("import <db> <tables>") got, table
// by table, as the loader's position files tell without the database.
std::string import_progress(const std::string& text) {
    const std::vector<std::string> words = split(text, ' ', EmptyFields::drop);
    if (words.size() < 3 || words[0] != "import") {
        return "";
    }
    std::string progress;
    for (const std::string& table : split(words[2], ',', EmptyFields::drop)) {
        const std::string image = table_image_path(table);
        const std::optional<LoadPosition> position = read_load_position(load_position_path(image));
        progress += "; " + table + ": ";
        if (!position) {
            progress += "no statement loaded for sure";
        } else if (position->ended) {
            progress += "loaded";
        } else {
            progress += "at least " + std::to_string(position->durable) + " of " +
                        std::to_string(count_lines(image)) + " lines loaded";
        }
    }
    return progress;
}

}  // namespace

std::string journal_path(const std::string& work_dir) { return work_dir + kJournalFileName; }

std::optional<JournalRun> read_journal(const std::string& work_dir) {
    if (work_dir.empty()) {
        return std::nullopt;
    }
    const std::string path = journal_path(work_dir);
    FilePtr in(std::fopen(path.c_str(), "r"));
    if (!in) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        FINISH(RV_ERROR, "cannot read the run journal " + path + ": " + std::strerror(errno));
    }
    JournalRun run;
    std::string line;
    std::size_t number = 0;
    while (read_line(in.get(), line, LineFeed::keep)) {
        ++number;
        if (line.back() != '\n') {
            break;  // cut by a crash while it was written: never happened
        }
        line.pop_back();
        std::vector<std::string> fields;
        for (const std::string& field : split(line, '\t', EmptyFields::keep)) {
            fields.push_back(unescaped(field));
        }
        if (number == 1 ? line != kFirstLine : !take_line(fields, run)) {
            FINISH(RV_ERROR, "the run journal " + path + " is damaged in line " + std::to_string(number) +
                                 "; remove it to start afresh");
        }
    }
    if (std::ferror(in.get()) != 0 || run.command.empty()) {
        FINISH(RV_ERROR, "the run journal " + path + " names no run; remove it to start afresh");
    }
    return run;
}

void refuse_unfinished_run(const std::string& work_dir) {
    const std::optional<JournalRun> run = read_journal(work_dir);
    if (!run || run->finished) {
        return;
    }
    std::string where = run->interrupted.empty() ? "between steps"
                                                 : "in step " + run->interrupted + " (" + run->interrupted_text + ")" +
                                                       import_progress(run->interrupted_text);
    if (!run->stopped.empty()) {
        where += ", ended by: " + run->stopped;
    }
    FINISH(RV_ERROR, "an unfinished " + run->command + " from " + run->version_old + " to " + run->version +
                         " (started " + run->started + ") stopped " + where +
                         "; continue it with 'rv_db_update resume' or discard it by removing " +
                         journal_path(work_dir));
}

void journal_start(const std::string& work_dir, const JournalRun& run) {
    gResumed = JournalRun{};
    gWorkDir = work_dir;
    if (work_dir.empty()) {
        return;
    }
    remove_load_positions(work_dir);
    if (!gJournal.open(journal_path(work_dir), true)) {
        FINISH(RV_ERROR, "the run journal cannot be written: " + gJournal.why() + "; no step was run");
    }
    record({kFirstLine});
    record({"run", run.command, run.version_old, run.version, run.script, run.digest, now_text()});
    WRITE_TRACE(1, "run journal started: %s", journal_path(work_dir).c_str());
}

void journal_resume(const std::string& work_dir, const JournalRun& run) {
    gResumed = run;
    gWorkDir = work_dir;
    if (!gJournal.open(journal_path(work_dir), false)) {
        FINISH(RV_ERROR, "the run journal cannot be written: " + gJournal.why() + "; no step was run");
    }
    record({"resumed", now_text()});
}

bool journal_step_begins(const std::string& path, const std::string& text) {
    if (gResumed.ended.count(path) != 0) {
        WRITE_TRACE(1, "step %s (%s) ended in the interrupted run: not run again", path.c_str(), text.c_str());
        return false;
    }
    record({"begin", path, text});
    return true;
}

bool journal_is_rerun(const std::string& path) {
    return !gResumed.interrupted.empty() && gResumed.interrupted == path;
}

void journal_step_failed(const std::string& path, const std::string& line) { record({"failed", path, line}); }

void journal_step_ends(const std::string& path) { record({"end", path}); }

void journal_stopped(const std::string& reason) {
    if (gJournal.is_open() && !gJournal.append(escaped("stopped") + "\t" + escaped(reason))) {
        WRITE_TRACE(1, "the run journal cannot record the stop: %s", gJournal.why().c_str());
    }
    gJournal.close();
}

void journal_finished() {
    if (!gJournal.is_open()) {
        return;
    }
    record({"finished"});
    gJournal.close();
    remove_load_positions(gWorkDir);
    if (std::remove(journal_path(gWorkDir).c_str()) != 0) {
        WRITE_TRACE(1, "cannot remove the journal of the finished run: %s", std::strerror(errno));
    }
}

void journal_close() { gJournal.close(); }

}  // namespace rv
