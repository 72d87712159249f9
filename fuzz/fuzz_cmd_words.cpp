// The words of cmd steps and the removal command of rmdir steps, on a Unix
// and on a Windows installation, with product paths and global variables
// from a throwaway installation. Beyond crashes: the command line is the
// rewritten words, each behind one blank, and a text without a word ends
// the run; a word naming nothing stays as it is on Unix; no rewritten word
// grows beyond a path and a variable value; the removal command is the
// system's and holds no '/' on Windows.
#include <cstdint>
#include <string>

#include "config/glbv.hpp"
#include "config/ini.hpp"
#include "config/product.hpp"
#include "log/finish.hpp"
#include "steps/command.hpp"
#include "support.hpp"

namespace {

// Room for a path of rv.ini, a variable's value and a date stamp.
constexpr std::size_t kGrowthMax = rv::kIniValueSize + rv::kGlbvValueMax + 32;

void check_line(std::string_view text) {
    std::string line;
    try {
        line = rv::build_command_line(text);
    } catch (const rv::Fatal&) {
        FUZZ_CHECK(text.find_first_not_of(' ') == std::string_view::npos);
        return;
    }
    FUZZ_CHECK(text.find_first_not_of(' ') != std::string_view::npos);
    if (text.find("gv_date") != std::string_view::npos) {
        return;  // the stamp may change between two calls
    }
    std::string words;
    for (std::size_t pos = text.find_first_not_of(' '); pos != std::string_view::npos;) {
        const std::size_t end = std::min(text.find(' ', pos), text.size());
        const std::string_view word = text.substr(pos, end - pos);
        const std::string rewritten = rv::rewrite_command_word(word);
        FUZZ_CHECK(rewritten.size() <= word.size() + kGrowthMax);
        if (rv::pathes.separator == '/' && word.find(':') == std::string_view::npos) {
            FUZZ_CHECK(rewritten == word);
        }
        words += " " + rewritten;
        pos = text.find_first_not_of(' ', end);
    }
    FUZZ_CHECK(line == words);
}

void check_rmdir(std::string_view text) {
    const std::string cmd = rv::rmdir_command(text);
    if (rv::pathes.separator == '/') {
        FUZZ_CHECK(cmd.starts_with("rm -rf ") && cmd.size() <= 7 + text.size() + kGrowthMax);
    } else {
        FUZZ_CHECK(cmd.starts_with("del \\s \\f ") && cmd.find('/') == std::string::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    rvtest::Sandbox& box = rvfuzz::sandbox();
    static const bool ready = [&] {
        box.set_glbv("gv_name", "value with blanks");
        box.set_glbv("gv_dir", "/var/opt/ravik/");
        return true;
    }();
    (void)ready;
    if (size == 0) {
        return 0;
    }
    rv::pathes.separator = data[0] % 2 == 0 ? '/' : '\\';
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    check_line(text);
    check_rmdir(text);
    rv::pathes.separator = '/';
    return 0;
}
