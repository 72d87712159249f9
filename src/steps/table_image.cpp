#include "steps/table_image.hpp"

#include <cstdio>
#include <optional>
#include <utility>

#include "config/glbv.hpp"

namespace rv {

namespace {

constexpr const char* kWorkDir = "gv_rw_work";

// The global variable `name` as a directory; nothing when it does not exist.
std::optional<std::string> glbv_dir(const std::string& name) {
    std::string dir = name + ":";
    if (!resolve_glbv(dir)) {
        return std::nullopt;
    }
    return dir;
}

// The [PATHES] key `name` of rv.ini; nothing when rv.ini does not have it.
std::optional<std::string> ini_dir(const std::string& name) {
    std::string dir = name + ":";
    resolve_path(dir);
    if (dir == name + ":") {
        return std::nullopt;
    }
    return dir;
}

// Tells which of two disagreeing work directories is used. The values do
// not change within a run, so the notice appears once; a different pair is
// told again.
void tell_work_dir_choice(const std::string& used, const std::string& ignored) {
    static std::string told;
    std::string notice = "work directory: global variable gv_rw_work (" + used +
                         ") differs from rv.ini gv_rw_work (" + ignored + "); " + used + " is used";
    if (notice == told) {
        return;
    }
    std::printf("%s\n", notice.c_str());
    std::fflush(stdout);
    told = std::move(notice);
}

std::string work_dir() {
    const std::optional<std::string> fromGlbv = glbv_dir(kWorkDir);
    const std::optional<std::string> fromIni = ini_dir(kWorkDir);
    if (!fromGlbv) {
        return fromIni.value_or("");
    }
    if (fromIni && *fromIni != *fromGlbv) {
        tell_work_dir_choice(*fromGlbv, *fromIni);
    }
    return *fromGlbv;
}

}  // namespace

std::string product_dir(const std::string& name) {
    if (std::optional<std::string> dir = glbv_dir(name)) {
        return *dir;
    }
    return ini_dir(name).value_or("");
}

std::string table_image_path(std::string_view table) {
    const std::string dir = work_dir();
    return dir.empty() ? std::string() : dir + "db_" + std::string(table) + ".tmp";
}

}  // namespace rv
