#include "support/run.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/sandbox.hpp"

namespace rvtest {

namespace {

std::string temp_file(const char* stem) {
    std::string tmpl = (std::filesystem::temp_directory_path() / stem).string() + ".XXXXXX";
    int fd = mkstemp(tmpl.data());
    if (fd < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    close(fd);
    return tmpl;
}

}  // namespace

std::string bin(const std::string& name) {
#ifdef RV_BIN_DIR
    return std::string(RV_BIN_DIR) + "/" + name;
#else
    return name;
#endif
}

RunResult run(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
              const std::string& input) {
    const std::string in_file = temp_file("rvin");
    const std::string out_file = temp_file("rvout");
    const std::string err_file = temp_file("rverr");
    write_file(in_file, input);

    pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        for (const auto& [key, value] : env) {
            if (value.empty()) {
                unsetenv(key.c_str());
            } else {
                setenv(key.c_str(), value.c_str(), 1);
            }
        }
        int in = open(in_file.c_str(), O_RDONLY);
        int out = open(out_file.c_str(), O_WRONLY | O_TRUNC);
        int err = open(err_file.c_str(), O_WRONLY | O_TRUNC);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult result;
    result.out = read_file(out_file);
    result.err = read_file(err_file);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::remove(in_file.c_str());
    std::remove(out_file.c_str());
    std::remove(err_file.c_str());
    return result;
}

}  // namespace rvtest
