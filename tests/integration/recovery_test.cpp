// Faults in the middle of an update against a real server, and the way back:
// the script dumps a table, deletes its rows, changes the image and imports
// it. Each fault is injected once the run is seen at the point it hits (a
// statement waiting in pg_stat_activity, the import held after N rows), the
// run must end with its status line and stay unfinished, a new update is
// refused, and after the repair `resume` and then a whole update again leave
// every row exactly once.
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <regex>

#include "db/session.hpp"
#include "support/pgcluster.hpp"

namespace {

namespace fs = std::filesystem;
using rvtest::pg_query;

constexpr int kRows = 20000;
// The import is held at this row (in file order) while the test holds the
// advisory lock kHold: beyond the first COPY run, which has committed by then.
constexpr int kHeldAt = 15000;
constexpr const char* kHold = "4242";

// A session of the test that holds a lock until it goes.
struct Held {
    explicit Held(const std::string& sql) : conn(PQconnectdb("dbname=ravik_db")) {
        rv::PgResultPtr res(PQexec(conn.get(), sql.c_str()));
        if (PQresultStatus(res.get()) != PGRES_COMMAND_OK && PQresultStatus(res.get()) != PGRES_TUPLES_OK)
            throw std::runtime_error("cannot hold: " + sql + ": " + PQerrorMessage(conn.get()));
    }
    rv::PgConnPtr conn;
};

// A tmpfs over `dir` for the life of the object; `options` as mount takes them.
struct Tmpfs {
    Tmpfs(const std::string& where, const std::string& options) : dir(where) {
        if (rvtest::run({"/bin/mount", "-t", "tmpfs", "-o", options, "tmpfs", dir}).status != 0)
            throw std::runtime_error("cannot mount a tmpfs on " + dir);
    }
    void remount(const std::string& options) const {
        EXPECT_EQ(rvtest::run({"/bin/mount", "-o", "remount," + options, dir}).status, 0) << dir;
    }
    ~Tmpfs() { rvtest::run({"/bin/umount", "-l", dir}); }
    std::string dir;
};

class DbRecovery : public rvtest::DbTest {
  protected:
    void SetUp() override {
        DbTest::SetUp();
        fs::create_symlink(rvtest::bin("oaisql"), box.dir("gv_ro_db") + "oaisql");
        rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                           "[Update 1.6.4.]\nlast_step_nr=4\nstep_1=dump ravik_db t\nstep_2=sql ravik_db delete from t\n"
                           "step_3=change t\nstep_4=import ravik_db t\n");
    }
    // A fresh table of kRows rows whose import waits at row kHeldAt while kHold is held.
    void fresh_table() {
        for (const char* name : {"rv_db_update.journal", "db_t.tmp", "db_t.tmp.pos"}) fs::remove(work + name);
        rvtest::pg_recreate_db("ravik_db");
        pg_query("ravik_db",
                 "create table t (id int, label text);"
                 "insert into t select g, 'row ' || g from generate_series(1, " + std::to_string(kRows) + ") g;"
                 "create sequence t_seen;"
                 "create function t_hold() returns trigger language plpgsql as $$ begin if nextval('t_seen') = " +
                     std::to_string(kHeldAt) + " then perform pg_advisory_xact_lock_shared(" + kHold +
                     "); end if; return new; end $$;"
                 "create trigger t_hold before insert on t for each row execute function t_hold()");
    }
    // Every row once, with its own label.
    void expect_every_row_once(const std::string& when) {
        const auto rows = pg_query("ravik_db", "select count(*) || ' ' || count(distinct id) || ' ' || "
                                               "count(*) filter (where label = 'row ' || id) from t");
        const std::string all = std::to_string(kRows);
        EXPECT_EQ(rows.at(0).at(0), all + " " + all + " " + all) << when;
    }
    // Once a session of the run waits for a lock in `query` (a pattern).
    static bool waiting(const std::string& query, const std::string& event) {
        return rvtest::eventually([&] {
            return pg_query("postgres", "select count(*) from pg_stat_activity where wait_event = '" + event +
                                            "' and query like '" + query + "'")
                       .at(0).at(0) != "0";
        });
    }
    rvtest::RunResult update(const rvtest::Env& env = rvtest::kToolEnv) {
        return rvtest::run({rvtest::bin("rv_db_update"), "update", "1.6.3.20", "1.6.4.71"}, env);
    }

    std::string work = box.dir("gv_rw_work");
    std::string image = work + "db_t.tmp";
};

// A fault: what it needs before the run, where the run is when it strikes,
// how it strikes, the status line it leaves, and the repair before resume.
struct Fault {
    std::string name;
    std::function<void(std::optional<Held>&, std::optional<Tmpfs>&)> arrange;
    enum class At { start, dump, import } at;
    std::function<void(pid_t)> strike;
    std::string status;  // part of the run's status line; "" when killed without one
    std::function<void(std::optional<Held>&, std::optional<Tmpfs>&)> repair;
    rvtest::Env env = rvtest::kToolEnv;
    bool needs_root = false;
};

TEST_F(DbRecovery, EveryFaultLeavesARunThatResumesToEveryRowOnce) {
    const auto lock_table = [](std::optional<Held>& held, auto&) {
        held.emplace("begin; lock table t in access exclusive mode");
    };
    const auto hold_import = [](std::optional<Held>& held, auto&) { held.emplace(std::string("select pg_advisory_lock(") + kHold + ")"); };
    const auto release = [](std::optional<Held>& held, auto&) { held.reset(); };
    const auto none = [](auto&, auto&) {};
    const auto signal = [](int signo) { return [signo](pid_t pid) { kill(pid, signo); }; };
    const std::string dump_failed = "step 1 (dump ravik_db t) failed: dump of t failed: ";
    const std::string tmp = box.dir("gv_rw_tmp"), empty = box.path("empty/");
    fs::create_directories(empty);
    const std::vector<Fault> faults = {
        {"the client reports an error (statement timeout) while an older image lies there",
         [&](auto& held, auto& fs) { rvtest::write_file(image, "|id=1|label=stale|\n"); lock_table(held, fs); },
         Fault::At::start, {}, dump_failed + "didn't find expected strings", release,
         {{"OS", ""}, {"PGPORT", ""}, {"PGOPTIONS", "-c statement_timeout=200"}}},
        {"no database client", none, Fault::At::start, {}, dump_failed, none,
         {{"OS", ""}, {"PGPORT", ""}, {"PATH", empty}}},
        {"the tmp directory read-only", [&](auto&, auto& fs) { fs.emplace(tmp, "size=64m,ro"); }, Fault::At::start,
         {}, dump_failed, [](auto&, auto& fs) { fs->remount("rw"); }, rvtest::kToolEnv, true},
        {"the work directory full in the dump", [&](auto&, auto& fs) { fs.emplace(work, "size=128k"); },
         Fault::At::start, {}, dump_failed, [](auto&, auto& fs) { fs->remount("size=64m"); }, rvtest::kToolEnv, true},
        {"the work directory full in the change", [&](auto&, auto& fs) { fs.emplace(work, "size=1m"); },
         Fault::At::start, {}, "step 3 (change t) failed: change of t: cannot write the INSERT script: ",
         [](auto&, auto& fs) { fs->remount("size=64m"); }, rvtest::kToolEnv, true},
        {"SIGINT in the dump", lock_table, Fault::At::dump, signal(SIGINT),
         "step 1 (dump ravik_db t) failed: stopped by SIGINT", release},
        {"SIGQUIT in the dump", lock_table, Fault::At::dump, signal(SIGQUIT),
         dump_failed + "the statement was broken off by SIGQUIT", release},
        {"SIGTERM in the import", hold_import, Fault::At::import, signal(SIGTERM),
         "step 4 (import ravik_db t) failed: stopped by SIGTERM", release},
        {"SIGKILL in the import", hold_import, Fault::At::import, signal(SIGKILL), "", release},
        {"the server crashes in the import", hold_import, Fault::At::import,
         [](pid_t) { ASSERT_TRUE(rvtest::pg_cluster("crash")); },
         "step 4 (import ravik_db t) failed: import of t: the loader stopped before the end of its script",
         [](auto& held, auto&) { held.reset(); ASSERT_TRUE(rvtest::pg_cluster("restart")); }},
    };
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        if (fault.needs_root && geteuid() != 0) {
            std::printf("skipped \"%s\": mounting a tmpfs needs root\n", fault.name.c_str());
            continue;
        }
        fresh_table();
        std::optional<Held> held;
        std::optional<Tmpfs> mounted;
        fault.arrange(held, mounted);
        rvtest::Background run({rvtest::bin("rv_db_update"), "update", "1.6.3.20", "1.6.4.71"}, fault.env);
        if (fault.at != Fault::At::start) {
            ASSERT_TRUE(fault.at == Fault::At::dump ? waiting("%select distinct * from t", "relation")
                                                    : waiting("%COPY t (id,label) FROM STDIN", "advisory"));
            fault.strike(run.pid());
        }
        const auto r = run.wait();
        EXPECT_EQ(r.status, fault.status.empty() ? 128 + SIGKILL : 2) << r.out << r.err;
        EXPECT_TRUE(fault.status.empty() || r.out.find("STATUS=ERROR MSG=" + fault.status) != std::string::npos)
            << r.out;
        if (fault.at != Fault::At::import) {
            EXPECT_FALSE(fs::exists(image) && fault.name.find("change") == std::string::npos) << "an image is left";
        }
        const auto refused = update();
        EXPECT_EQ(refused.status, 2);
        EXPECT_NE(refused.out.find("STATUS=ERROR MSG=an unfinished update from 1.6.3.20 to 1.6.4.71"),
                  std::string::npos) << refused.out;
        // How far an import got: the lines its load made durable, of the script's (a connect line and the rows).
        const std::regex loaded("stopped in step 4 \\(import ravik_db t\\); t: at least ([0-9]+) of " +
                                std::to_string(kRows + 1) + " lines loaded");
        std::smatch got;
        EXPECT_TRUE(fault.at != Fault::At::import ||
                    (std::regex_search(refused.out, got, loaded) && std::stoi(got[1]) <= kHeldAt)) << refused.out;
        fault.repair(held, mounted);
        const auto resumed = rvtest::run({rvtest::bin("rv_db_update"), "resume"}, rvtest::kToolEnv);
        EXPECT_EQ(resumed.status, 0) << resumed.out << resumed.err;
        expect_every_row_once("after resume");
        EXPECT_EQ(update().status, 0);
        expect_every_row_once("after the update again");
        EXPECT_FALSE(fs::exists(work + "rv_db_update.journal") || fs::exists(image + ".pos"));
    }
}

// A second operator is refused while the first run waits in its dump; the first then ends as if alone.
TEST_F(DbRecovery, ASecondRunIsRefusedAndTheFirstLoadsEveryRowOnce) {
    fresh_table();
    std::optional<Held> held;
    held.emplace("begin; lock table t in access exclusive mode");
    rvtest::Background first({rvtest::bin("rv_db_update"), "update", "1.6.3.20", "1.6.4.71"}, rvtest::kToolEnv);
    ASSERT_TRUE(waiting("%select distinct * from t", "relation"));
    const auto second = update();
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.out.find("STATUS=ERROR MSG=rv_db_update is already running for this installation: process " +
                              std::to_string(first.pid())), std::string::npos) << second.out;
    held.reset();
    EXPECT_EQ(first.wait().status, 0);
    expect_every_row_once("after the first run");
}

}  // namespace
