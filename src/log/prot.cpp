#include "log/prot.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cerrno>
#include <memory>
#include <string>

#include "sys/timefmt.hpp"
#include "sys/file_io.hpp"
#include "sys/progress.hpp"
#include "sys/strings.hpp"
#include "log/trace.hpp"

namespace rv {

LANGUAGES eLang = LANG_EN;

namespace {

ProtFileResolver gResolver = nullptr;
// Set while a message is being written: a message that comes up meanwhile
// (from the resolver, say) goes to standard error.
bool gWriting = false;

// Version identifier of this library in its trace lines.
constexpr const char* kKernelVersion = "cm_kernel 1.0";
// The protocol stamp is the date and time of time_get's default form.
constexpr std::size_t kStampLength = 19;
constexpr const char* kShortenedCode = "E999-BASICS ";

__attribute__((format(printf, 1, 2))) std::string format(const char* cpFormat, ...) {
    std::va_list args;
    va_start(args, cpFormat);
    std::string text = vformat(cpFormat, args);
    va_end(args);
    return text;
}

// Announces that the message that follows had to be cut.
void report_shortened(std::FILE* fp, const std::string& stamp, int pid, std::size_t limit,
                      std::size_t needed) {
    const int iLimit = static_cast<int>(limit);
    const int iNeeded = static_cast<int>(needed);
    std::fprintf(stderr, "%s %s[%6d]: Error: The following output was shortened (%d <> %d)\n",
                 stamp.c_str(), kShortenedCode, pid, iLimit, iNeeded);
    std::fprintf(fp, "%s %s[%6d]: Error: The following output was shortened (%d <> %d)\n",
                 stamp.c_str(), kShortenedCode, pid, iLimit, iNeeded);
}

// Warns about a format whose code holds a conversion or that has no text.
void check_format(std::FILE* fp, const std::string& stamp, int pid, std::string_view raw) {
    const std::string rawCode(raw.substr(0, kProtCodeLength));
    if (const std::size_t pos = rawCode.find('%'); pos != std::string::npos) {
        const std::string arg = rawCode.substr(pos, 2);
        std::fprintf(
            stderr,
            "PROT: WARNING: invalid usage of PROT: prefix with format argument '%s': >%s<\n",
            arg.c_str(), rawCode.c_str());
        std::fprintf(
            fp,
            "%s W999-BASICS [%6d]: Invalid usage of PROT: prefix with format argument '%s': >%s<\n",
            stamp.c_str(), pid, arg.c_str(), rawCode.c_str());
    } else if (raw.size() < kProtCodeLength + 1) {
        const int iLength = static_cast<int>(raw.size());
        std::fprintf(stderr, "PROT: WARNING: format tag is too short: >%s< (%d < 13)\n",
                     rawCode.c_str(), iLength);
        std::fprintf(fp,
                     "%s W999-BASICS [%6d]: Invalid usage of PROT: format tag is too short: >%s< "
                     "(%d < 13)\n",
                     stamp.c_str(), pid, rawCode.c_str(), iLength);
    }
}

// Writes the message `text` of format `raw` into the open protocol file.
void write_message(std::FILE* fp, std::string_view raw, const std::string& text) {
    std::string stamp;
    time_get(stamp);
    if (stamp.size() > kStampLength) {
        stamp.resize(kStampLength);
    }
    const int pid = static_cast<int>(getpid());
    check_format(fp, stamp, pid, raw);

    // The format is code, blank, text: the formatted message splits the same way.
    const std::string code = text.substr(0, kProtCodeLength);
    std::string body =
        text.size() > kProtCodeLength + 1 ? text.substr(kProtCodeLength + 1) : std::string();
    const std::string prefix = format("%s %s[%6d]: ", stamp.c_str(), code.c_str(), pid);

    // The line format (stamp, code, pid and the caller's text format) has its
    // limit; a longer one keeps as much of the text as the format could hold.
    const std::size_t rawText =
        raw.size() > kProtCodeLength + 1 ? raw.size() - kProtCodeLength - 1 : 0;
    const std::size_t formatLength = prefix.size() + rawText;
    if (formatLength >= kProtFormatLimit) {
        report_shortened(fp, stamp, pid, kProtFormatLimit, formatLength);
        const std::size_t room =
            kProtFormatLimit - 1 - std::min(prefix.size(), kProtFormatLimit - 1);
        body.resize(std::min(body.size(), room));
    }

    std::string line = prefix + body;
    if (line.size() >= kProtTextLimit) {
        report_shortened(fp, stamp, pid, kProtTextLimit, line.size());
        line.resize(kProtTextLimit - 1);
    }

    // One protocol line per text line, all with the same stamp, code and pid.
    std::size_t start = 0;
    std::size_t end = line.find('\n');
    std::fprintf(fp, "%s\n", line.substr(0, end).c_str());
    while (end != std::string::npos) {
        start = end + 1;
        end = line.find('\n', start);
        const std::string piece =
            line.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::fprintf(fp, "%s %s[%6d]: %s\n", stamp.c_str(), code.c_str(), pid, piece.c_str());
    }
}

}  // namespace

void set_prot_file_resolver(ProtFileResolver resolver) { gResolver = resolver; }

void PROT(const char* cpFormat, ...) {
    std::va_list args;
    va_start(args, cpFormat);
    const std::string text = vformat(cpFormat, args);
    va_end(args);
    clear_progress_line();  // the messages below may go to the console
    if (gWriting) {
        std::fprintf(stderr, "PROT: %s\n", text.c_str());
        return;
    }
    struct Writing {
        Writing() { gWriting = true; }
        ~Writing() { gWriting = false; }
    } writing;
    std::string file;
    const ProtFile where = gResolver != nullptr ? gResolver(file) : ProtFile::missing;
    if (where == ProtFile::missing) {
        std::fputs("\nNo gv_prot defined! rv_start_all necessary!\n", stderr);
        return;
    }
    if (where == ProtFile::failed) {
        std::fprintf(stderr, "PROT: protocol file unknown (%s): %s\n", file.c_str(), text.c_str());
        return;
    }
    FilePtr fp(std::fopen(file.c_str(), "a"));
    if (!fp) {
        std::fprintf(stderr, "PROT: cannot write %s (%s): %s\n", file.c_str(), std::strerror(errno), text.c_str());
        return;
    }
    write_message(fp.get(), std::string_view(cpFormat), text);
}

void prot_command_failed(const std::string& command, const std::string& text) {
    switch (eLang) {
        case LANG_DE:
            PROT("E008-BASICS  Fehler bei Kommandoausführung %s: %s", command.c_str(), text.c_str());
            break;
        case LANG_BA:
            PROT("E008-BASICS  Fehla bei da Kommandoausführung %s: %s", command.c_str(), text.c_str());
            break;
        default:
            PROT("E008-BASICS  Error in command execution %s: %s", command.c_str(), text.c_str());
            break;
    }
}

void trap_db_err(std::string_view szModul, std::string_view szMsg) {
    const std::string modul(szModul);
    const std::string msg(szMsg);
    WRITE_TRACE(1, "+++ KRL TRAP_DB_ERR in %s  %s  %s", kKernelVersion, modul.c_str(),
                msg.c_str());
    switch (eLang) {
        case LANG_DE:
            PROT("E018-DATABAS %s erzeugte unerwartetes Ergebnis: %s.", modul.c_str(), msg.c_str());
            break;
        case LANG_BA:
            PROT("E018-DATABAS %s mitm Fälla: %s.", modul.c_str(), msg.c_str());
            break;
        default:  // French and Croatian read the English text
            PROT("E018-DATABAS %s with unexpected result: %s.", modul.c_str(), msg.c_str());
            break;
    }
    WRITE_TRACE(1, "--- KRL TRAP_DB_ERR returns to caller");
}

}  // namespace rv
