#include "support/run.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/sandbox.hpp"

namespace rvtest {

std::string bin(const std::string& name) { return std::string(RV_BIN_DIR) + "/" + name; }

Background::Background(const std::vector<std::string>& argv, const Env& env, const std::string& input,
                       int err_fd) {
    for (const char* stem : {"rvin", "rvout", "rverr"}) {
        files_.push_back((std::filesystem::temp_directory_path() / stem).string() + ".XXXXXX");
        const int fd = mkstemp(files_.back().data());
        if (fd < 0) {
            throw std::runtime_error("mkstemp failed");
        }
        close(fd);
    }
    write_file(files_[0], input);
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    if ((pid_ = fork()) < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        for (const auto& [key, value] : env) {
            value.empty() ? unsetenv(key.c_str()) : setenv(key.c_str(), value.c_str(), 1);
        }
        for (int fd = 0; fd < 3; ++fd) {
            dup2(fd == 2 && err_fd >= 0 ? err_fd : open(files_[fd].c_str(), fd == 0 ? O_RDONLY : O_WRONLY | O_TRUNC),
                 fd);
        }
        execv(args[0], args.data());
        _exit(127);
    }
}

Background::~Background() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (const auto& file : files_) {
        std::remove(file.c_str());
    }
}

RunResult Background::wait() {
    RunResult result;
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) {
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    pid_ = -1;
    result.out = read_file(files_[1]);
    result.err = read_file(files_[2]);
    return result;
}

bool eventually(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool process_gone(pid_t pid) {
    if (kill(pid, 0) != 0) {
        return true;
    }
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const auto paren = stat.rfind(')');
    return paren != std::string::npos && stat.compare(paren, 3, ") Z") == 0;
}

}  // namespace rvtest
