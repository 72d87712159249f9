// rv_db, the product's export tool: runs one statement through the database
// access and prints its answer. With -e a select is written as an export
// text of INSERT lines (the update step `export` redirects it into a file);
// without it a select prints its record list, a count or other computed
// value prints the value, and any other statement prints the number of rows
// it touched.
#pragma once

namespace rv {

// Exit statuses of rv_db.
inline constexpr int kRvDbOk = 0;
inline constexpr int kRvDbUsage = 1;
inline constexpr int kRvDbFailed = 2;

// rv_db "<statement>" [-e] [-v 0|1|2]
int rv_db_main(int argc, char** argv);

}  // namespace rv
