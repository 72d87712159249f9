#include "sys/timefmt.hpp"

#include <array>
#include <climits>
#include <cstdio>
#include <string_view>

namespace rv {

namespace {

// Longest time stamp handed back.
constexpr std::size_t kStampMax = 24;

bool is_base_time(std::string_view s) {
    return s.size() > 19 && s[0] >= '1' && s[0] <= '9' && s[4] == '-' && s[7] == '-' && s[10] == ' ' &&
           s[13] == ':';
}

// Reads "YYYY-MM-DD hh:mm:ss" into `tm`; fields that cannot be read keep the
// value they had. The wall time is taken by the local daylight-saving rules.
void read_base_time(const std::string& s, std::tm& tm) {
    int year = tm.tm_year + 1900;
    int mon = tm.tm_mon + 1;
    std::sscanf(s.c_str(), "%04d-%02d-%02d %02d:%02d:%02d", &year, &mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                &tm.tm_sec);
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_isdst = -1;
}

// Adds `n` to `field`; false when the sum leaves the range of int.
bool add_to(int& field, long long n) {
    const long long sum = static_cast<long long>(field) + n;
    if (sum < INT_MIN || sum > INT_MAX) {
        return false;
    }
    field = static_cast<int>(sum);
    return true;
}

// Applies the command to `tm`; false when the result cannot be represented.
bool apply_command(const std::string& cmd, std::tm& tm) {
    if (cmd.empty()) {
        return true;
    }
    int n = 0;
    switch (cmd[0]) {
        case 'D':
            return std::sscanf(cmd.c_str(), "D %d", &n) != 1 || add_to(tm.tm_mday, n);
        case 'H':
            return std::sscanf(cmd.c_str(), "H %d", &n) != 1 || add_to(tm.tm_hour, n);
        case 'M':
            return std::sscanf(cmd.c_str(), "M %d", &n) != 1 || add_to(tm.tm_min, n);
        case 'S':
            return std::sscanf(cmd.c_str(), "S %d", &n) != 1 || add_to(tm.tm_sec, n);
        case 'T':
            return add_to(tm.tm_mday, 1);
        case 'Y':
            return add_to(tm.tm_mday, -1);
        default:
            return true;
    }
}

}  // namespace

std::string& time_get(std::string& cpTime) {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);

    std::string cmd = cpTime;
    if (is_base_time(cpTime)) {
        read_base_time(cpTime.substr(0, 19), tm);
        cmd = cpTime.substr(20);
    }

    std::time_t stamp = kTimeFallback;
    if (apply_command(cmd, tm)) {
        stamp = std::mktime(&tm);
        if (stamp == static_cast<std::time_t>(-1)) {
            stamp = kTimeFallback;
        }
    }
    localtime_r(&stamp, &tm);

    std::array<char, 64> out{};
    const std::size_t len = (!cmd.empty() && cmd[0] == 'I')
                                ? std::strftime(out.data(), out.size(), "%Y%m%d%H%M%S", &tm)
                                : std::strftime(out.data(), out.size(), "%Y-%m-%d %H:%M:%S %a", &tm);
    cpTime.assign(out.data(), len < kStampMax ? len : kStampMax);
    return cpTime;
}

}  // namespace rv
