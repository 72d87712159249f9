#include "config/files.hpp"
#include "log/trace.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config/glbv.hpp"
#include "config/process.hpp"
#include "config/dirwalk.hpp"
#include "sys/file_io.hpp"

namespace rv {

namespace {

bool contains(std::string_view line, std::string_view what) { return line.find(what) != std::string_view::npos; }

}  // namespace

bool i_SEEK_STRING(std::FILE* fpTest, std::string& szSl, std::string_view cpString1, std::string_view cpString2,
                   char cLogicFlg) {
    while (read_piece(fpTest, szSl, kSeekLineMax)) {
        const bool first = contains(szSl, cpString1);
        bool match = first;
        if (cLogicFlg == 'a') {
            match = first && contains(szSl, cpString2);
        } else if (cLogicFlg == 'o') {
            match = first || contains(szSl, cpString2);
        }
        if (match) {
            return true;
        }
    }
    return false;
}

bool file_search(std::string_view cpFile, std::string& cpSearchString) {
    std::string file(cpFile);
    resolve_glbv(file);
    FilePtr fp(std::fopen(file.c_str(), "r"));
    if (!fp) {
        return false;
    }

    const bool wantLine = !cpSearchString.empty() && cpSearchString.back() == '^';
    if (wantLine) {
        cpSearchString.pop_back();
    }
    std::string second;
    char logic = ' ';
    for (auto [op, flag] : {std::pair<std::string_view, char>{"|AND|", 'a'}, {"|OR|", 'o'}}) {
        const std::size_t at = cpSearchString.find(op);
        if (at != std::string::npos) {
            second = cpSearchString.substr(at + op.size());
            cpSearchString.resize(at);
            logic = flag;
            break;
        }
    }

    std::string line;
    if (!i_SEEK_STRING(fp.get(), line, cpSearchString, second, logic)) {
        return false;
    }
    if (wantLine) {
        if (line.back() == '\n') {
            line.pop_back();
        }
        cpSearchString = line;
    }
    return true;
}

int i_FILE_CLOSE(int iErrno) {
    // The alarm depends on the error number of the last failed call, which
    // the caller's argument need not be.
    const int current = errno;
    std::fprintf(stderr, "\nFILE_CLOSE error: %s\n", std::strerror(iErrno));
    if (current == ENOSPC || current == ENFILE || current == EDEADLK) {
        const std::string text = std::strerror(current);
        const std::string alarm = "rv_alarm FILE_SYSTEM \"" + text + "\"";
        std::string run = alarm;
        start_system(run);
        run = "rv_os_startup STOP";
        start_system(run);
        std::fprintf(stderr, "\n\nSHUTDOWN ravik2000 - problems with file system (%s) \n\n", text.c_str());
    }
    return 0;
}

}  // namespace rv
