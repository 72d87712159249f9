// pgcluster start|stop STATE_FILE: the ctest fixture around the database
// tests. start stops a cluster left over from an earlier run, starts a new
// one and writes its state file; stop stops it and removes the file.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>

#include "support/pgcluster.hpp"

int main(int argc, char** argv) {
    const std::string command = argc == 3 ? argv[1] : "";
    if (command != "start" && command != "stop") {
        std::fprintf(stderr, "usage: %s start|stop STATE_FILE\n", argv[0]);
        return 2;
    }
    const std::string state = argv[2];
    try {
        if (rvtest::stop_saved_cluster(state)) {
            std::printf("pgcluster: stopped the cluster of %s\n", state.c_str());
        }
        if (command == "start") {
            // Guarded by the ctest run: it is stopped even if the run ends early.
            rvtest::PgCluster cluster(getppid());
            cluster.save(state);
            std::printf("pgcluster: started, socket %s, port %d\n",
                        cluster.server().socket_dir.c_str(), cluster.server().port);
            // Keep it running for the tests: the fixture's stop removes it.
            cluster.detach();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pgcluster: %s\n", e.what());
        return 1;
    }
    return 0;
}
