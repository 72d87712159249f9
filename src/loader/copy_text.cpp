// The question whether COPY may take a table, the COPY text of a row, the
// row a failed COPY names, and the size of an attempt.
#include "loader/copy_text.hpp"

#include <charconv>
#include <cmath>

namespace rv {

// COPY may take a plain or partitioned table, no rule on INSERT, no
// statement trigger on INSERT, no row security, no identity column that
// refuses a value, and in it or its partitions nothing deferrable, no row
// trigger of its own that fires after INSERT, and no foreign key that refers
// to the table itself or sits beside a row trigger of its own. COPY checks
// foreign keys and fires those triggers when all its rows are in, statements
// after each row: a row that names one behind it, or a trigger that looks at
// rows or fills a referenced table, would see another table.
std::string copy_question(const std::string& name) {
    // A plain table is no partition tree: it stands alone in it.
    return "WITH tree AS (SELECT to_regclass(" + name + ") AS relid"
           " UNION SELECT relid FROM pg_partition_tree(to_regclass(" + name + ")))"
           " SELECT c.relkind IN ('r', 'p') AND NOT c.relrowsecurity"
           " AND NOT EXISTS (SELECT FROM pg_rewrite r WHERE r.ev_class = c.oid AND r.ev_type = '3')"
           " AND NOT EXISTS (SELECT FROM pg_trigger t WHERE t.tgrelid = c.oid AND t.tgtype & 5 = 4)"
           " AND NOT EXISTS (SELECT FROM pg_attribute a"
           "   WHERE a.attrelid = c.oid AND a.attidentity = 'a' AND NOT a.attisdropped)"
           " AND NOT EXISTS (SELECT FROM pg_constraint k WHERE k.conrelid IN (SELECT relid FROM tree)"
           "   AND (k.condeferrable OR k.contype = 'f' AND (k.confrelid IN (SELECT relid FROM tree)"
           "     OR EXISTS (SELECT FROM pg_trigger t WHERE t.tgrelid IN (SELECT relid FROM tree)"
           "       AND t.tgtype & 1 = 1 AND NOT t.tgisinternal))))"
           " AND NOT EXISTS (SELECT FROM pg_trigger t WHERE t.tgrelid IN (SELECT relid FROM tree)"
           "   AND (t.tgdeferrable OR t.tgtype & 71 = 5 AND NOT t.tgisinternal))"
           " FROM pg_class c WHERE c.oid = to_regclass(" + name + ")";
}

std::string_view table_of(std::string_view head) { return head.substr(0, head.find(' ')); }

std::string table_literal(std::string_view head) { return "'" + std::string(table_of(head)) + "'"; }

std::size_t AttemptSize::rows() const {
    if (!failed_) {
        return kCopyRows;
    }
    const double between = std::max(gap_, static_cast<double>(reached_ - last_));
    const double best = std::sqrt(2 * kAttemptStartRows * between);
    return std::clamp(static_cast<std::size_t>(best), kCopyMinRows, kCopyRows);
}

void AttemptSize::failed_at(std::uint64_t position) {
    // The first failure counts from the load's first row. A row before the
    // last failure fails only when another session changed what it meets.
    const std::uint64_t between = !failed_ ? position + 1 : position > last_ ? position - last_ : 1;
    gap_ = failed_ ? (gap_ + static_cast<double>(between)) / 2 : static_cast<double>(between);
    failed_ = true;
    last_ = std::max(last_, position);
    reached(position);
}

std::optional<std::size_t> copy_failure_row(std::string_view context) {
    // The COPY's own line is the last of the context; functions it called
    // come before it.
    std::size_t at = 0;
    for (std::size_t start = 0; start < context.size();) {
        const std::size_t end = std::min(context.find('\n', start), context.size());
        if (context.substr(start, 5) == "COPY ") {
            at = start;
        }
        start = end + 1;
    }
    if (context.substr(at, 5) != "COPY ") {
        return std::nullopt;
    }
    const std::string_view line = context.substr(at, context.find('\n', at) - at);
    const std::size_t comma = line.find(',');  // a table name of the script holds none
    const std::size_t digit = line.find_first_of("0123456789", comma);
    if (comma == std::string_view::npos || digit == std::string_view::npos) {
        return std::nullopt;
    }
    std::size_t row = 0;
    const auto [end, ec] = std::from_chars(line.data() + digit, line.data() + line.size(), row);
    if (ec != std::errc() || row == 0) {
        return std::nullopt;
    }
    return row;
}

void append_copy_row(const Statement& statement, std::string& data) {
    bool first = true;
    for (const std::optional<std::string>& value : statement.values) {
        if (!first) {
            data += '\t';
        }
        first = false;
        if (!value) {
            data += "\\N";
            continue;
        }
        std::size_t from = 0;
        for (std::size_t i = 0; i < value->size(); ++i) {
            const char c = (*value)[i];
            if (c != '\\' && c != '\t' && c != '\n' && c != '\r') {
                continue;
            }
            data.append(*value, from, i - from);
            data += '\\';
            data += c == '\t' ? 't' : c == '\n' ? 'n' : c == '\r' ? 'r' : '\\';
            from = i + 1;
        }
        data.append(*value, from, std::string::npos);
    }
    data += '\n';
}

}  // namespace rv
