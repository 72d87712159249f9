// String helpers shared by every layer: trimming, field splitting (empty
// fields count), bounded copies, case folding, printf into a string and the
// echo of the command line. They know nothing of the tool; the limits a user
// can observe (a cut command line) are named below.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

// str_elem looks only at this many leading characters of its input.
inline constexpr std::size_t kStrElemLimit = 767;
// GET_CALL_PARAM's buffer; a longer command line ends in "... truncated".
inline constexpr std::size_t kCallParamSize = 512;

// Removes leading and trailing blanks and tabs from `s` in place; returns `s`.
std::string& str_trim(std::string& s);

// `s` without the blanks and tabs around it, as str_trim leaves it.
std::string_view trimmed(std::string_view s);

// Whether split keeps the empty fields that consecutive, leading or trailing
// delimiters make.
enum class EmptyFields { keep, drop };

// The fields of `text` split at `delim`, without the tokenizer's length
// limit or state. With EmptyFields::keep, "" gives one empty field.
std::vector<std::string> split(std::string_view text, char delim, EmptyFields empty);

// Copies field `iPos` (0 = first) of `cpStr` split at `cDelimiter` into
// `cpElem`. Returns true when the field exists, else false with `cpElem` "".
// One leading delimiter is skipped; empty fields count.
bool str_elem(int iPos, char cDelimiter, std::string_view cpStr, std::string& cpElem);

// A bounded copy: the first `siz`-1 characters of `src` (nothing for 0).
std::string bounded(std::string_view src, std::size_t siz);

// Lower-cases `s` in place with the locale's tolower; returns `s`.
std::string& lowercase(std::string& s);

// `n` in decimal with a comma between groups of three digits ("1,000").
std::string with_thousands(std::size_t n);

// The text printf would make of `cpFormat` and `args`, of any length.
std::string vformat(const char* cpFormat, std::va_list args) __attribute__((format(printf, 1, 0)));

// Joins the first `number` entries of `option`, each followed by one blank.
// A command line that would not fit kCallParamSize ends in "... truncated".
std::string GET_CALL_PARAM(int number, char** option);

}  // namespace rv
