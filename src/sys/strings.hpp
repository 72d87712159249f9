// String helpers shared by every layer: trimming, field splitting with the
// product's tokenizer (empty fields count), bounded joining, case folding and
// the echo of the command line. They know nothing of the tool; the few limits
// an operator can observe (a skipped piece, a cut command line) are named below.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

// The tokenizer keeps at most this many characters of its input.
inline constexpr std::size_t kTokenizerLimit = 8191;
// str_elem looks only at this many leading characters of its input.
inline constexpr std::size_t kStrElemLimit = 767;
// str_chain appends a piece only while the result stays below this length.
inline constexpr std::size_t kStrChainLimit = 512;
// GET_CALL_PARAM's buffer; a longer command line ends in "... truncated".
inline constexpr std::size_t kCallParamSize = 512;

// Removes leading and trailing blanks and tabs from `s` in place; returns `s`.
std::string& str_trim(std::string& s);

// Starts a new tokenization of `input` at the delimiter `cDelim` and returns
// its first field (possibly empty). Input beyond kTokenizerLimit characters is
// dropped with a notice on standard error. The fields stay valid until the
// next call of cm_strtok; one tokenization at a time (module state).
std::string_view cm_strtok(std::string_view input, char cDelim);
// Returns the next field of the current tokenization, or nullopt after the
// last one. Consecutive, leading and trailing delimiters give empty fields.
std::optional<std::string_view> cm_strtok_next();

// Whether split keeps the empty fields that consecutive, leading or trailing
// delimiters make.
enum class EmptyFields { keep, drop };

// The fields of `text` split at `delim`, without the tokenizer's length
// limit or state. With EmptyFields::keep, "" gives one empty field.
std::vector<std::string> split(std::string_view text, char delim, EmptyFields empty);

// Copies field `iPos` (0 = first) of `cpStr` split at `cDelimiter` into
// `cpElem`. Returns true when the field exists, else false with `cpElem` "".
// One leading delimiter is skipped; empty fields count. Resets cm_strtok.
bool str_elem(int iPos, char cDelimiter, std::string_view cpStr, std::string& cpElem);

// Appends `pieces` to `target` in order, stopping at the first empty piece.
// With `clear` the target is emptied first. A piece that would make the
// result kStrChainLimit long or longer is skipped, reported on the protocol
// log and standard error, and the following pieces are still tried.
std::string& str_chain(std::string& target, bool clear, std::initializer_list<std::string_view> pieces);

// Bounded copy with the usual semantics: at most `siz`-1 bytes, terminated
// when `siz` is not 0. Returns strlen(src); a result >= siz means a cut.
std::size_t strlcpy(char* dst, const char* src, std::size_t siz);
// The same rule for strings: the first `siz`-1 characters of `src`.
std::string bounded(std::string_view src, std::size_t siz);

// Lower-cases `s` in place with the locale's tolower; returns `s`.
std::string& lowercase(std::string& s);

// The text printf would make of `cpFormat` and `args`, of any length.
std::string vformat(const char* cpFormat, std::va_list args) __attribute__((format(printf, 1, 0)));

// Formats `n` in decimal.
std::string intoas(long n);

// Joins the first `number` entries of `option`, each followed by one blank.
// A command line that would not fit kCallParamSize ends in "... truncated".
std::string GET_CALL_PARAM(int number, char** option);

}  // namespace rv
