// The client's answer to a dump's select, "<gv_rw_tmp><id>.sqo", turned into
// the table image "<gv_rw_work>db_<id>.tmp" while the client still writes
// it: the echoed statement, the column names, one line a row of values
// between "|", and the row count footer "(N rows)". An answer that cannot
// become a faithful image (see psql_dump.hpp) leaves no image, not even an
// older one.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sys/atomic_file.hpp"
#include "sys/file_io.hpp"
#include "sys/progress.hpp"

namespace rv {

// The client's row count footer: exactly "(N rows)" or "(1 row)". `count`
// is set only by a footer.
bool parse_footer(const std::string& line, long& count);

// The row count footer that ends the answer `sqo`, or nullopt.
std::optional<std::uint64_t> footer_of(const std::string& sqo);

class AnswerImage {
  public:
    // Converts the answer `sqo` of the dump of `id` into its image, written
    // under a temporary name until finish() succeeds.
    AnswerImage(std::string id, std::string sqo);

    // Converts the lines the answer holds whole by now (the client may be
    // writing the next). Nothing is said or removed here; a refused answer
    // is only kept for finish(). Does not throw.
    void advance() noexcept;

    // The client has ended: converts the rest, checks the row count and puts
    // the image in place (no rows: no image). True with the row count in
    // `msg`; false with the reason, and no image of `id` left.
    bool finish(std::string& msg);

  private:
    // The next line of the answer into `line`, without its line feed; with
    // `whole_only`, a last line without its line feed is kept for the next
    // call instead (the client is still writing it).
    bool next_line(std::string& line, bool whole_only);

    // Takes one line of the answer: the statement, the names, a row, the
    // footer. Sets refusal_ when the answer cannot become an image.
    void take(const std::string& line);

    // Why the rows read do not match the footer (or there is none); "" when
    // they do.
    std::string count_refusal() const;

    // Why the columns do not fit an image; "" when they do.
    std::string column_refusal() const;

    std::string id_;
    std::string sqo_;
    std::string image_;  // "" when the work directory is unknown
    std::unique_ptr<AtomicFile> out_;
    int open_errno_ = 0;  // why out_ could not be opened
    FilePtr in_;
    ProgressLine progress_;  // counts the rows written once the client has ended
    bool finishing_ = false;
    int lines_ = 0;  // of the answer taken so far, up to the first row
    std::vector<std::string> names_;       // as the client printed them
    std::vector<std::string> lower_names_;  // as the image writes them
    long rows_ = 0;
    long footer_count_ = -1;  // -1 until a row count footer was read
    std::string refusal_;     // why the answer cannot become an image
    std::string partial_;     // the start of a line the client is still writing
    std::string record_;      // an image line, its storage reused
};

}  // namespace rv
