// The console reader used to ask the operator for a value.
#pragma once

#include <cstdio>
#include <string>

namespace rv {

// Reads one line from `in` (standard input by default) into `s`, without its
// line feed. At most `lim`-1 characters are kept: whenever that many are
// stored, storing starts again at the front, so a longer line leaves its last
// piece. At end of input the line read so far (possibly "") is returned.
void getline(std::string& s, int lim, std::FILE* in = stdin);

}  // namespace rv
