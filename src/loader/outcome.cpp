// The output lines of the loader: Error lines and the summary.
#include "loader/outcome.hpp"

#include <algorithm>
#include <cstddef>

#include "sys/progress.hpp"

namespace rv {

void Outcome::report(std::size_t number, std::string_view text, const std::string& message) {
    // The line ends at a NUL byte of the statement, as printed text would;
    // the line breaks of a statement over several lines become blanks.
    std::string line = "Error in line " + std::to_string(number) + ": ";
    line.append(message.c_str());
    if (echo_statement_) {
        const std::size_t start = line.append(" | statement: ").size();
        line.append(text.substr(0, text.find('\0')));
        std::replace_if(line.begin() + static_cast<std::ptrdiff_t>(start), line.end(),
                        [](char c) { return c == '\n' || c == '\r'; }, ' ');
    }
    if (position_ != nullptr) {
        position_->error(number, line);
    }
    report_again(line);
}

void Outcome::report_again(const std::string& line) {
    ++pending_failed_;
    pending_lines_.append(line) += '\n';
}

void Outcome::acknowledge(std::size_t through) {
    succeeded_ += pending_succeeded_;
    failed_ += pending_failed_;
    pending_succeeded_ = 0;
    pending_failed_ = 0;
    if (!pending_lines_.empty()) {
        clear_progress_line();
        std::fwrite(pending_lines_.data(), 1, pending_lines_.size(), out_);
        std::fflush(out_);  // the caller reads them as they come
        pending_lines_.clear();
    }
    if (position_ != nullptr) {
        position_->durable(through);
    }
}

void print_summary(std::FILE* out, std::size_t succeeded, std::size_t failed, bool stopped) {
    clear_progress_line();
    std::fprintf(out, "oaisql: %zu statements, %zu succeeded, %zu failed%s\n", succeeded + failed,
                 succeeded, failed, stopped ? ", stopped" : "");
    std::fflush(out);
}

}  // namespace rv
