// The table change step: reads a table image, adds and drops columns and
// values as the update script's section "[<main version><table>]" says,
// and writes the image back as an SQL script of INSERT lines.
#pragma once

#include <string_view>

namespace rv {

// Changes the image of `cpTable` in the work directory. Returns 1 on success.
int db_change(std::string_view cpTable);

}  // namespace rv
