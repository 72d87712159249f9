#include "support/pgcluster.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "db/session.hpp"

namespace fs = std::filesystem;

namespace rvtest {

namespace {

constexpr const char* kServerUser = "postgres";
constexpr const char* kStateVariable = "RV_TEST_PGCLUSTER";

bool executable(const std::string& file) {
    return access(file.c_str(), X_OK) == 0;
}

std::string trim_line(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// Directory of the server programs: pg_config's, else the packaged ones.
std::string find_bindir() {
    std::vector<std::string> candidates;
    struct PipeCloser {
        void operator()(std::FILE* fp) const { pclose(fp); }
    };
    if (std::unique_ptr<std::FILE, PipeCloser> pipe(popen("pg_config --bindir 2>/dev/null", "r"));
        pipe) {
        std::string text;
        for (int c = std::fgetc(pipe.get()); c != EOF; c = std::fgetc(pipe.get())) {
            text.push_back(static_cast<char>(c));
        }
        if (!trim_line(text).empty()) {
            candidates.push_back(trim_line(text));
        }
    }
    candidates.emplace_back("/usr/lib/postgresql/15/bin");
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/usr/lib/postgresql", ec)) {
        candidates.push_back((entry.path() / "bin").string());
    }
    for (const auto& dir : candidates) {
        if (executable(dir + "/initdb") && executable(dir + "/pg_ctl")) {
            return dir;
        }
    }
    throw std::runtime_error(
        "no PostgreSQL server programs (initdb, pg_ctl) found; install the postgresql package");
}

std::string find_runuser() {
    for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
        if (executable(std::string(dir) + "runuser")) {
            return std::string(dir) + "runuser";
        }
    }
    throw std::runtime_error("runuser not found: cannot run the server as user postgres");
}

bool as_root() {
    return geteuid() == 0;
}

// `argv` run as the server's user.
std::vector<std::string> as_server_user(std::vector<std::string> argv) {
    if (as_root()) {
        argv.insert(argv.begin(), {find_runuser(), "-u", kServerUser, "--"});
    }
    return argv;
}

int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        throw std::runtime_error("socket() failed while looking for a free port");
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    close(fd);
    if (!ok) {
        throw std::runtime_error("no free port found");
    }
    return ntohs(addr.sin_port);
}

void stop_server(const std::string& bindir, const std::string& root) {
    if (fs::exists(root + "/data/postmaster.pid")) {
        run(as_server_user(
            {bindir + "/pg_ctl", "-D", root + "/data", "-m", "immediate", "-w", "stop"}));
    }
    std::error_code ec;
    fs::remove_all(root, ec);
}

std::map<std::string, std::string> read_state(const std::string& file) {
    std::map<std::string, std::string> state;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const auto eq = line.find('=');
        if (eq != std::string::npos) {
            state[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return state;
}

std::string conninfo(const PgServer& server, const std::string& db) {
    return "host=" + server.socket_dir + " port=" + std::to_string(server.port) +
           " user=" + server.user + " dbname=" + db;
}

void export_server(const PgServer& server) {
    setenv("PGHOST", server.socket_dir.c_str(), 1);
    setenv("PGUSER", server.user.c_str(), 1);
}

}  // namespace

PgCluster::PgCluster(pid_t guard) : owner_(getpid()) {
    bindir_ = find_bindir();
    std::string tmpl = (fs::temp_directory_path() / "rvpg.XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for the database cluster");
    }
    root_ = tmpl;
    if (as_root()) {
        const passwd* pw = getpwnam(kServerUser);
        if (pw == nullptr || chown(root_.c_str(), pw->pw_uid, pw->pw_gid) != 0) {
            stop_server(bindir_, root_);
            throw std::runtime_error("cannot hand " + root_ +
                                     " to user postgres (does the user exist?)");
        }
    }
    server_.socket_dir = root_;
    server_.port = free_port();
    server_.bindir = bindir_;

    const RunResult init =
        run(as_server_user({bindir_ + "/initdb", "-D", root_ + "/data", "-U", kServerUser, "-A",
                            "trust", "-E", "UTF8", "--locale=C", "-N"}));
    if (init.status != 0) {
        stop_server(bindir_, root_);
        throw std::runtime_error("initdb failed (status " + std::to_string(init.status) + "):\n" +
                                 init.out + init.err);
    }
    const std::string options = "-c listen_addresses='' -k " + root_ + " -p " +
                                std::to_string(server_.port) +
                                " -c fsync=off -c full_page_writes=off -c synchronous_commit=off";
    const RunResult start =
        run(as_server_user({bindir_ + "/pg_ctl", "-D", root_ + "/data", "-l", root_ + "/server.log",
                            "-w", "-t", "60", "-o", options, "start"}));
    if (start.status != 0) {
        const std::string log = read_file(root_ + "/server.log");
        stop_server(bindir_, root_);
        throw std::runtime_error("pg_ctl start failed (status " + std::to_string(start.status) +
                                 "):\n" + start.out + start.err + log);
    }
    running_ = true;

    // The watchdog: a shell that waits for `guard` to end, then stops the
    // server and removes the directory (both harmless when done already).
    const bool self = guard == getpid();
    int fds[2] = {-1, -1};
    if (self && pipe2(fds, O_CLOEXEC) != 0) {
        stop();
        throw std::runtime_error("pipe2 failed for the cluster watchdog");
    }
    std::string script =
        self ? std::string("read _;")
             : "while kill -0 " + std::to_string(guard) + " 2>/dev/null; do sleep 1; done;";
    for (const auto& arg : as_server_user(
             {bindir_ + "/pg_ctl", "-D", root_ + "/data", "-m", "immediate", "-w", "stop"})) {
        script += " '" + arg + "'";
    }
    script += "; rm -rf '" + root_ + "'";
    const pid_t pid = fork();
    if (pid == 0) {
        // With a pipe, EOF on standard input comes when the owner closes the
        // write end or dies.
        const int null = open("/dev/null", O_RDWR);
        dup2(self ? fds[0] : null, 0);
        dup2(null, 1);
        dup2(null, 2);
        setsid();  // not hit by signals meant for the test's process group
        execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (self) {
        close(fds[0]);
    }
    if (pid < 0) {
        if (self) {
            close(fds[1]);
        }
        stop();
        throw std::runtime_error("fork failed for the cluster watchdog");
    }
    watchdog_ = pid;
    watchdog_pipe_ = fds[1];
}

PgCluster::~PgCluster() {
    stop();
}

void PgCluster::stop() {
    if (getpid() != owner_) {
        return;
    }
    if (running_) {
        running_ = false;
        stop_server(bindir_, root_);
    }
    if (watchdog_pipe_ >= 0) {
        close(watchdog_pipe_);
        watchdog_pipe_ = -1;
    }
    if (watchdog_ > 0) {
        waitpid(watchdog_, nullptr, 0);
        watchdog_ = -1;
    }
}

void PgCluster::save(const std::string& state_file) const {
    write_file(state_file, "root=" + root_ + "\nbindir=" + bindir_ +
                               "\nport=" + std::to_string(server_.port) + "\n");
}

bool stop_saved_cluster(const std::string& state_file) {
    if (!fs::exists(state_file)) {
        return false;
    }
    const auto state = read_state(state_file);
    const auto root = state.find("root");
    const auto bindir = state.find("bindir");
    if (root != state.end() && bindir != state.end() && !root->second.empty()) {
        stop_server(bindir->second, root->second);
    }
    std::error_code ec;
    fs::remove(state_file, ec);
    return true;
}

const PgServer& pg_server() {
    static PgServer server;
    static std::unique_ptr<PgCluster> own;
    if (server.port != 0) {
        return server;
    }
    PgServer found;
    if (const char* state_file = std::getenv(kStateVariable);
        state_file != nullptr && *state_file != '\0') {
        const auto state = read_state(state_file);
        const auto root = state.find("root");
        const auto port = state.find("port");
        const auto bindir = state.find("bindir");
        if (root == state.end() || port == state.end() || bindir == state.end()) {
            throw std::runtime_error(
                std::string("the database test server was not started: no state in ") + state_file +
                " (did the fixture test pgcluster_start fail?)");
        }
        found.socket_dir = root->second;
        found.port = std::atoi(port->second.c_str());
        found.bindir = bindir->second;
    } else {
        own = std::make_unique<PgCluster>(getpid());
        found = own->server();
    }
    rv::PgConnPtr conn(PQconnectdb(conninfo(found, "postgres").c_str()));
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        throw std::runtime_error("the database test server does not answer: " +
                                 std::string(PQerrorMessage(conn.get())));
    }
    server = found;
    export_server(server);
    return server;
}

PgRows pg_query(const std::string& db, const std::string& sql) {
    const PgServer& server = pg_server();
    rv::PgConnPtr conn(PQconnectdb(conninfo(server, db).c_str()));
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        throw std::runtime_error("cannot connect to " + db + ": " + PQerrorMessage(conn.get()));
    }
    PQsetNoticeProcessor(
        conn.get(), [](void*, const char*) {}, nullptr);
    rv::PgResultPtr res(PQexec(conn.get(), sql.c_str()));
    const ExecStatusType status = PQresultStatus(res.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw std::runtime_error("statement failed: " + sql + ": " + PQerrorMessage(conn.get()));
    }
    PgRows rows;
    for (int row = 0; row < PQntuples(res.get()); ++row) {
        auto& fields = rows.emplace_back();
        for (int col = 0; col < PQnfields(res.get()); ++col) {
            if (PQgetisnull(res.get(), row, col)) {
                fields.emplace_back(std::nullopt);
            } else {
                fields.emplace_back(
                    std::string(PQgetvalue(res.get(), row, col),
                                static_cast<std::size_t>(PQgetlength(res.get(), row, col))));
            }
        }
    }
    return rows;
}

void pg_recreate_db(const std::string& name, const std::string& encoding) {
    pg_query("postgres", "DROP DATABASE IF EXISTS " + name + " WITH (FORCE)");
    pg_query("postgres", "CREATE DATABASE " + name + " TEMPLATE template0 ENCODING '" + encoding +
                             "' LC_COLLATE 'C' LC_CTYPE 'C'");
}

bool wait_for_active_query(const std::string& query, int timeout_ms) {
    constexpr int kStepMs = 20;
    std::string quoted;
    for (const char c : query) {
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    }
    const std::string sql =
        "select count(*) from pg_stat_activity where state = 'active' and query = '" + quoted + "'";
    for (int waited = 0; waited < timeout_ms; waited += kStepMs) {
        if (pg_query("postgres", sql).at(0).at(0) != "0") {
            return true;
        }
        usleep(kStepMs * 1000);
    }
    return false;
}

void point_at_server(Sandbox& box) {
    const std::string key = "gv_port_db=";
    const std::string port = std::to_string(pg_server().port);
    std::string& extra = box.extra_sections;
    if (const auto pos = extra.find(key); pos != std::string::npos) {
        const auto end = extra.find('\n', pos);
        extra.replace(pos, end == std::string::npos ? std::string::npos : end - pos, key + port);
    } else {
        extra += "[SERVER]\n" + key + port + "\n";
    }
    box.write_rv_ini();
}

Background::Background(const std::vector<std::string>& argv,
                       const std::map<std::string, std::string>& env) {
    auto temp = [](const char* stem) {
        std::string tmpl = (fs::temp_directory_path() / stem).string() + ".XXXXXX";
        const int fd = mkstemp(tmpl.data());
        if (fd < 0) {
            throw std::runtime_error("mkstemp failed");
        }
        close(fd);
        return tmpl;
    };
    out_file_ = temp("rvbgout");
    err_file_ = temp("rvbgerr");
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        for (const auto& [key, value] : env) {
            if (value.empty()) {
                unsetenv(key.c_str());
            } else {
                setenv(key.c_str(), value.c_str(), 1);
            }
        }
        const int in = open("/dev/null", O_RDONLY);
        const int out = open(out_file_.c_str(), O_WRONLY | O_TRUNC);
        const int err = open(err_file_.c_str(), O_WRONLY | O_TRUNC);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execv(args[0], args.data());
        _exit(127);
    }
}

Background::~Background() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    std::remove(out_file_.c_str());
    std::remove(err_file_.c_str());
}

RunResult Background::wait() {
    RunResult result;
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) {
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    pid_ = -1;
    result.out = read_file(out_file_);
    result.err = read_file(err_file_);
    return result;
}

}  // namespace rvtest
