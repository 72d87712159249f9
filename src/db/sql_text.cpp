#include "db/sql_text.hpp"

#include <cctype>

#include "log/trace.hpp"
#include "sys/strings.hpp"

namespace rv {

namespace {

constexpr std::string_view kSelect = "select";
constexpr std::string_view kFrom = " from ";
constexpr std::string_view kGroupBy = "group by";
constexpr std::string_view kCalculated[] = {"select count(", "select sum(", "select min(",
                                            "select max("};
constexpr char kLatin1Accent = kAccentLatin1[0];

// Position just behind the opening quote of an assignment "='" or "= '"
// that begins at `pos`; 0 when none begins there.
std::size_t assigned_literal_at(const std::string& s, std::size_t pos) {
    if (s.compare(pos, 2, "='") == 0) {
        return pos + 2;
    }
    if (s.compare(pos, 3, "= '") == 0) {
        return pos + 3;
    }
    return 0;
}

// Where the item of a literal starting at `start` ends: at the next "=",
// else at "where", else at the end of the statement.
std::size_t item_end(const std::string& s, std::size_t start) {
    std::size_t end = s.find('=', start);
    if (end == std::string::npos) {
        end = s.find("where", start);
    }
    return end == std::string::npos ? s.size() : end;
}

// Turns every quote from `candidate` up to `end` into the accent and puts the
// last one back as the closing quote. `start` moves on by one per quote;
// `changed` is set when more than the closing quote was found.
void accent_quotes(std::string& s, std::size_t& start, std::size_t candidate, std::size_t end,
                   std::vector<std::size_t>* pAccents, bool& changed) {
    std::size_t last = std::string::npos;
    for (std::size_t quote = candidate; quote != std::string::npos && quote < end;
         quote = s.find('\'', start)) {
        s[quote] = kLatin1Accent;
        WRITE_TRACE(3, "in while: change quote: %s", s.c_str() + quote);
        if (pAccents != nullptr) {
            pAccents->push_back(quote);
        }
        last = quote;
        ++start;
    }
    if (last == std::string::npos) {
        return;
    }
    s[last] = '\'';
    if (pAccents != nullptr) {
        pAccents->pop_back();
    }
    WRITE_TRACE(3, "reset last quote: %s", s.c_str() + last);
    if (last != candidate) {
        WRITE_TRACE(1, "Warning: CLEANUP_QUOTA: exchanged extra ' in SQL statement");
        changed = true;
    }
}

// The stray apostrophes inside the literals an update assigns; true when one
// was replaced.
bool repair_assigned_literals(std::string& s, std::vector<std::size_t>* pAccents) {
    bool changed = false;
    std::size_t pos = 0;
    while (s.size() > 1 && pos < s.size() - 1) {
        std::size_t start = assigned_literal_at(s, pos);
        if (start == 0) {
            ++pos;
            continue;
        }
        WRITE_TRACE(3, "found begin quote: %s", s.c_str() + start);
        const std::size_t candidate = s.find('\'', start);
        if (candidate == std::string::npos) {
            pos = start;
            continue;
        }
        WRITE_TRACE(3, "found next quote: %s", s.c_str() + candidate);
        const std::size_t end = item_end(s, start);
        WRITE_TRACE(3, "check until next item: %s", s.c_str() + end);
        accent_quotes(s, start, candidate, end, pAccents, changed);
        pos = start + 1;
    }
    return changed;
}

// A double quote inside any literal becomes "_"; true when one did.
bool replace_double_quotes_in_literals(std::string& s) {
    bool changed = false;
    bool inside = false;
    for (char& c : s) {
        if (c == '\'') {
            inside = !inside;
        } else if (c == '"' && inside) {
            c = '_';
            WRITE_TRACE(1, "Warning: CLEANUP_QUOTA: removed extra \" in SQL statement");
            changed = true;
        }
    }
    return changed;
}
}  // namespace

SqlForm sql_form(std::string_view cpSqlCmd, bool bExport) {
    if (!cpSqlCmd.starts_with(kSelect)) {
        return SqlForm::command;
    }
    std::string lower(cpSqlCmd);
    lowercase(lower);
    if (lower.find(kGroupBy) == std::string::npos) {
        for (const std::string_view start : kCalculated) {
            if (lower.starts_with(start)) {
                return SqlForm::calculated;
            }
        }
    }
    return bExport ? SqlForm::export_text : SqlForm::record_list;
}

std::string select_table(std::string_view cpSqlCmd) {
    const std::size_t from = cpSqlCmd.find(kFrom);
    if (from == std::string_view::npos) {
        return {};
    }
    std::size_t begin = from + kFrom.size();
    while (begin < cpSqlCmd.size() && std::isspace(static_cast<unsigned char>(cpSqlCmd[begin]))) {
        ++begin;
    }
    std::size_t end = begin;
    while (end < cpSqlCmd.size() && !std::isspace(static_cast<unsigned char>(cpSqlCmd[end]))) {
        ++end;
    }
    return std::string(cpSqlCmd.substr(begin, end - begin));
}

void SQL_LOWERCASE(std::string& cpSqlCmd) {
    for (char& c : cpSqlCmd) {
        if (c == '\'') {
            break;
        }
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
}

bool CLEANUP_QUOTA(std::string& cpSqlCmd, std::vector<std::size_t>* pAccents) {
    bool changed = false;
    if (cpSqlCmd.starts_with("update")) {
        changed = repair_assigned_literals(cpSqlCmd, pAccents);
    }
    if (replace_double_quotes_in_literals(cpSqlCmd)) {
        changed = true;
    }
    return !changed;
}

}  // namespace rv
