// The command line of the loader oaisql: options into LoaderOptions, the
// usage text, and the call of run_loader.
#include "cli/oaisql_cli.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "loader/loader.hpp"

namespace rv {

namespace {

constexpr const char* kUsage =
    "usage: oaisql -c FILE [-e] [-b STATEMENTS_PER_COMMIT] [-g ROWS_PER_INSERT] "
    "[-p POSFILE [-r]] [-q] [-s]\n";

// The decimal count `text` (digits only, 1 to kLoaderCountMax) into
// `count`; false when it is not one.
bool parse_count(const char* text, std::size_t& count) {
    if (*text < '0' || *text > '9') {
        return false;  // strtoull would take a sign or blanks
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || n == 0 || n > kLoaderCountMax) {
        return false;
    }
    count = static_cast<std::size_t>(n);
    return true;
}

// The options of `argv` into `options`; false on a usage error.
bool parse_options(int argc, char** argv, LoaderOptions& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-c" && i + 1 < argc && options.file.empty()) {
            options.file = argv[++i];  // one script a run: a second -c is a usage error
        } else if (arg == "-e") {
            options.echo_statement = true;
        } else if (arg == "-p" && i + 1 < argc && *argv[i + 1] != '\0') {
            options.position = argv[++i];
        } else if (arg == "-r") {
            options.resume = true;
        } else if (arg == "-q") {
            options.quiet = true;
        } else if (arg == "-s") {
            options.statements_only = true;
        } else if ((arg == "-b" || arg == "-g") && i + 1 < argc) {
            if (!parse_count(argv[++i], arg == "-b" ? options.batch : options.group)) {
                return false;
            }
        } else {
            return false;
        }
    }
    return !options.file.empty() && (!options.resume || !options.position.empty());
}

}  // namespace

int oaisql_main(int argc, char** argv) {
    LoaderOptions options;
    if (!parse_options(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return kLoaderStopped;
    }
    return run_loader(options, stdout, stderr);
}

}  // namespace rv
