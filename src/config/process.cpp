#include "config/process.hpp"

#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log/finish.hpp"
#include "log/prot.hpp"
#include "sys/progress.hpp"

namespace rv {

namespace {

// Exit codes the child side and the shell give a meaning of their own.
constexpr int kShellNotFoundCode = 127;
constexpr int kSignalCodeFirst = 128;
constexpr int kSignalCodeLast = 160;
constexpr int kExecFailureBase = 160;

std::string prefix_of(const std::string& command) {
    std::string prefix = "start_system: " + command;
    if (prefix.size() > kStartSystemPrefixMax) {
        prefix.resize(kStartSystemPrefixMax);
    }
    return prefix;
}

void report(const std::string& prefix, std::string& cpExe, const std::string& text) {
    cpExe = text;
    prot_command_failed(prefix, cpExe);
}

// Reports a child that ended by a signal, as the shell or as its command.
void report_signals(const std::string& prefix, int status, std::string& cpExe) {
    const int code = (status >> 8) & 0xff;
    if ((status & 0x7f) != 0) {
        std::fprintf(stderr, "/bin/sh terminated abnormally %d...\n", WIFEXITED(status) ? 1 : 0);
        report(prefix, cpExe, "/bin/sh terminated abnormally");
    }
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "/bin/sh terminated due to receipt of a signal that was not caught: %d\n",
                     WTERMSIG(status));
        report(prefix, cpExe,
               "/bin/sh terminated due to receipt of a signal that was not caught: " + std::to_string(WTERMSIG(status)));
    }
    if (code >= kSignalCodeFirst && code <= kSignalCodeLast) {
        const int sig = code - kSignalCodeFirst;
        std::fprintf(stderr, "exe terminated due to the receipt of a signal that was not caught: %d\n", sig);
        report(prefix, cpExe, "terminated due to receipt of a signal that was not caught: " + std::to_string(sig));
    }
}

// Reports a command that could not start.
void report_start(const std::string& prefix, const std::string& command, int status, std::string& cpExe) {
    const int code = (status >> 8) & 0xff;
    if (code > kExecFailureBase) {
        std::fprintf(stderr, "exe %s could not start!\n", command.c_str());
        const int err = code - kExecFailureBase;
        std::fprintf(stderr, "start_system: %s (%d)\n", std::strerror(err), err);
        report(prefix, cpExe, std::string("could not start: ") + std::strerror(err));
    }
    if (code == kShellNotFoundCode) {
        std::fprintf(stderr, "start_system: please check: %s (%d)\n", std::strerror(ENOENT), ENOENT);
        report(prefix, cpExe, std::string("could not start: please check") + std::strerror(ENOENT));
    }
}

}  // namespace

ChildEnd run_reported(const ChildCommand& command, std::string& cpExe) {
    const std::string prefix = prefix_of(cpExe);
    const std::string named = cpExe;
    const ChildEnd end = child_runner().run(command);
    clear_progress_line();  // what follows may go to the console
    switch (end.how) {
        case ChildEnd::How::refused:
            std::printf("error occured in i_setenv_ravik\n");
            std::fflush(stdout);
            break;
        case ChildEnd::How::not_started:
            std::fprintf(stderr, "start_system: Unable to fork child process: %s (errno=%d)\n",
                         std::strerror(end.error), end.error);
            report(prefix, cpExe, std::string("unable to fork child process: ") + std::strerror(end.error));
            break;
        case ChildEnd::How::lost:
            std::fprintf(stderr, "start_system: no child to wait for! %s (errno=%d)\n", std::strerror(end.error),
                         end.error);
            report(prefix, cpExe, std::string("no child to wait for: ") + std::strerror(end.error));
            break;
        case ChildEnd::How::interrupted:
            break;
        case ChildEnd::How::finished:
            report_signals(prefix, end.status, cpExe);
            report_start(prefix, named, end.status, cpExe);
            std::fflush(stderr);
            break;
    }
    if (const int signo = stop_signal(); signo != 0) {
        throw StepFailure("stopped by " + signal_name(signo) + " while running " + named);
    }
    return end;
}

int start_system(std::string& cpExe) {
    return exit_code_of(run_reported({cpExe, {}, nullptr, true}, cpExe), cpExe);
}

int exit_code_of(const ChildEnd& end, const std::string& cpExe) {
    switch (end.how) {
        case ChildEnd::How::not_started:
            // Without a child the run cannot go on: the tool ends with status 1.
            throw Fatal(RV_WARNING, cpExe, false);
        case ChildEnd::How::refused:
            return kStartSystemNoEnvironment;
        case ChildEnd::How::finished:
            return end.exit_code();
        default:
            return kStartSystemNoChild;  // lost: as the shell's "not found"
    }
}

}  // namespace rv
