// A progress line on a terminal. While long work runs, one line shows what
// is worked on, the rows done (of the total, where it is known), the rows
// per second and the time left (with a total). The line is redrawn in place
// (carriage return, the text, erase to the end of the line) at most twice a
// second, and erased when the work ends or before other text goes to the
// console. It is written only to a terminal: on any other file nothing is
// written at all, and counting a row costs an addition and a test, no clock.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace rv {

// A steady clock in milliseconds; tests pass one of their own.
using ProgressClock = std::function<std::int64_t()>;

// The shortest time between two draws.
inline constexpr std::int64_t kProgressRedrawMs = 500;
// advance() looks at the clock once every this many rows.
inline constexpr std::uint64_t kProgressCheckEvery = 256;

// What a draw shows.
struct ProgressState {
    std::string_view label;
    std::uint64_t done = 0;
    std::optional<std::uint64_t> total;
    std::optional<double> rate;  // rows per second, once it can be told
};

// "<label>: <done>[ of <total>] rows[, <rate> rows/s][, <time> left]",
// numbers with thousands separators, the time left as m:ss or h:mm:ss (only
// with a total and a rate above zero).
std::string progress_text(const ProgressState& state);

class ProgressLine {
  public:
    // A line labelled `label` on `fd`, written only when `fd` is a
    // terminal, first at the first refresh (so work that ends within a
    // tick or kProgressCheckEvery rows shows none); the clock is the steady
    // clock unless `clock` is given.
    ProgressLine(int fd, std::string label, std::optional<std::uint64_t> total = std::nullopt,
                 ProgressClock clock = {});
    ~ProgressLine();  // erases the line
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Whether the line is written at all (its file is a terminal).
    bool live() const { return live_; }

    void set_total(std::uint64_t total) { total_ = total; }

    // Counts `rows` more; redraws when due, looking at the clock only once
    // every kProgressCheckEvery rows.
    void advance(std::uint64_t rows = 1) {
        done_ += rows;
        if (live_ && rows >= countdown_) {
            countdown_ = kProgressCheckEvery;
            refresh();
        } else if (live_) {
            countdown_ -= rows;
        }
    }

    // The rows done are `done` (told by someone who counts them); redraws
    // when due.
    void set_done(std::uint64_t done);

    // Shows the line with nothing done yet, so that work that ends before
    // its first count still shows; the first count is drawn at once.
    void show_start();

    // The rate counts only the rows done from now on (work that went on
    // from an earlier run's position).
    void rebase();

    // Draws the line the first time, then whenever the last draw is
    // kProgressRedrawMs old.
    void refresh();

    // Erases the line when it is on show; the next due draw shows it again.
    void clear();

  private:
    std::int64_t now() const;
    void draw(std::int64_t at);

    int fd_;
    std::string label_;
    std::optional<std::uint64_t> total_;
    ProgressClock clock_;
    bool live_;
    int width_ = 80;
    std::uint64_t done_ = 0;
    std::uint64_t countdown_ = kProgressCheckEvery;
    bool drawn_ = false;
    std::int64_t drawn_at_ = 0;
    std::int64_t base_at_ = 0;
    std::uint64_t base_done_ = 0;
};

// Erases the progress line on show, if any: called before other text goes
// to the console.
void clear_progress_line();

// The same for a signal handler (async-signal-safe): erases the line on
// show; the line is drawn again when next due.
void erase_progress_line_in_handler();

}  // namespace rv
