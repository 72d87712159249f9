#include "config/ini_listing.hpp"

#include <cctype>

namespace rv {

namespace {

// As in the lookups: references nested this deep are refused.
constexpr int kReferenceDepthMax = 32;

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

// The pieces of the lines of `text` that the lookups read, each with the
// line it belongs to.
std::vector<std::pair<std::string_view, int>> pieces(std::string_view text,
                                                     std::vector<int>& long_lines) {
    std::vector<std::pair<std::string_view, int>> out;
    int number = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        ++number;
        const std::size_t feed = text.find('\n', begin);
        const std::size_t end = feed == std::string_view::npos ? text.size() : feed;
        const std::string_view line = text.substr(begin, end - begin);
        if (line.size() > kIniLinePiece) {
            long_lines.push_back(number);
        }
        for (std::size_t at = 0; at < line.size(); at += kIniLinePiece) {
            out.emplace_back(line.substr(at, kIniLinePiece), number);
        }
        begin = end + 1;
    }
    return out;
}

}  // namespace

IniListing::IniListing(std::string_view text) {
    for (const auto& [piece, number] : pieces(text, long_lines_)) {
        if (piece.front() == '#') {
            continue;
        }
        if (piece.front() == '[') {
            const std::size_t close = piece.find(']');
            const std::size_t end = close == std::string_view::npos ? piece.size() : close;
            sections_.push_back({std::string(piece.substr(1, end - 1)), number, {}});
            headers_.push_back(lowered(piece));
            continue;
        }
        const std::size_t eq = piece.find('=');
        if (sections_.empty() || eq == std::string_view::npos) {
            continue;
        }
        std::string value(piece.substr(eq + 1));
        // Trailing blanks go, unless the value is nothing but blanks.
        if (const std::size_t last = value.find_last_not_of(' '); last != std::string::npos) {
            value.erase(last + 1);
        }
        sections_.back().keys.push_back({std::string(piece.substr(0, eq)), value, number});
    }
}

const IniSectionLines* IniListing::find(std::string_view name) const {
    const std::string wanted = lowered("[" + std::string(name) + "]");
    if (wanted.size() > kIniSectionMax) {
        return nullptr;
    }
    for (std::size_t i = 0; i < headers_.size(); ++i) {
        if (headers_[i].starts_with(wanted)) {
            return &sections_[i];
        }
    }
    return nullptr;
}

const IniKeyLine* IniListing::find(const IniSectionLines& section, std::string_view key) {
    const std::string wanted = lowered(key);
    for (const IniKeyLine& line : section.keys) {
        if (lowered(line.key) == wanted) {
            return &line;
        }
    }
    return nullptr;
}

IniListing::Found IniListing::lookup(std::string_view name, std::string_view key, std::size_t size,
                                     int depth, std::string& out) const {
    if (depth >= kReferenceDepthMax) {
        return Found::too_deep;
    }
    const IniSectionLines* section = key.size() > kIniKeyMax ? nullptr : find(name);
    const IniKeyLine* line = section == nullptr ? nullptr : find(*section, key);
    if (line == nullptr) {
        return Found::no;
    }
    std::string text = line->value;
    const std::size_t open = text.find("%(");
    const std::size_t close = open == std::string::npos ? open : text.find(')', open + 2);
    if (close != std::string::npos) {
        const std::string other = text.substr(open + 2, close - open - 2);
        std::string referenced;
        Found found = lookup(name, other, size, depth + 1, referenced);
        if ((found == Found::no || found == Found::empty) && name != "DEFAULT") {
            found = lookup("DEFAULT", other, size, depth + 1, referenced);
        }
        if (found != Found::yes) {
            return found == Found::too_deep ? found : Found::no;
        }
        text = text.substr(0, open) + referenced + text.substr(close + 1);
    }
    out = text.substr(0, size == 0 ? 0 : size - 1);
    return out.empty() ? Found::empty : Found::yes;
}

std::optional<std::string> IniListing::value(std::string_view name, std::string_view key,
                                             std::size_t size) const {
    std::string out;
    switch (lookup(name, key, size, 0, out)) {
        case Found::yes:
            return out;
        case Found::empty:
            return std::string();
        default:
            return std::nullopt;
    }
}

}  // namespace rv
