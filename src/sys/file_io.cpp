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

}  // namespace rv
