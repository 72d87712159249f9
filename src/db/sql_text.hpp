// The text of an SQL statement before it is sent: its quotes repaired, its
// key words lower-cased, and what kind of answer it asks for.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

// The acute accent that replaces a stray apostrophe, in the two client
// encodings the product's databases use.
inline constexpr std::string_view kAccentLatin1 = "\xB4";
inline constexpr std::string_view kAccentUtf8 = "\xC2\xB4";

// What a cleaned statement gives back.
enum class SqlForm {
    command,      // not a select: the affected-rows text
    calculated,   // count/sum/min/max without "group by": the first field
    export_text,  // a select in export mode: INSERT lines on standard output
    record_list,  // any other select: the record list and the row count
};

// The form a cleaned (SQL_LOWERCASE'd) statement takes.
SqlForm sql_form(std::string_view cpSqlCmd, bool bExport);

// Table name of a select: the first word after the first " from "; empty
// without " from ".
std::string select_table(std::string_view cpSqlCmd);

// Repairs the quotes of a statement written by others: in an update, a stray
// apostrophe inside an assigned literal becomes the acute accent (the byte
// 0xB4 here; `pAccents`, when given, receives its positions), and a double
// quote inside any literal becomes "_". Returns true when nothing changed.
bool CLEANUP_QUOTA(std::string& cpSqlCmd,
                   std::vector<std::size_t>* pAccents = nullptr);

// Lower-cases the statement up to its first single quote.
void SQL_LOWERCASE(std::string& cpSqlCmd);

}  // namespace rv
