#include "sys/console.hpp"

namespace rv {

void getline(std::string& s, int lim, std::FILE* in) {
    std::string buf(lim > 1 ? static_cast<std::size_t>(lim - 1) : 0, '\0');
    std::size_t i = 0;
    int c;
    while ((c = std::fgetc(in)) != EOF && c != '\n') {
        if (buf.empty()) {
            continue;
        }
        buf[i++] = static_cast<char>(c);
        if (i >= buf.size()) {
            i = 0;
        }
    }
    s.assign(buf, 0, i);
}

}  // namespace rv
