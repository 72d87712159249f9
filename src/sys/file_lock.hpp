// An exclusive lock on a file, held by the kernel (flock), that says who
// holds it. The holder writes its process id, the time it took the lock and
// its command line into the file; a process that finds the file locked reads
// them back for its message. The content only informs: the kernel's lock
// decides, and it goes with the last descriptor of the holder, so it is never
// stale after a crash.
//
// The descriptor is close-on-exec. Forks of the holder that do not exec (the
// runner's guardians) share the lock and keep it until they end; programs
// the holder executes do not, so a program that stays behind on purpose (a
// server a command started) cannot keep the file locked.
#pragma once

#include <string>

namespace rv {

// Who holds a lock, as its file tells.
struct LockHolder {
    std::string pid;      // process id; empty when the file says nothing yet
    std::string started;  // "YYYY-MM-DD hh:mm:ss", local time
    std::string command;  // command line, arguments separated by blanks
};

class FileLock {
  public:
    enum class Outcome {
        locked,  // the lock is ours
        busy,    // another holds it; holder() says who
        failed,  // the file could not be opened or locked; error() says why
    };

    FileLock() = default;
    // Releases the lock.
    ~FileLock() { release(); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Tries to lock `path` (created with mode 0644 when missing) without
    // waiting. Locked, the file is rewritten to name this process.
    Outcome acquire(const std::string& path);
    // Gives the lock up (the file stays); nothing when none is held.
    void release();

    bool held() const { return fd_ >= 0; }
    // Who held the lock when acquire() said busy.
    const LockHolder& holder() const { return holder_; }
    // The errno of acquire() saying failed.
    int error() const { return error_; }

  private:
    int fd_ = -1;
    LockHolder holder_;
    int error_ = 0;
};

}  // namespace rv
