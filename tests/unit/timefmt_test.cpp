#include "sys/timefmt.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace {

// Sets the time zone for the lifetime of the guard.
class TzGuard {
public:
    explicit TzGuard(const char* zone) {
        if (const char* old = std::getenv("TZ")) {
            saved_ = old;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TzGuard() {
        if (saved_) {
            setenv("TZ", saved_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TzGuard(const TzGuard&) = delete;
    TzGuard& operator=(const TzGuard&) = delete;

private:
    std::optional<std::string> saved_;
};

std::string stamp(std::string cmd) { return rv::time_get(cmd); }

enum class Form { Long, Compact };

std::string format_at(std::time_t t, Form form) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[64];
    const std::size_t n = form == Form::Compact ? std::strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &tm)
                                                : std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %a", &tm);
    return std::string(buf, n);
}

bool is_summer_time(std::time_t t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    return tm.tm_isdst > 0;
}

// Runs `cmd` and checks the result against the current time shifted by
// `offset`, in the form `form` (either side of a second boundary counts).
void expect_now_plus(const std::string& cmd, long offset, Form form) {
    const std::time_t before = std::time(nullptr);
    const std::string got = stamp(cmd);
    const std::time_t after = std::time(nullptr);
    EXPECT_TRUE(got == format_at(before + offset, form) || got == format_at(after + offset, form))
        << cmd << " gave " << got;
}

}  // namespace

TEST(TimeGet, CommandsOnABaseTime) {
    TzGuard utc("UTC");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 D 1"), "2007-03-23 11:57:00 Fri");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 D1"), "2007-03-23 11:57:00 Fri");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 D -1"), "2007-03-21 11:57:00 Wed");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 H 13"), "2007-03-23 00:57:00 Fri");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 M -58"), "2007-03-22 10:59:00 Thu");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 T"), "2007-03-23 11:57:00 Fri");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 Y"), "2007-03-21 11:57:00 Wed");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 I"), "20070322115700");
    // Unknown commands and unreadable numbers change nothing.
    EXPECT_EQ(stamp("2007-03-22 11:57:00 X 5"), "2007-03-22 11:57:00 Thu");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 D x"), "2007-03-22 11:57:00 Thu");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 "), "2007-03-22 11:57:00 Thu");
}

TEST(TimeGet, NormalisesCarriesAndFallsBackWhenUnrepresentable) {
    TzGuard utc("UTC");
    EXPECT_EQ(stamp("2007-02-28 23:00:00 H 1"), "2007-03-01 00:00:00 Thu");
    EXPECT_EQ(stamp("2007-12-31 23:59:59 S 1"), "2008-01-01 00:00:00 Tue");
    EXPECT_EQ(stamp("2007-01-31 10:00:00 D 30"), "2007-03-02 10:00:00 Fri");
    EXPECT_EQ(stamp("2007-03-22 11:57:00 D 2147483647"), "2038-01-19 03:14:07 Tue");
}

TEST(TimeGet, BaseTimeFollowsLocalDaylightSavingRules) {
    TzGuard berlin("Europe/Berlin");
    // 2007-07-01 is in summer time where the zone is known.
    if (!is_summer_time(1183291200)) {
        GTEST_SKIP() << "no time zone data";
    }
    // 02:30 does not exist on the day summer time starts.
    EXPECT_EQ(stamp("2007-03-25 01:30:00 H 1"), "2007-03-25 03:30:00 Sun");
    EXPECT_EQ(stamp("2007-03-24 12:00:00 T"), "2007-03-25 12:00:00 Sun");
    EXPECT_EQ(stamp("2007-07-01 12:00:00 I"), "20070701120000");
}

TEST(TimeGet, WithoutBaseTheCurrentTimeIsUsed) {
    TzGuard utc("UTC");
    expect_now_plus("I", 0, Form::Compact);
    expect_now_plus("T", 86400, Form::Long);
    expect_now_plus("D -2", -2 * 86400, Form::Long);
    // A year that begins with 0 is no base time; the command then begins
    // with a digit, so the current time is written.
    expect_now_plus("0007-03-22 11:57:00 D 1", 0, Form::Long);
    // Too short for a base time.
    expect_now_plus("2007-03-22 11:57:00", 0, Form::Long);
    EXPECT_LE(stamp("").size(), 24u);
}
