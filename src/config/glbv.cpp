#include "config/glbv.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "config/ini.hpp"
#include "log/prot.hpp"
#include "sys/file_io.hpp"
#include "sys/strings.hpp"

namespace rv {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// Where the fatal-error text says the failure happened.
constexpr const char* kFatalModule = "cm_hal_unix";
constexpr int kFatalLine = 249;
constexpr const char* kFatalText = " error reading rv_ini";

constexpr std::string_view kPathesSection = "[Pathes]";
constexpr std::string_view kGlbvDirKey = "gv_rw_glbv";
constexpr std::size_t kGlbvDirSize = 256;
constexpr std::size_t kGlbvPatternDirSize = 512;
constexpr std::string_view kGlbvExtension = ".rgv";

// "Fatal software error FILE=%s LINE=%d (%s)" in the message language.
std::string fatal_text() {
    std::string_view lead;
    std::string_view line;
    switch (eLang) {
        case LANG_DE:
            lead = "Fataler Software Fehler FILE=";
            line = " ZEILE=";
            break;
        case LANG_BA:
            lead = "do is a ganz a groba Fälla in FILE=";
            line = " ZEILE=";
            break;
        default:
            lead = "Fatal software error FILE=";
            line = " LINE=";
            break;
    }
    return std::string(lead) + kFatalModule + std::string(line) + std::to_string(kFatalLine) + " (" +
           kFatalText + ")";
}

std::string invalid_service_text(char cFunction) {
    std::string_view text;
    switch (eLang) {
        case LANG_DE:
            text = "?? ungültiger Parameter %c";
            break;
        case LANG_BA:
            text = "?? ungültiga Parameter %c";
            break;
        case LANG_FR:
            text = "?? Le Parametre %c est erroné";
            break;
        default:
            text = "?? invalid service %c";
            break;
    }
    std::string out(text);
    out.replace(out.find("%c"), 2, 1, cFunction);
    return out;
}

// Deletes every entry of `dir` (other than . and ..) whose name matches the
// shell pattern `pattern`. Deletion errors are not reported.
void delete_matching(const std::string& dir, const std::string& pattern) {
    DirPtr dp(opendir(dir.c_str()));
    if (!dp) {
        std::fprintf(stderr, "glbv: Error in opendir( %s ): %s\n", dir.c_str(), std::strerror(errno));
        return;
    }
    std::vector<std::string> doomed;
    while (const dirent* entry = readdir(dp.get())) {
        const std::string_view name(entry->d_name);
        if (name == "." || name == "..") {
            continue;
        }
        if (fnmatch(pattern.c_str(), entry->d_name, 0) == 0) {
            doomed.emplace_back(name);
        }
    }
    dp.reset();
    for (const std::string& name : doomed) {
        std::remove((dir + name).c_str());
    }
}

GlbvResult write_variable(const std::string& file, const std::string& name, const std::string& value) {
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        const int err = errno;
        std::fprintf(stderr, "glbv() write %s failed: %s (%d)\n", file.c_str(), std::strerror(err), err);
        GlbvResult failure{GlbvStatus::failed, "?? GLBV " + name + " cannot be created: " + std::strerror(err)};
        PROT("Error: GLBV: %s", failure.text.c_str());
        return failure;
    }
    // A short write is not reported: the next reader sees what arrived.
    std::size_t done = 0;
    while (done < value.size()) {
        const ssize_t n = ::write(fd, value.data() + done, value.size() - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    close(fd);
    return {GlbvStatus::found, value};
}

GlbvResult read_variable(const std::string& file, const std::string& name, bool remove_after) {
    // Opened for writing too: a variable without write permission counts as
    // missing. The lines are joined without their line feeds. A value longer
    // than kGlbvValueMax is cut to that length and marked with '>' at its end.
    std::string collected;
    bool any = false;
    const int err = read_pieces(file, O_RDWR, [&collected, &any](std::string_view piece) {
        any = true;
        for (const char c : piece) {
            if (c == '\n') {
                continue;
            }
            collected.push_back(c);
            if (collected.size() > kGlbvValueMax) {
                collected.resize(kGlbvValueMax);
                collected.back() = '>';
                return false;
            }
        }
        return true;
    });
    if (err != 0) {
        GlbvResult failure{GlbvStatus::missing, "?? GLBV " + name + " not existing"};
        if (err != ENOENT) {
            std::fprintf(stderr, "glbv() read %s failed: %s (%d)\n", file.c_str(), std::strerror(err), err);
            failure.status = GlbvStatus::failed;
            failure.text += ": ";
            failure.text += std::strerror(err);
            PROT("Error: GLBV: %s", failure.text.c_str());
        }
        return failure;
    }
    if (remove_after) {
        std::remove(file.c_str());
    }
    if (!any) {
        std::fprintf(stderr, "glbv() read failed: empty file\n");
        return {GlbvStatus::missing, "?? GLBV " + name + " not existing"};
    }
    return {GlbvStatus::found, collected};
}

}  // namespace

GlbvResult glbv(char cFunction, std::string& cpGlbvName, const std::string& cpGlbvValue) {
    for (char& c : cpGlbvName) {
        if (c == '\\' || c == '/') {
            c = '_';
        }
    }

    std::string dir;
    std::string msg;
    if (!i_READ_INI("RV_INI", kPathesSection, kGlbvDirKey, dir, msg, kGlbvDirSize)) {
        return {GlbvStatus::missing, fatal_text()};
    }
    const std::string file = dir + cpGlbvName + std::string(kGlbvExtension);

    switch (cFunction) {
        case 'd':
            if (cpGlbvName.find('*') != std::string::npos) {
                std::string patternDir;
                i_READ_INI("RV_INI", kPathesSection, kGlbvDirKey, patternDir, msg, kGlbvPatternDirSize);
                delete_matching(patternDir, cpGlbvName);
            } else {
                std::remove(file.c_str());
            }
            return {GlbvStatus::found, cpGlbvName};
        case 'w':
            return write_variable(file, cpGlbvName, cpGlbvValue);
        case 'r':
        case 'R':
            return read_variable(file, cpGlbvName, cFunction == 'R');
        default:
            return {GlbvStatus::failed, invalid_service_text(cFunction)};
    }
}

GlbvResult glbv_read(std::string name) { return glbv('r', name); }

bool resolve_glbv(std::string& file) {
    std::string name;
    std::string rest;
    const auto colon = file.find(':');
    if (colon != std::string::npos) {
        str_elem(0, ':', file, name);
        rest = file.substr(colon + 1);
    } else {
        name = file;
    }
    const GlbvResult value = glbv_read(name);
    if (!value.found()) {
        return false;
    }
    file = value.text + rest;
    return true;
}

bool resolve_path(std::string& cpOrigPath) {
    const auto colon = cpOrigPath.find(':');
    const std::string key = cpOrigPath.substr(0, colon);
    const std::string rest = colon == std::string::npos ? std::string() : cpOrigPath.substr(colon + 1);
    std::string value;
    std::string msg;
    if (i_READ_INI("RV_INI", kPathesSection, key, value, msg, kIniValueSize)) {
        cpOrigPath = value + rest;
    }
    return true;
}

}  // namespace rv
