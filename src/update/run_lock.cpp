#include "update/run_lock.hpp"

#include <cstdio>
#include <cstring>

#include "log/finish.hpp"
#include "log/trace.hpp"
#include "sys/atomic_file.hpp"
#include "sys/file_lock.hpp"

namespace rv {

namespace {

// The lock of this run; a process runs the tool once, tests run it again.
FileLock gLock;

std::string holder_text(const LockHolder& holder) {
    if (holder.pid.empty()) {
        return "a process that is just starting";
    }
    std::string text = "process " + holder.pid + ", started " + holder.started;
    if (!holder.command.empty()) {
        text += " (" + holder.command + ")";
    }
    return text;
}

void remove_leftovers(const std::string& work_dir) {
    for (const auto& path : remove_abandoned_temporaries(work_dir)) {
        WRITE_TRACE(1, "removed %s, left by an ended run", path.c_str());
        std::printf("removed %s, left by an ended run\n", path.c_str());
    }
    std::fflush(stdout);
}

}  // namespace

void lock_installation(const std::string& work_dir) {
    if (work_dir.empty()) {
        WRITE_TRACE(1, "no work directory: the run is not locked");
        std::fputs("rv_db_update: rv.ini names no work directory (gv_rw_work); "
                   "this run is not kept apart from others\n", stderr);
        std::fflush(stderr);
        return;
    }
    const std::string path = work_dir + kLockFileName;
    switch (gLock.acquire(path)) {
        case FileLock::Outcome::locked:
            WRITE_TRACE(1, "installation locked: %s", path.c_str());
            break;
        case FileLock::Outcome::busy:
            FINISH(RV_ERROR, "rv_db_update is already running for this installation: " +
                                 holder_text(gLock.holder()) + "; lock file " + path);
        case FileLock::Outcome::failed:
            FINISH(RV_ERROR, "rv_db_update cannot lock the installation: " + path + ": " +
                                 std::strerror(gLock.error()));
    }
    remove_leftovers(work_dir);
}

void unlock_installation() { gLock.release(); }

}  // namespace rv
