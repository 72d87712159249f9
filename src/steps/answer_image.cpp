// The answer's lines as they come: the names behind the echoed statement,
// the rows as image lines, the footer; the checks once the client has ended.
#include "steps/answer_image.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "config/files.hpp"
#include "log/trace.hpp"
#include "steps/psql_dump.hpp"
#include "steps/table_image.hpp"
#include "sys/strings.hpp"

namespace rv {

namespace {

// The image line "|name=value|...|\n" of the answer's row `line` (values
// trimmed of blanks) into `record`, its storage reused; false when the row
// has not one field for each of `names`.
bool image_record(std::string_view line, const std::vector<std::string>& names, std::string& record) {
    record.assign("|");
    std::size_t field = 0;
    for (std::size_t at = 0; at <= line.size(); ++field) {
        const std::size_t bar = std::min(line.find('|', at), line.size());
        if (field == names.size()) {
            return false;
        }
        record.append(names[field]).append(1, '=').append(trimmed(line.substr(at, bar - at))).append(1, '|');
        at = bar + 1;
    }
    record += '\n';
    return field == names.size();
}

}  // namespace

bool parse_footer(const std::string& line, long& count) {
    if (line.empty() || line.front() != '(') {
        return false;  // the scan would fail at the first character, at the cost of a scan
    }
    char tail[8] = {};
    int used = 0;
    long number = 0;
    if (std::sscanf(line.c_str(), "(%ld %6[rows])%n", &number, tail, &used) != 2 ||
        static_cast<std::size_t>(used) != line.size()) {
        return false;
    }
    if (std::string_view(tail) != "rows" && (std::string_view(tail) != "row" || number != 1)) {
        return false;
    }
    count = number;
    return true;
}

std::optional<std::uint64_t> footer_of(const std::string& sqo) {
    FilePtr in(std::fopen(sqo.c_str(), "r"));
    if (!in || std::fseek(in.get(), 0, SEEK_END) != 0) {
        return std::nullopt;
    }
    constexpr long kTail = 64;  // longer than any footer and its line feed
    const long size = std::ftell(in.get());
    std::fseek(in.get(), size > kTail ? size - kTail : 0, SEEK_SET);
    std::string line;
    std::string last;
    while (read_line(in.get(), line)) {
        last = line.empty() ? last : line;
    }
    long count = -1;
    if (!parse_footer(last, count) || count < 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(count);
}

AnswerImage::AnswerImage(std::string id, std::string sqo)
    : id_(std::move(id)),
      sqo_(std::move(sqo)),
      image_(table_image_path(id_)),
      progress_(STDERR_FILENO, "dump " + id_ + " (image)") {
    if (!image_.empty()) {
        out_ = std::make_unique<AtomicFile>(image_);
        open_errno_ = out_->ok() ? 0 : errno;
    }
}

void AnswerImage::advance() noexcept {
    if (!out_ || !out_->ok()) {
        return;
    }
    if (!in_) {
        in_ = open_sequential(sqo_);  // the client may not have begun it yet
    }
    std::string line;
    while (in_ && refusal_.empty() && footer_count_ < 0 && next_line(line, true)) {
        take(line);
    }
}

bool AnswerImage::finish(std::string& msg) {
    WRITE_TRACE(1, "+++ iPGSQL_MAKE_DB_GET_FILE");
    finishing_ = true;
    const auto fail = [&](const std::string& why) {
        msg = why;
        if (!image_.empty()) {
            std::remove(image_.c_str());
        }
        WRITE_TRACE(1, "--- PGSQL_MAKE_DB_GET_FILE returns -1: %s ", msg.c_str());
        return false;
    };
    if (image_.empty()) {
        return fail(std::string("iPGSQL_MAKE_DB_GET_FILE: ") + kWorkDirUnknown);
    }
    if (!out_->ok()) {
        return fail("Can't open file " + out_->temp() + " to write: " + std::strerror(open_errno_));
    }
    if (!in_ && !(in_ = open_sequential(sqo_))) {
        return fail("Can't open file " + sqo_ + " to read");
    }
    if (progress_.live()) {
        if (const auto footer = footer_of(sqo_)) {
            progress_.set_total(*footer);
        }
        progress_.set_done(static_cast<std::uint64_t>(rows_));
    }
    std::string line;
    while (refusal_.empty() && footer_count_ < 0 && next_line(line, false)) {
        take(line);
    }
    if (lines_ < 2) {
        return fail("Can't find lines with column-names");
    }
    if (!refusal_.empty()) {
        return fail(refusal_);
    }
    if (const std::string refusal = count_refusal(); !refusal.empty()) {
        return fail(refusal);
    }
    in_.reset();
    if (rows_ == 0) {
        std::remove(image_.c_str());
    } else if (!out_->commit()) {
        const int err = errno;
        i_FILE_CLOSE(err);
        return fail("Can't write file " + image_ + ": " + out_->why());
    }
    msg = std::to_string(rows_);
    WRITE_TRACE(1, "--- PGSQL_MAKE_DB_GET_FILE   rows= %s ", msg.c_str());
    return true;
}

bool AnswerImage::next_line(std::string& line, bool whole_only) {
    if (!read_line(in_.get(), line, LineFeed::keep)) {
        std::clearerr(in_.get());  // the client may write more
        if (whole_only || partial_.empty()) {
            return false;
        }
        line = std::exchange(partial_, std::string());
        return true;
    }
    const bool whole = line.back() == '\n';
    if (whole) {
        line.pop_back();
    } else {
        std::clearerr(in_.get());
    }
    if (!partial_.empty()) {
        line.insert(0, std::exchange(partial_, std::string()));
    }
    if (!whole && whole_only) {
        partial_ = std::move(line);
        return false;
    }
    return true;
}

void AnswerImage::take(const std::string& line) {
    if (lines_ < 2) {
        if (lines_++ == 0) {
            return;  // the echoed statement
        }
        names_ = split(line, '|', EmptyFields::keep);
        for (const auto& name : names_) {
            WRITE_TRACE(3, "column: %s ", name.c_str());
        }
        WRITE_TRACE(3, "read the values");
        lower_names_ = names_;
        std::for_each(lower_names_.begin(), lower_names_.end(), [](std::string& name) { lowercase(name); });
        return;
    }
    if (parse_footer(line, footer_count_)) {
        return;
    }
    if (rows_ == 0 && !(refusal_ = column_refusal()).empty()) {
        return;
    }
    WRITE_TRACE(3, "values: %s ", line.c_str());
    if (!image_record(line, lower_names_, record_)) {
        refusal_ = "iPGSQL_MAKE_DB_GET_FILE: row " + std::to_string(rows_ + 1) + " of " + id_ + " has " +
                   std::to_string(std::count(line.begin(), line.end(), '|') + 1) + " fields for " +
                   std::to_string(names_.size()) +
                   " columns (a value holding '|' or a line break cannot be dumped): " + line;
        return;
    }
    std::fwrite(record_.data(), 1, record_.size(), out_->stream());
    ++rows_;
    if (finishing_) {
        progress_.advance();
    }
}

std::string AnswerImage::column_refusal() const {
    if (names_.size() > kDumpColumnsMax) {
        return "iPGSQL_MAKE_DB_GET_FILE: " + id_ + " has " + std::to_string(names_.size()) +
               " columns, a table image holds at most " + std::to_string(kDumpColumnsMax);
    }
    for (const auto& name : names_) {
        // The image's reader takes the name up to the first '='.
        if (name.empty() || name.find('=') != std::string::npos) {
            return "iPGSQL_MAKE_DB_GET_FILE: column name \"" + name + "\" of " + id_ +
                   " is empty or holds '=', a table image cannot carry it";
        }
        if (name.size() > kDumpColumnNameMax) {
            return "iPGSQL_MAKE_DB_GET_FILE: column name " + name + " of " + id_ + " has " +
                   std::to_string(name.size()) + " bytes, a table image allows at most " +
                   std::to_string(kDumpColumnNameMax);
        }
    }
    return {};
}

std::string AnswerImage::count_refusal() const {
    if (footer_count_ < 0) {
        return rows_ > 0 ? "iPGSQL_MAKE_DB_GET_FILE: " + id_ + ": no row count at the end of " + sqo_
                         : std::string();
    }
    if (rows_ == 0) {
        if (std::string refusal = column_refusal(); !refusal.empty()) {
            return refusal;
        }
    }
    if (footer_count_ != rows_) {
        return "iPGSQL_MAKE_DB_GET_FILE: " + id_ + ": " + std::to_string(rows_) +
               " rows read, but the database reported " + std::to_string(footer_count_);
    }
    return {};
}

}  // namespace rv
