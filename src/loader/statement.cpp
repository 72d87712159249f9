#include "loader/statement.hpp"

#include <cctype>

namespace rv {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

bool is_ident_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_ident_char(char c) {
    return is_ident_start(c) || (c >= '0' && c <= '9') || c == '$';
}

// A cursor over one line; every reader returns false without moving on a
// mismatch it cannot recover from.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : s_(text) {}

    bool at_end() const { return pos_ >= s_.size(); }
    char peek() const { return at_end() ? '\0' : s_[pos_]; }

    void blanks() {
        while (!at_end() && is_blank(s_[pos_])) {
            ++pos_;
        }
    }

    bool take(char c) {
        if (peek() != c || at_end()) {
            return false;
        }
        ++pos_;
        return true;
    }

    // A keyword in any case, not followed by an identifier character.
    bool keyword(std::string_view word) {
        if (s_.size() - pos_ < word.size()) {
            return false;
        }
        for (std::size_t i = 0; i < word.size(); ++i) {
            if (std::toupper(static_cast<unsigned char>(s_[pos_ + i])) != word[i]) {
                return false;
            }
        }
        const std::size_t end = pos_ + word.size();
        if (end < s_.size() && is_ident_char(s_[end])) {
            return false;
        }
        pos_ = end;
        return true;
    }

    // A plain identifier, optionally qualified once ("schema.table").
    std::optional<std::string_view> name(bool qualified) {
        const std::size_t start = pos_;
        if (!word()) {
            return std::nullopt;
        }
        if (qualified && take('.') && !word()) {
            pos_ = start;
            return std::nullopt;
        }
        return s_.substr(start, pos_ - start);
    }

    // A single-quoted literal with '' for a quote inside.
    std::optional<std::string> quoted() {
        if (!take('\'')) {
            return std::nullopt;
        }
        std::string value;
        for (;;) {
            const std::size_t quote = s_.find('\'', pos_);
            if (quote == std::string_view::npos) {
                return std::nullopt;
            }
            value.append(s_.substr(pos_, quote - pos_));
            pos_ = quote + 1;
            if (peek() != '\'' || at_end()) {
                return value;
            }
            value.push_back('\'');
            ++pos_;
        }
    }

  private:
    bool word() {
        if (at_end() || !is_ident_start(s_[pos_])) {
            return false;
        }
        while (!at_end() && is_ident_char(s_[pos_])) {
            ++pos_;
        }
        return true;
    }

    std::string_view s_;
    std::size_t pos_ = 0;
};

std::string_view trim_blanks(std::string_view s) {
    while (!s.empty() && (is_blank(s.front()) || s.front() == '\r' || s.front() == '\n')) {
        s.remove_prefix(1);
    }
    while (!s.empty() && (is_blank(s.back()) || s.back() == '\r' || s.back() == '\n')) {
        s.remove_suffix(1);
    }
    return s;
}

bool starts_with_keyword(std::string_view s, std::string_view word) {
    Scanner scan(s);
    return scan.keyword(word);
}

// "(<col>,...)" into `form.columns`; false when the list is not that.
bool take_columns(Scanner& scan, InsertForm& form) {
    if (!scan.take('(')) {
        return false;
    }
    do {
        scan.blanks();
        const auto column = scan.name(false);
        if (!column) {
            return false;
        }
        form.columns.push_back(*column);
        scan.blanks();
    } while (scan.take(','));
    return scan.take(')');
}

// "VALUES (<v>,...)" into `form.values`; false when a value is neither a
// quoted literal without a NUL byte nor NULL, or the list is malformed.
bool take_values(Scanner& scan, InsertForm& form) {
    scan.blanks();
    if (!scan.keyword("VALUES")) {
        return false;
    }
    scan.blanks();
    if (!scan.take('(')) {
        return false;
    }
    form.values.reserve(form.columns.size());
    do {
        scan.blanks();
        if (scan.peek() == '\'') {
            auto value = scan.quoted();
            if (!value || value->find('\0') != std::string::npos) {
                return false;
            }
            form.values.emplace_back(std::move(*value));
        } else if (scan.keyword("NULL")) {
            form.values.emplace_back(std::nullopt);
        } else {
            return false;
        }
        scan.blanks();
    } while (scan.take(','));
    return scan.take(')');
}

}  // namespace

std::optional<InsertForm> parse_insert(std::string_view line) {
    Scanner scan(trim_blanks(line));
    InsertForm form;
    if (!scan.keyword("INSERT")) {
        return std::nullopt;
    }
    scan.blanks();
    if (!scan.keyword("INTO")) {
        return std::nullopt;
    }
    scan.blanks();
    const auto table = scan.name(true);
    if (!table) {
        return std::nullopt;
    }
    form.table = *table;
    scan.blanks();
    if (!take_columns(scan, form) || !take_values(scan, form)) {
        return std::nullopt;
    }
    scan.blanks();
    scan.take(';');
    scan.blanks();
    if (!scan.at_end() || form.values.size() != form.columns.size()) {
        return std::nullopt;
    }
    return form;
}

bool is_single_dml(std::string_view statement) {
    statement = trim_blanks(statement);
    if (!starts_with_keyword(statement, "INSERT") && !starts_with_keyword(statement, "UPDATE") &&
        !starts_with_keyword(statement, "DELETE")) {
        return false;
    }
    char quote = '\0';
    for (std::size_t i = 0; i < statement.size(); ++i) {
        const char c = statement[i];
        if (c == '\\' || c == '\0') {
            return false;
        }
        if (quote != '\0') {
            if (c == quote) {
                quote = '\0';  // a doubled quote closes and reopens
            }
            continue;
        }
        if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == '$') {
            return false;
        } else if ((c == '-' || c == '/') && i + 1 < statement.size() &&
                   statement[i + 1] == (c == '-' ? '-' : '*')) {
            return false;
        } else if (c == ';') {
            return trim_blanks(statement.substr(i + 1)).empty();
        }
    }
    return quote == '\0';
}

namespace {

// The kind of the trimmed line `text` when it holds no statement (Skip, or
// Connect with `text` cut to the database), else Alone for the caller to
// tell apart further.
ScriptLineKind directive_kind(std::string_view& text) {
    if (text.empty() || text.substr(0, 2) == "--") {
        return ScriptLineKind::Skip;
    }
    Scanner scan(text);
    if (scan.keyword("CONNECT") && is_blank(scan.peek())) {
        std::string_view db = trim_blanks(text.substr(7));
        if (!db.empty() && db.back() == ';') {
            db.remove_suffix(1);
            db = trim_blanks(db);
        }
        if (!db.empty()) {
            text = db;
            return ScriptLineKind::Connect;
        }
    }
    return ScriptLineKind::Alone;
}

}  // namespace

ScriptLine classify_line(std::string_view line) {
    ScriptLine result;
    result.text = trim_blanks(line);
    result.kind = directive_kind(result.text);
    if (result.kind != ScriptLineKind::Alone) {
        return result;
    }
    if (auto form = parse_insert(result.text)) {
        result.kind = ScriptLineKind::Insert;
        result.insert = std::move(*form);
    } else if (is_single_dml(result.text)) {
        result.kind = ScriptLineKind::Pipelined;
    }
    return result;
}

bool holds_statement(std::string_view line) {
    std::string_view text = trim_blanks(line);
    return directive_kind(text) == ScriptLineKind::Alone;
}

namespace {

// The end of the literal that begins in `text` at `i` in `quoting`: the
// index just past its closing quote, npos when the line ends inside it.
std::size_t literal_end(std::string_view text, std::size_t i, Quoting quoting) {
    for (; i < text.size(); ++i) {
        if (quoting == Quoting::Escaped && text[i] == '\\') {
            ++i;
        } else if (text[i] == '\'') {
            if (i + 1 >= text.size() || text[i + 1] != '\'') {
                return i + 1;
            }
            ++i;
        }
    }
    return std::string_view::npos;
}

// The length of the dollar quote tag ("$$", "$tag$") at `i`, 0 when none.
std::size_t dollar_tag(std::string_view text, std::size_t i) {
    if (i > 0 && is_ident_char(text[i - 1])) {
        return 0;  // part of a name, or a parameter such as $1
    }
    std::size_t end = i + 1;
    while (end < text.size() && is_ident_char(text[end]) && text[end] != '$' &&
           (end > i + 1 || is_ident_start(text[end]))) {
        ++end;
    }
    return end < text.size() && text[end] == '$' ? end + 1 - i : 0;
}

// The index past what opens at `i` outside a literal and closes on the
// line (a comment, quoted identifier or dollar-quoted string), npos when it
// does not close there; `i` itself when nothing opens there.
std::size_t skip_other(std::string_view text, std::size_t i) {
    const std::string_view rest = text.substr(i);
    std::size_t close = std::string_view::npos;
    if (rest.starts_with("--")) {
        return close;
    } else if (rest.starts_with("/*")) {
        close = text.find("*/", i + 2);
        return close == std::string_view::npos ? close : close + 2;
    } else if (rest.front() == '"') {
        close = text.find('"', i + 1);
        return close == std::string_view::npos ? close : close + 1;
    } else if (const std::size_t tag = rest.front() == '$' ? dollar_tag(text, i) : 0; tag > 0) {
        close = text.find(text.substr(i, tag), i + tag);
        return close == std::string_view::npos ? close : close + tag;
    }
    return i;
}

}  // namespace

Quoting quoting_after(std::string_view line, Quoting quoting) {
    std::size_t i = 0;
    while (i < line.size()) {
        if (quoting != Quoting::None) {
            i = literal_end(line, i, quoting);
            if (i == std::string_view::npos) {
                return quoting;
            }
            quoting = Quoting::None;
        } else if (line[i] == '\'') {
            const bool escaped = i > 0 && (line[i - 1] == 'E' || line[i - 1] == 'e') &&
                                 (i < 2 || !is_ident_char(line[i - 2]));
            quoting = escaped ? Quoting::Escaped : Quoting::Plain;
            ++i;
        } else if (const std::size_t past = skip_other(line, i); past == std::string_view::npos) {
            return Quoting::None;
        } else {
            i = past > i ? past : i + 1;
        }
    }
    return quoting;
}

std::string one_line(std::string_view message) {
    std::string out;
    out.reserve(message.size());
    for (const char c : message) {
        const bool blank = c == ' ' || c == '\n' || c == '\r' || c == '\t';
        if (blank) {
            if (!out.empty() && out.back() != ' ') {
                out.push_back(' ');
            }
        } else {
            out.push_back(c);
        }
    }
    if (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return out;
}

}  // namespace rv
