// The progress line: its text, its draws on a terminal with a clock of the
// test's own (throttled to two a second, the clock looked at once every so
// many rows), and nothing at all, not even a look at the clock, on a file.
#include "sys/progress.hpp"

#include <gtest/gtest.h>

#include <cstdio>

#include "support/sandbox.hpp"
#include "sys/file_io.hpp"
#include "support/terminal.hpp"

namespace {

using rv::ProgressLine;

TEST(Progress, TextShowsRowsTotalRateAndTimeLeft) {
    struct Case {
        std::uint64_t done;
        std::optional<std::uint64_t> total;
        std::optional<double> rate;
        const char* text;
    };
    const Case cases[] = {
        {0, std::nullopt, std::nullopt, "dump media: 0 rows"},
        {1234567, 2000000, std::nullopt, "dump media: 1,234,567 of 2,000,000 rows"},
        {1000, std::nullopt, 2500.4, "dump media: 1,000 rows, 2,500 rows/s"},
        {50000, 200000, 25000.0, "dump media: 50,000 of 200,000 rows, 25,000 rows/s, 0:06 left"},
        {199999, 200000, 3.0, "dump media: 199,999 of 200,000 rows, 3 rows/s, 0:01 left"},  // rounded up
        {0, 100000, 10.0, "dump media: 0 of 100,000 rows, 10 rows/s, 2:46:40 left"},
        {59, 659, 10.0, "dump media: 59 of 659 rows, 10 rows/s, 1:00 left"},
        {5, 10, 0.0, "dump media: 5 of 10 rows, 0 rows/s"},        // stalled: no time left
        {12, 10, 4.0, "dump media: 12 of 10 rows, 4 rows/s"},      // beyond the total
        {10, 10, 4.0, "dump media: 10 of 10 rows, 4 rows/s, 0:00 left"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(rv::progress_text({"dump media", c.done, c.total, c.rate}), c.text);
    }
}

// A clock of the test's own that counts how often it is asked.
struct FakeClock {
    std::int64_t now = 1000;
    int asked = 0;
    rv::ProgressClock clock() {
        return [this] {
            ++asked;
            return now;
        };
    }
};

std::string drawn(const std::string& text) { return "\r" + text + "\x1b[K"; }
const std::string kErased = "\r\x1b[K";

TEST(Progress, DrawsAtMostTwiceASecondAndIsErasedAtTheEnd) {
    rvtest::Pty pty;
    FakeClock t;
    using Act = void (*)(ProgressLine&);
    // The clock moves on, something happens, the terminal shows this.
    const std::tuple<std::int64_t, Act, std::string> steps[] = {
        {0, [](ProgressLine& l) { l.advance(1); }, drawn("change media: 256 rows")},
        {400, [](ProgressLine& l) { l.advance(256); }, ""},  // within half a second
        {100, [](ProgressLine& l) { l.advance(256); }, drawn("change media: 768 rows, 1,536 rows/s")},
        {500, [](ProgressLine& l) { l.set_total(1000), l.set_done(900); },
         drawn("change media: 900 of 1,000 rows, 900 rows/s, 0:01 left")},
        {0, [](ProgressLine& l) { l.rebase(); }, ""},  // the rate counts from here
        {1000, [](ProgressLine& l) { l.set_done(950); }, drawn("change media: 950 of 1,000 rows, 50 rows/s, 0:01 left")},
        {0, [](ProgressLine& l) { l.clear(), l.clear(); }, kErased},
        {100, [](ProgressLine& l) { l.refresh(); }, ""},  // an erased line comes back when due
        {400, [](ProgressLine& l) { l.refresh(); }, drawn("change media: 950 of 1,000 rows, 33 rows/s, 0:02 left")},
        {0, [](ProgressLine&) { rv::clear_progress_line(); }, kErased},  // before other console output
        {500, [](ProgressLine& l) { l.refresh(); }, drawn("change media: 950 of 1,000 rows, 25 rows/s, 0:02 left")},
    };
    {
        ProgressLine line(pty.terminal(), "change media", std::nullopt, t.clock());
        ASSERT_TRUE(line.live());
        line.advance(rv::kProgressCheckEvery - 1);
        EXPECT_EQ(t.asked, 1) << "the clock was asked for a row";
        for (const auto& [ms, act, shown] : steps) {
            t.now += ms;
            act(line);
            EXPECT_EQ(pty.written(), shown) << "at " << t.now;
        }
    }
    EXPECT_EQ(pty.written(), kErased) << "not erased at its end";
}

TEST(Progress, ALongLineIsCutToTheTerminalAndOneLineShowsAtATime) {
    rvtest::Pty pty(24);
    FakeClock t;
    ProgressLine first(pty.terminal(), "import a_table_with_a_long_name", 10, t.clock());
    first.refresh();
    EXPECT_EQ(pty.written(), drawn("import a_table_with_a_l"));  // 23 of 24 columns
    ProgressLine second(pty.terminal(), "import b", 10, t.clock());
    second.refresh();
    EXPECT_EQ(pty.written(), kErased + drawn("import b: 0 of 10 rows"));
}

TEST(Progress, OnAFileNothingIsWrittenAndTheClockIsNeverAsked) {
    rvtest::Sandbox box;
    const std::string file = box.path("err.txt");
    FakeClock t;
    {
        const rv::FilePtr out(std::fopen(file.c_str(), "w"));
        ProgressLine line(fileno(out.get()), "import media", 200000, t.clock());
        EXPECT_FALSE(line.live());
        for (int i = 0; i < 200000; ++i) {
            line.advance();
        }
        line.set_done(200000);
        line.rebase();
        line.refresh();
        line.clear();
        rv::clear_progress_line();
    }
    EXPECT_EQ(t.asked, 0);
    EXPECT_EQ(rvtest::read_file(file), "");
}

}  // namespace
