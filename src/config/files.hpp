// File helpers: line search with the "|AND|"/"|OR|" notation, deletion by
// name or wildcard, and the reaction to a failed file operation (which raises
// the product's file-system alarm when the file system is exhausted).
#pragma once

#include <cstdio>
#include <string>
#include <string_view>


namespace rv {

// Lines read by i_SEEK_STRING are at most this long.
inline constexpr std::size_t kSeekLineMax = 511;

// Searches `cpFile` (a name:rest global-variable reference is resolved) for the
// first line matching `cpSearchString`: "a|AND|b" both, "a|OR|b" either, else
// the whole text, as plain substrings. A trailing '^' asks for the line: on
// success `cpSearchString` becomes it, without its line feed. The operator is
// cut out of `cpSearchString` in place. Returns false when no line matches or
// the file cannot be opened.
bool file_search(std::string_view cpFile, std::string& cpSearchString);

// Reads lines (at most kSeekLineMax characters each) from `fpTest` until one
// holds both strings (`cLogicFlg` 'a'), either ('o') or `cpString1` (else).
// Returns true with the line, line feed included, in `szSl`; false at EOF.
bool i_SEEK_STRING(std::FILE* fpTest, std::string& szSl, std::string_view cpString1,
                   std::string_view cpString2, char cLogicFlg);

// Reports a failed file operation with error `iErrno` on standard error; when
// the current errno says the file system is full or exhausted (28, 23, 35),
// raises the product's alarm and stops its services. Returns 0.
int i_FILE_CLOSE(int iErrno);

}  // namespace rv
