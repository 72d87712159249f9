// Runs built programs as a user would: arguments, extra environment (an
// empty value unsets the variable), standard input; collects standard
// output, standard error and the exit status.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace rvtest {

struct RunResult {
    std::string out, err;
    int status = -1;  // exit status, or 128 + signal number
};

using Env = std::map<std::string, std::string>;

// Path of a program built into the build's bin directory.
std::string bin(const std::string& name);

// A program started in the background (argv[0] is its path); killed if the
// object goes away before wait(). Its standard error goes to `err_fd` when
// given (err is then empty), else to a file.
class Background {
  public:
    explicit Background(const std::vector<std::string>& argv, const Env& env = {}, const std::string& input = "",
                        int err_fd = -1);
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;
    pid_t pid() const { return pid_; }
    // The file its standard output goes to, to watch while it runs.
    const std::string& output_file() const { return files_[1]; }
    RunResult wait();

  private:
    pid_t pid_ = -1;
    std::vector<std::string> files_;  // standard input, output, error
};

inline RunResult run(const std::vector<std::string>& argv, const Env& env = {}, const std::string& input = "") {
    return Background(argv, env, input).wait();
}

// True once `done` holds; false when it did not within ten seconds. For
// waiting on something observable (a file, a process), never on time.
bool eventually(const std::function<bool()>& done);

// True when process `pid` is gone, or a zombie no one has reaped yet.
bool process_gone(pid_t pid);

}  // namespace rvtest
