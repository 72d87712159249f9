// bench_peak LOG PROGRAM [ARGS...]: runs PROGRAM and appends its peak
// resident memory to LOG as "<program's base name> <kilobytes>", one line a
// run, in one write (several may append at once). Exits as PROGRAM did. The
// benchmarks put it in front of the tool, psql and oaisql through wrappers,
// to see the memory of every process of a run.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_peak LOG PROGRAM [ARGS...]\n");
        return 2;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("bench_peak: fork");
        return 2;
    }
    if (pid == 0) {
        execvp(argv[2], argv + 2);
        std::fprintf(stderr, "bench_peak: cannot run %s: %s\n", argv[2], std::strerror(errno));
        _exit(127);
    }
    // The run's stop signals reach the program through its group, not us.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            std::perror("bench_peak: wait4");
            return 2;
        }
    }
    const char* slash = std::strrchr(argv[2], '/');
    const std::string line = std::string(slash != nullptr ? slash + 1 : argv[2]) + " " +
                             std::to_string(usage.ru_maxrss) + "\n";
    const int log = open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0 || write(log, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::perror("bench_peak: cannot write the log");
    }
    if (log >= 0) {
        close(log);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
