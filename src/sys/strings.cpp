#include "sys/strings.hpp"

#include <algorithm>
#include <cstdarg>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "log/prot.hpp"
#include "log/trace.hpp"

namespace rv {

namespace {

// The one tokenization in progress: a private copy of the input and the
// start of the field returned last (one past the copy's end when finished).
struct Tokenizer {
    std::string text;
    std::size_t pos = 0;
    char delim = '\0';
    bool active = false;
};

Tokenizer& tokenizer() {
    static Tokenizer state;
    return state;
}

// The field that starts at `from` and runs to the next delimiter or the end.
std::string_view field_at(const Tokenizer& t, std::size_t from) {
    std::string_view text(t.text);
    std::size_t end = text.find(t.delim, from);
    return text.substr(from, end == std::string_view::npos ? std::string_view::npos : end - from);
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// str_chain's overflow message on the protocol log, in the message language.
void prot_chain_overflow() {
    switch (eLang) {
        case LANG_DE:
            PROT("E001-BASICS  STR_CHAIN Stringüberlauf");
            break;
        case LANG_BA:
            PROT("E001-BASICS  STR_CHAIN Stringübalauf");
            break;
        default:
            PROT("E001-BASICS  STR_CHAIN string overflow");
            break;
    }
}

}  // namespace

std::string& str_trim(std::string& s) {
    std::size_t end = s.size();
    while (end > 0 && is_blank(s[end - 1])) {
        --end;
    }
    std::size_t begin = 0;
    while (begin < end && is_blank(s[begin])) {
        ++begin;
    }
    s = s.substr(begin, end - begin);
    return s;
}

std::string_view cm_strtok(std::string_view input, char cDelim) {
    Tokenizer& t = tokenizer();
    if (input.size() > kTokenizerLimit) {
        const std::string whole(input);
        std::fprintf(stderr, "string shortend to %d chars bcs. of string overflow: strlen(%s) > %d\n",
                     static_cast<int>(kTokenizerLimit), whole.c_str(), static_cast<int>(kTokenizerLimit));
        input = input.substr(0, kTokenizerLimit);
    }
    t.text.assign(input);
    t.pos = 0;
    t.delim = cDelim;
    t.active = true;
    return field_at(t, 0);
}

std::optional<std::string_view> cm_strtok_next() {
    Tokenizer& t = tokenizer();
    if (!t.active || t.pos > t.text.size()) {
        return std::nullopt;
    }
    std::size_t end = t.text.find(t.delim, t.pos);
    t.pos = (end == std::string::npos ? t.text.size() : end) + 1;
    if (t.pos > t.text.size()) {
        return std::nullopt;
    }
    return field_at(t, t.pos);
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
    std::optional<std::string_view> field = cm_strtok(text, cDelimiter);
    for (int i = 0; i < iPos && field; ++i) {
        field = cm_strtok_next();
    }
    if (!field) {
        return false;
    }
    cpElem.assign(*field);
    return true;
}

std::string& str_chain(std::string& target, bool clear, std::initializer_list<std::string_view> pieces) {
    if (clear) {
        target.clear();
    }
    for (std::string_view piece : pieces) {
        if (piece.empty()) {
            break;
        }
        if (target.size() + piece.size() < kStrChainLimit) {
            target.append(piece);
            continue;
        }
        prot_chain_overflow();
        const std::string added(piece);
        std::fprintf(stderr,
                     "FATAL: STR_CHAIN: string overflow strlen(filled_string) + strlen(new_string) > %d\n",
                     static_cast<int>(kStrChainLimit));
        std::fprintf(stderr, "  filled_string: %s\n", target.c_str());
        std::fprintf(stderr, "  new_string: %s\n", added.c_str());
    }
    return target;
}

std::size_t strlcpy(char* dst, const char* src, std::size_t siz) {
    const std::size_t len = std::strlen(src);
    if (siz != 0) {
        const std::size_t n = len < siz - 1 ? len : siz - 1;
        std::memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
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

std::string intoas(long n) { return std::to_string(n); }

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

}  // namespace rv
