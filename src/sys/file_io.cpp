#include "sys/file_io.hpp"

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

}  // namespace rv
