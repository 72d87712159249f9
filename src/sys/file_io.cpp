#include "sys/file_io.hpp"

#include <algorithm>

namespace rv {

bool read_line(std::FILE* fp, std::string& line, LineFeed lf) {
    line.clear();
    int c;
    // Tables run to millions of lines: no lock per character.
    while ((c = getc_unlocked(fp)) != EOF) {
        if (c == '\n') {
            if (lf == LineFeed::keep) {
                line.push_back('\n');
            }
            return true;
        }
        line.push_back(static_cast<char>(c));
    }
    return !line.empty();
}

bool read_piece(std::FILE* fp, std::string& piece, std::size_t max) {
    piece.clear();
    int c = 0;
    while (piece.size() < max && (c = std::getc(fp)) != EOF) {
        piece.push_back(static_cast<char>(c));
        if (c == '\n') {
            break;
        }
    }
    return !piece.empty();
}

std::size_t LineFeedCount::update() {
    if (!file_) {
        file_.reset(std::fopen(path_.c_str(), "r"));
        if (!file_) {
            return count_;
        }
    }
    std::clearerr(file_.get());  // a file that grows goes on after its end
    char buffer[65536];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file_.get())) > 0) {
        count_ += static_cast<std::size_t>(std::count(buffer, buffer + n, '\n'));
    }
    return count_;
}

}  // namespace rv
