// What the fuzz targets share: a throwaway product installation (the test
// sandbox) made once per process, a child runner that records every shell
// line and starts nothing, and a check that aborts, so that libFuzzer keeps
// the input that broke a property.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "support/sandbox.hpp"
#include "sys/runner.hpp"

namespace rvfuzz {

// Aborts with the failed condition when `ok` is false.
#define FUZZ_CHECK(ok)                                                                        \
    do {                                                                                      \
        if (!(ok)) {                                                                          \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #ok, __FILE__, __LINE__); \
            std::abort();                                                                     \
        }                                                                                     \
    } while (false)

// Records every shell line it is asked to run and refuses it: no child is
// ever started.
class RefusingRunner : public rv::ChildRunner {
  public:
    rv::ChildEnd run(const rv::ChildCommand& command) override {
        ran.push_back(command.shell_line);
        rv::ChildEnd end;
        end.how = rv::ChildEnd::How::refused;
        return end;
    }
    std::vector<std::string> ran;
};

// The sandbox of this process (created on first use, with the product
// services installed, the trace off and a protocol file), and the refusing
// runner installed in its place. Standard output goes to /dev/null: the
// steps talk a lot on the console.
rvtest::Sandbox& sandbox();
RefusingRunner& runner();

// True when `name` is a plain identifier as the loader's INSERT parser
// takes it: a letter or '_', then letters, digits, '_' or '$'.
bool plain_identifier(std::string_view name);

}  // namespace rvfuzz
