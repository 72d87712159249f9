// The ini reader: key lookups with %(name) references in a file the input
// makes. Beyond crashes: a found value is not empty, holds no line feed and
// is cut below the size asked for, with an empty message; a failure says why
// in a message of the reader; a smaller size gives the start of the value a
// larger one gives; a value without references, written back as a key of
// its own, reads back the same. References that lead in a ring end (by
// libFuzzer's -timeout, a hang would be a finding).
#include <cstdint>
#include <string>

#include "config/ini.hpp"
#include "support.hpp"

namespace {

constexpr std::string_view kSections[] = {"[s]", "[DEFAULT]", ""};
constexpr std::string_view kKeys[] = {"a", "b", "C"};

void check_lookup(const std::string& file, std::string_view section, std::string_view key, std::size_t small) {
    std::string value, msg;
    const bool found = rv::i_GetPrivateProfileString(file, section, key, value, msg);
    if (!found) {
        FUZZ_CHECK(msg.starts_with("i_GetPrivateProfileString: "));
        return;
    }
    FUZZ_CHECK(msg.empty() && !value.empty() && value.size() < rv::kIniValueSize);
    FUZZ_CHECK(value.find('\n') == std::string::npos);
    std::string cut, cutMsg;
    FUZZ_CHECK(rv::i_GetPrivateProfileString(file, section, key, cut, cutMsg, small));
    FUZZ_CHECK(cut == value.substr(0, small - 1));
    const bool blankEnd = value.back() == ' ' && value.find_first_not_of(' ') != std::string::npos;
    if (value.find("%(") != std::string::npos || blankEnd) {
        return;  // a reference, or the blanks a referenced value ended in: no key line holds these
    }
    const std::string again = rvfuzz::sandbox().path("again.ini");
    rvtest::write_file(again, "[x]\nk=" + value + "\n");
    std::string read;
    FUZZ_CHECK(rv::i_GetPrivateProfileString(again, "[x]", "k", read, msg) && read == value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string file = rvfuzz::sandbox().path("fuzz.ini");
    rvtest::write_file(file, std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    const std::size_t small = 2 + data[0] % 40;
    for (const std::string_view section : kSections) {
        for (const std::string_view key : kKeys) {
            check_lookup(file, section, key, small);
        }
    }
    return 0;
}
