// Runs a built program as a user would: arguments, extra environment,
// standard input; returns its standard output, standard error and exit status.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace rvtest {

struct RunResult {
    std::string out;
    std::string err;
    int status = -1;  // exit status, or 128 + signal number
};

// Path of a program built into the build's bin directory.
std::string bin(const std::string& name);

// Runs `argv` (argv[0] is the program path) with the test's environment plus
// `env` (an empty value unsets the variable), feeding `input` on standard input.
RunResult run(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
              const std::string& input = "");

}  // namespace rvtest
