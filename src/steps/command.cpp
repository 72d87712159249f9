#include "steps/command.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "config/glbv.hpp"
#include "config/process.hpp"
#include "config/product.hpp"
#include "log/finish.hpp"
#include "log/trace.hpp"
#include "sys/timefmt.hpp"

namespace rv {

namespace {

bool on_windows_cmd() { return pathes.separator == '\\'; }

// Unix command words and their Windows counterparts.
constexpr std::pair<std::string_view, std::string_view> kWindowsWords[] = {
    {";", "&"},         {"cd", "cd /d"},   {"cp", "copy /y"},    {"copy", "copy /y"},
    {"date", "date /t"}, {"ls", "dir"},     {"-latr", "/od"},     {"-ltr", "/od"},
    {"-atr", "/od"},    {"-la", ""},       {"-l", ""},           {"rm", "del /f"},
};

std::string translate_for_windows(std::string word) {
    for (const auto& [unix_word, windows_word] : kWindowsWords) {
        if (word == unix_word) {
            return std::string(windows_word);
        }
    }
    if (!word.empty() && word.back() == ';') {
        word.back() = '&';
    }
    return word;
}

// Returns true when `word` was a date word (and rewrites it with the current
// time stamp, or with `date` when it is given).
bool rewrite_date_word(std::string& word, std::string_view date) {
    if (word.find("gv_date") == std::string::npos) {
        return false;
    }
    std::string stamp = "I";
    if (date.empty()) {
        time_get(stamp);
    } else {
        stamp = date;
    }
    if (const auto at = word.find(":gv_date:"); at != std::string::npos) {
        word = word.substr(0, at) + stamp + word.substr(at + 9);
    } else if (word.rfind("gv_date:", 0) == 0) {
        word = stamp + word.substr(8);
    } else if (word == "gv_date") {
        word = stamp;
    }
    return true;
}

void resolve_references(std::string& word) {
    const auto colon = word.find(':');
    if (colon == std::string::npos || colon == 0) {
        return;
    }
    if (word.rfind("gv_", 0) == 0) {
        WRITE_TRACE(2, "iCmdExecute: resolve_path([%s])", word.c_str());
        resolve_path(word);
        if (on_windows_cmd()) {
            std::replace(word.begin(), word.end(), '/', '\\');
        }
    }
    if (const auto at = word.find(":gv_"); at != std::string::npos) {
        std::string reference = word.substr(at + 1);
        resolve_glbv(reference);
        word = word.substr(0, at) + reference;
    } else {
        resolve_glbv(word);
    }
}

}  // namespace

std::string rewrite_command_word(std::string_view original, std::string_view date) {
    std::string word(original);
    if (!rewrite_date_word(word, date) && on_windows_cmd()) {
        word = translate_for_windows(std::move(word));
    }
    resolve_references(word);
    return word;
}

std::string build_command_line(std::string_view cpString, std::string_view date) {
    std::string cmd;
    // Words are the runs of non-blank characters.
    std::size_t pos = cpString.find_first_not_of(' ');
    if (pos == std::string_view::npos) {
        const std::string msg = "CmdExecute: Format error: No token ' ' in " + std::string(cpString) + ".";
        FINISH(RV_ERROR, msg);
    }
    while (pos != std::string_view::npos) {
        const auto end = std::min(cpString.find(' ', pos), cpString.size());
        const std::string token(cpString.substr(pos, end - pos));
        WRITE_TRACE(2, "iCmdExecute: check token [%s]", token.c_str());
        cmd += ' ';
        cmd += rewrite_command_word(token, date);
        WRITE_TRACE(2, "iCmdExecute: szCmd: %s", cmd.c_str());
        pos = cpString.find_first_not_of(' ', end);
    }
    return cmd;
}

void iCmdExecute(std::string_view cpString) {
    const std::string cmd = build_command_line(cpString);
    WRITE_TRACE(1, "iCmdExecute = %s", cmd.c_str());
    std::string run = cmd;
    start_system(run);
}

std::string rmdir_command(std::string_view cpString) {
    std::string dir(cpString);
    resolve_path(dir);
    WRITE_TRACE(1, "iRmDir = %s", dir.c_str());
    if (pathes.separator == '/') {
        return "rm -rf " + dir;
    }
    std::string cmd = "del /s /f " + dir;
    std::replace(cmd.begin(), cmd.end(), '/', '\\');
    return cmd;
}

void iRmDir(std::string_view cpString) {
    const std::string cmd = rmdir_command(cpString);
    if (cmd.size() > kRmDirCommandMax) {
        std::printf("iRmDir: command longer than %zu characters, nothing removed: %s\n", kRmDirCommandMax,
                    cmd.c_str());
        WRITE_TRACE(1, "iRmDir: command too long, nothing removed: %s", cmd.c_str());
        return;
    }
    WRITE_TRACE(1, "iRmDir: %s", cmd.c_str());
    std::string run = cmd;
    start_system(run);
}

}  // namespace rv
