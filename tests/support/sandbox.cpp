#include "support/sandbox.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace rvtest {

namespace {

const char* const kDirKeys[][2] = {
    {"gv_ro", "ro/"},           {"gv_ro_bin", "ro/bin/"},   {"gv_ro_db", "ro/db/"},
    {"gv_rw", "rw/"},           {"gv_rw_db", "rw/db/"},     {"gv_rw_work", "rw/work/"},
    {"gv_rw_tmp", "rw/tmp/"},   {"gv_rw_ini", "rw/ini/"},   {"gv_rw_lgc", "rw/lgc/"},
    {"gv_rw_glbv", "rw/glbv/"},
};

}  // namespace

Sandbox::Sandbox() {
    std::string tmpl = (fs::temp_directory_path() / "rvtest.XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    root_ = tmpl;
    for (const auto& kv : kDirKeys) {
        keys_[kv[0]] = path(kv[1]);
        fs::create_directories(path(kv[1]));
    }
    fs::create_directories(path("etc"));
    write_file(root_ini(), "# root configuration\nRV_INI=" + rv_ini() + "\n");
    write_rv_ini();
    if (const char* old = std::getenv("RAVIK_INI")) {
        had_ravik_ini_ = true;
        saved_ravik_ini_ = old;
    }
    setenv("RAVIK_INI", root_ini().c_str(), 1);
}

Sandbox::~Sandbox() {
    if (had_ravik_ini_) {
        setenv("RAVIK_INI", saved_ravik_ini_.c_str(), 1);
    } else {
        unsetenv("RAVIK_INI");
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
}

std::string Sandbox::path(const std::string& rel) const { return (root_ / rel).string(); }

std::string Sandbox::dir(const std::string& key) const {
    auto it = keys_.find(key);
    return it == keys_.end() ? std::string() : it->second;
}

void Sandbox::write_rv_ini(const std::string& extra) {
    std::string text = "[PATHES]\n";
    for (const auto& [key, value] : keys_) {
        text += key + "=" + value + "\n";
    }
    text += extra_sections;
    text += extra;
    write_file(rv_ini(), text);
}

void Sandbox::set_path_key(const std::string& key, const std::string& value) {
    if (value.empty()) {
        keys_.erase(key);
    } else {
        keys_[key] = value;
    }
    write_rv_ini();
}

void Sandbox::make_installation() {
    write_file(root_ini(), "RV_INI=" + rv_ini() + "\nOPENRDA_INI=" + path("etc/openrda.ini") + "\n");
    extra_sections += "[SERVER]\ngv_port_db=5432\n";
    write_rv_ini();
    const std::string ro = dir("gv_ro");
    write_file(ro + "skel/ravik_srv.1.6.4", "[CVS_UPDATE]\nversion=1.6.4.71\n");
    write_file(ro + "downgrade/skel/ravik_srv.1.6.3", "[CVS_UPDATE]\nversion=1.6.3.20\n");
    const std::string schema = dir("gv_rw_db") + "schema/ravik/";
    write_file(schema + "base.dat", "base\n");
    write_file(schema + "sub/media.dat", "media\n");
}

void Sandbox::write_debug_ini(const std::string& content) {
    write_file(dir("gv_rw_ini") + "debug.ini", content);
}

void write_file(const std::string& file, const std::string& content) {
    fs::path p(file);
    if (p.has_parent_path()) {
        fs::create_directories(p.parent_path());
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) {
        throw std::runtime_error("cannot write " + file);
    }
}

std::string read_file(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> read_lines(const std::string& file) {
    std::vector<std::string> lines;
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

CaptureFd::CaptureFd(int fd) : fd_(fd) {
    std::string tmpl = (fs::temp_directory_path() / "rvcap.XXXXXX").string();
    int tmp = mkstemp(tmpl.data());
    if (tmp < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    file_ = tmpl;
    std::fflush(nullptr);
    saved_ = dup(fd_);
    dup2(tmp, fd_);
    close(tmp);
}

CaptureFd::~CaptureFd() {
    if (!done_) {
        finish();
    }
}

std::string CaptureFd::finish() {
    if (done_) {
        return {};
    }
    done_ = true;
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    std::string text = read_file(file_);
    std::remove(file_.c_str());
    return text;
}

}  // namespace rvtest
