#include "support.hpp"

#include <fcntl.h>
#include <unistd.h>

#include "log/trace.hpp"

namespace rvfuzz {

namespace {

// Made on first use, removed (with its directory) when the process ends.
struct Fixture {
    Fixture() {
        rv::trace_reset();
        box.use_protocol();
        rv::set_child_runner(&refusing);
        if (const int null = open("/dev/null", O_WRONLY); null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~Fixture() { rv::set_child_runner(nullptr); }
    rvtest::Sandbox box;
    RefusingRunner refusing;
};

Fixture& fixture() {
    static Fixture made;
    return made;
}

}  // namespace

rvtest::Sandbox& sandbox() { return fixture().box; }

RefusingRunner& runner() { return fixture().refusing; }

bool plain_identifier(std::string_view name) {
    const auto start = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    if (name.empty() || !start(name[0])) {
        return false;
    }
    for (const char c : name) {
        if (!start(c) && !(c >= '0' && c <= '9') && c != '$') {
            return false;
        }
    }
    return true;
}

}  // namespace rvfuzz
