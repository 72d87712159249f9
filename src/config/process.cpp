#include "config/process.hpp"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/environment.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"

extern char** environ;

namespace rv {

namespace {

// Exit codes the child side and the shell give a meaning of their own.
constexpr int kShellNotFoundCode = 127;
constexpr int kSignalCodeFirst = 128;
constexpr int kSignalCodeLast = 160;
constexpr int kExecFailureBase = 160;


// Child side: becomes the shell. Only async-signal-safe calls and _exit.
[[noreturn]] void exec_shell(const char* command) {
    char sh[] = "sh";
    char dash_c[] = "-c";
    char* const argv[] = {sh, dash_c, const_cast<char*>(command), nullptr};
    execve("/bin/sh", argv, environ);
    const int err = errno;
    std::fprintf(stderr, "start_system (child): /bin/sh %s %s\n", "-c", command);
    std::fprintf(stderr, "start_system (child): %s (%d)\n", std::strerror(err), err);
    std::fflush(stderr);
    _exit(kExecFailureBase + err);
}

}  // namespace

bool spawn_shell(const std::string& cpExe, ShellChild& child) {
    if (!i_setenv_ravik(cpExe)) {
        std::printf("error occured in i_setenv_ravik\n");
        std::fflush(stdout);
        return false;
    }
    child.command = cpExe;
    child.prefix = "start_system: " + cpExe;
    if (child.prefix.size() > kStartSystemPrefixMax) {
        child.prefix.resize(kStartSystemPrefixMax);
    }
    std::fflush(nullptr);
    child.pid = fork();
    if (child.pid < 0) {
        const int err = errno;
        std::fprintf(stderr, "start_system: Unable to fork child process: %s (errno=%d)\n", std::strerror(err), err);
        prot_command_failed(child.prefix, std::string("unable to fork child process: ") + std::strerror(err));
        std::exit(1);
    }
    if (child.pid == 0) {
        exec_shell(child.command.c_str());
    }
    return true;
}

void report_wait_failure(const ShellChild& child, int err, std::string& cpExe) {
    std::fprintf(stderr, "start_system: no child to wait for! %s (errno=%d)\n", std::strerror(err), err);
    cpExe = std::string("no child to wait for: ") + std::strerror(err);
    prot_command_failed(child.prefix, cpExe);
}

int decode_child_status(const ShellChild& child, int status, std::string& cpExe) {
    const int code = (status >> 8) & 0xff;
    if ((status & 0x7f) != 0) {
        std::fprintf(stderr, "/bin/sh terminated abnormally %d...\n", WIFEXITED(status) ? 1 : 0);
        cpExe = "/bin/sh terminated abnormally";
        prot_command_failed(child.prefix, cpExe);
    }
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "/bin/sh terminated due to receipt of a signal that was not caught: %d\n",
                     WTERMSIG(status));
        cpExe = "/bin/sh terminated due to receipt of a signal that was not caught: " +
                std::to_string(WTERMSIG(status));
        prot_command_failed(child.prefix, cpExe);
    }
    if (code >= kSignalCodeFirst && code <= kSignalCodeLast) {
        const int sig = code - kSignalCodeFirst;
        std::fprintf(stderr, "exe terminated due to the receipt of a signal that was not caught: %d\n", sig);
        cpExe = "terminated due to receipt of a signal that was not caught: " + std::to_string(sig);
        prot_command_failed(child.prefix, cpExe);
    }
    if (code > kExecFailureBase) {
        std::fprintf(stderr, "exe %s could not start!\n", child.command.c_str());
        errno = code - kExecFailureBase;
        std::fprintf(stderr, "start_system: %s (%d)\n", std::strerror(errno), errno);
        cpExe = std::string("could not start: ") + std::strerror(errno);
        prot_command_failed(child.prefix, cpExe);
    }
    if (code == kShellNotFoundCode) {
        std::fprintf(stderr, "start_system: please check: %s (%d)\n", std::strerror(ENOENT), ENOENT);
        cpExe = std::string("could not start: please check") + std::strerror(ENOENT);
        prot_command_failed(child.prefix, cpExe);
    }
    std::fflush(stderr);
    return code;
}

int start_system(std::string& cpExe) {
    ShellChild child;
    if (!spawn_shell(cpExe, child)) {
        return kStartSystemNoEnvironment;
    }
    int status = 0;
    while (waitpid(child.pid, &status, 0) < 0) {
        const int err = errno;
        report_wait_failure(child, err, cpExe);
        // Waiting again helps only after an interruption; with the child
        // gone for good it would never end.
        if (err != EINTR) {
            status = kShellNotFoundCode << 8;
            break;
        }
    }
    return decode_child_status(child, status, cpExe);
}

}  // namespace rv
