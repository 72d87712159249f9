#include "support/sandbox.hpp"

#include "config/log_setup.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace rvtest {

Sandbox::Sandbox() {
    std::string tmpl = (fs::temp_directory_path() / "rvtest.XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    root_ = tmpl;
    keys_ = {{"gv_ro", path("ro/")},         {"gv_ro_bin", path("ro/bin/")},
             {"gv_ro_db", path("ro/db/")},   {"gv_rw", path("rw/")},
             {"gv_rw_db", path("rw/db/")},   {"gv_rw_work", path("rw/work/")},
             {"gv_rw_tmp", path("rw/tmp/")}, {"gv_rw_ini", path("rw/ini/")},
             {"gv_rw_lgc", path("rw/lgc/")}, {"gv_rw_glbv", path("rw/glbv/")}};
    for (const auto& [key, dir] : keys_) {
        fs::create_directories(dir);
    }
    write_file(root_ini(), "# root configuration\nRV_INI=" + rv_ini() + "\n");
    write_rv_ini();
    if (const char* old = std::getenv("RAVIK_INI")) {
        saved_ravik_ini_ = old;
    }
    setenv("RAVIK_INI", root_ini().c_str(), 1);
}

Sandbox::~Sandbox() {
    if (saved_ravik_ini_) {
        setenv("RAVIK_INI", saved_ravik_ini_->c_str(), 1);
    } else {
        unsetenv("RAVIK_INI");
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
}

std::string Sandbox::dir(const std::string& key) const {
    const auto it = keys_.find(key);
    return it == keys_.end() ? std::string() : it->second;
}

void Sandbox::write_rv_ini(const std::string& extra) {
    std::string text = "[PATHES]\n";
    for (const auto& [key, value] : keys_) {
        text += key + "=" + value + "\n";
    }
    write_file(rv_ini(), text + extra_sections + extra);
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
    write_file(root_ini(),
               "RV_INI=" + rv_ini() + "\nOPENRDA_INI=" + path("etc/openrda.ini") + "\n");
    extra_sections += "[SERVER]\ngv_port_db=5432\n";
    write_rv_ini();
    write_file(dir("gv_ro") + "skel/ravik_srv.1.6.4", "[CVS_UPDATE]\nversion=1.6.4.71\n");
    write_file(dir("gv_ro") + "downgrade/skel/ravik_srv.1.6.3", "[CVS_UPDATE]\nversion=1.6.3.20\n");
    write_file(dir("gv_rw_db") + "schema/ravik/base.dat", "base\n");
    write_file(dir("gv_rw_db") + "schema/ravik/sub/media.dat", "media\n");
}

void Sandbox::write_debug_ini(const std::string& content) {
    write_file(dir("gv_rw_ini") + "debug.ini", content);
}

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
    std::ifstream in(file, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
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

std::vector<std::string> read_lines(const std::string& file) {
    return split_lines(read_file(file));
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

CaptureFd::CaptureFd(int fd) : fd_(fd) {
    file_ = (fs::temp_directory_path() / "rvcap.XXXXXX").string();
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
