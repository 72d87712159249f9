#include "sys/strings.hpp"

#include <algorithm>
#include <cstdarg>

#include <cctype>
#include <cstdio>
#include <cstring>


namespace rv {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && is_blank(s.back())) {
        s.remove_suffix(1);
    }
    while (!s.empty() && is_blank(s.front())) {
        s.remove_prefix(1);
    }
    return s;
}

std::string& str_trim(std::string& s) {
    s = std::string(trimmed(s));
    return s;
}

bool str_elem(int iPos, char cDelimiter, std::string_view cpStr, std::string& cpElem) {
    cpElem.clear();
    std::string_view text = cpStr.substr(0, kStrElemLimit);
    if (text.empty() || (text.size() == 1 && text[0] == cDelimiter) || iPos < 0) {
        return false;
    }
    if (text[0] == cDelimiter) {
        text.remove_prefix(1);
    }
    std::vector<std::string> fields = split(text, cDelimiter, EmptyFields::keep);
    if (static_cast<std::size_t>(iPos) >= fields.size()) {
        return false;
    }
    cpElem = std::move(fields[static_cast<std::size_t>(iPos)]);
    return true;
}

std::string bounded(std::string_view src, std::size_t siz) {
    if (siz == 0) {
        return {};
    }
    return std::string(src.substr(0, siz - 1));
}

std::string& lowercase(std::string& s) {
    for (char& c : s) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return s;
}

std::vector<std::string> split(std::string_view text, char delim, EmptyFields empty) {
    std::vector<std::string> fields;
    std::size_t pos = 0;
    while (true) {
        const auto end = std::min(text.find(delim, pos), text.size());
        if (end > pos || empty == EmptyFields::keep) {
            fields.emplace_back(text.substr(pos, end - pos));
        }
        if (end == text.size()) {
            return fields;
        }
        pos = end + 1;
    }
}

std::string vformat(const char* cpFormat, std::va_list args) {
    std::va_list probe;
    va_copy(probe, args);
    const int needed = std::vsnprintf(nullptr, 0, cpFormat, probe);
    va_end(probe);
    if (needed <= 0) {
        return {};
    }
    std::string text(static_cast<std::size_t>(needed) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), cpFormat, args);
    text.resize(static_cast<std::size_t>(needed));
    return text;
}


std::string GET_CALL_PARAM(int number, char** option) {
    static constexpr std::string_view kMark = "... truncated";
    // The mark ends just before the last byte of the buffer.
    static constexpr std::size_t kMarkAt = kCallParamSize - 1 - kMark.size();
    std::string line;
    if (option == nullptr) {
        return line;
    }
    for (int i = 0; i < number && option[i] != nullptr; ++i) {
        const std::size_t arg = std::strlen(option[i]);
        if (line.size() + arg >= kCallParamSize) {
            // The mark is written at a fixed place; when the line is shorter
            // than that place the mark lies behind its end and stays unseen.
            if (line.size() >= kMarkAt) {
                line.resize(kMarkAt);
                line.append(kMark);
            }
            break;
        }
        line.append(option[i]);
        line.push_back(' ');
    }
    return line;
}

std::string with_thousands(std::size_t n) {
    std::string digits = std::to_string(n);
    for (std::size_t at = digits.size(); at > 3; at -= 3) {
        digits.insert(at - 3, 1, ',');
    }
    return digits;
}

}  // namespace rv
