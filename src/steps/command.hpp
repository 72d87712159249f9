// Command steps of the update script: `cmd` runs a shell command line after
// rewriting its words (date stamps, product paths, global variables, and on
// a Windows installation a few Unix command words), `rmdir` removes a
// directory tree. Both are best effort: the command's status is not judged.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace rv {

// A removal command longer than this is refused rather than cut: a cut
// path could name a parent directory.
inline constexpr std::size_t kRmDirCommandMax = 511;

// Rewrites one word of a cmd step as iCmdExecute does (without running it);
// a non-empty `date` stands for gv_date instead of the current time stamp.
std::string rewrite_command_word(std::string_view word, std::string_view date = {});

// Builds the command line of the cmd step `cpString`: each word rewritten,
// each preceded by one blank. Ends the run through FINISH when the text
// holds no word. `date` as for rewrite_command_word.
std::string build_command_line(std::string_view cpString, std::string_view date = {});

// Runs the cmd step `cpString` through the shell; its status is not judged
// (an abnormal end is reported).
void iCmdExecute(std::string_view cpString);

// The removal command for `cpString` (key:rest resolved): "rm -rf <dir>",
// or "del /s /f <dir>" with every '/' turned into '\\' off Unix.
std::string rmdir_command(std::string_view cpString);

// Removes the directory `cpString` through the shell.
void iRmDir(std::string_view cpString);

}  // namespace rv
