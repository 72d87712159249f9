#include "support/sandbox.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "config/log_setup.hpp"

namespace fs = std::filesystem;

namespace rvtest {

Sandbox::Sandbox() {
    std::string tmpl = (fs::temp_directory_path() / "rvtest.XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    root_ = tmpl;
    for (const char* key : {"gv_ro", "gv_ro_bin", "gv_ro_db", "gv_rw", "gv_rw_db", "gv_rw_work",
                            "gv_rw_tmp", "gv_rw_ini", "gv_rw_lgc", "gv_rw_glbv"}) {
        std::string rel = std::string(key).substr(3) + "/";  // gv_ro_bin -> ro/bin/
        std::replace(rel.begin(), rel.end(), '_', '/');
        fs::create_directories(keys_[key] = path(rel));
    }
    write_file(root_ini(), "# root configuration\nRV_INI=" + rv_ini() + "\n");
    write_rv_ini();
    if (const char* old = std::getenv("RAVIK_INI")) {
        saved_ravik_ini_ = old;
    }
    setenv("RAVIK_INI", root_ini().c_str(), 1);
}

Sandbox::~Sandbox() {
    saved_ravik_ini_ ? setenv("RAVIK_INI", saved_ravik_ini_->c_str(), 1) : unsetenv("RAVIK_INI");
    std::error_code ec;
    fs::remove_all(root_, ec);
}

void Sandbox::write_rv_ini(const std::string& extra) {
    std::string text = "[PATHES]\n";
    for (const auto& [key, value] : keys_) {
        text += key + "=" + value + "\n";
    }
    write_file(rv_ini(), text + extra_sections + extra);
}

void Sandbox::set_path_key(const std::string& key, const std::string& value) {
    keys_.erase(key);
    if (!value.empty()) {
        keys_[key] = value;
    }
    write_rv_ini();
}

void Sandbox::make_installation() {
    write_file(root_ini(), "RV_INI=" + rv_ini() + "\nOPENRDA_INI=" + path("etc/openrda.ini") + "\n");
    extra_sections += "[SERVER]\ngv_port_db=5432\n";
    write_rv_ini();
    write_file(dir("gv_ro") + "skel/ravik_srv.1.6.4", "[CVS_UPDATE]\nversion=1.6.4.71\n");
    write_file(dir("gv_ro") + "downgrade/skel/ravik_srv.1.6.3", "[CVS_UPDATE]\nversion=1.6.3.20\n");
    write_file(dir("gv_rw_db") + "schema/ravik/base.dat", "base\n");
    write_file(dir("gv_rw_db") + "schema/ravik/sub/media.dat", "media\n");
}

std::string Sandbox::checkenv_report(const std::string& newv, const std::string& oldv) const {
    return "[Check enviroment]\n [common]\n  operating system:   linux-gnu\n  separator:          /\n"
           "  database typ:       -\n  rv_db_update ini:   " + dir("gv_ro") + "skel/rv_db_update.ini\n"
           " [new ravik version]\n  ravik root path:    " + dir("gv_ro") +
           "\n  ravik binaries:     " + dir("gv_ro_bin") + "\n  db bin path:        " + dir("gv_ro_db") +
           "\n  ini path:           " + dir("gv_rw_ini") + "\n  db path:            " + dir("gv_rw_db") +
           "\n  work path:          " + dir("gv_rw_work") + "\n  ravik version:      " + newv +
           "\n [old ravik version]\n  ravik version:      " + oldv + "\n\n";
}

void Sandbox::write_debug_ini(const std::string& content) { write_file(dir("gv_rw_ini") + "debug.ini", content); }

void Sandbox::set_glbv(const std::string& name, const std::string& value) {
    write_file(dir("gv_rw_glbv") + name + ".rgv", value);
}

std::string Sandbox::use_protocol() {
    rv::install_product_services();
    set_glbv("gv_prot", path("prot.log"));
    return path("prot.log");
}

void write_file(const std::string& file, const std::string& content) {
    if (fs::path(file).has_parent_path()) {
        fs::create_directories(fs::path(file).parent_path());
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!(out << content)) {
        throw std::runtime_error("cannot write " + file);
    }
}

std::string read_file(const std::string& file) {
    std::ostringstream ss;
    ss << std::ifstream(file, std::ios::binary).rdbuf();
    return ss.str();
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> protocol_texts(const std::string& file) {
    std::vector<std::string> texts;
    for (const auto& line : read_lines(file)) {
        const auto bracket = line.find('[');
        const auto colon = line.find("]: ");
        const bool ok = bracket != std::string::npos && bracket >= 12 && colon != std::string::npos;
        texts.push_back(ok ? line.substr(bracket - 12, 12) + " " + line.substr(colon + 3) : line);
    }
    return texts;
}

CaptureFd::CaptureFd(int fd) : fd_(fd), file_((fs::temp_directory_path() / "rvcap.XXXXXX").string()) {
    const int tmp = mkstemp(file_.data());
    if (tmp < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    std::fflush(nullptr);
    saved_ = dup(fd_);
    dup2(tmp, fd_);
    close(tmp);
}

std::string CaptureFd::finish() {
    if (saved_ < 0) {
        return {};
    }
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
    std::string text = read_file(file_);
    std::remove(file_.c_str());
    return text;
}

}  // namespace rvtest
