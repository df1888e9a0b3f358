// Same-account sync through a local PostgreSQL server (Unix socket): one machine pushes 100,000
// session descriptors, a second pulls them; then incremental pulls of one change each, in
// process and as the `gaugepoint sync pull` command a timer would run.
// usage: bench_sync [SESSIONS]

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "PostgresServer.hpp"
#include "gaugepoint/pgsync/PostgresRecordZone.hpp"
#include "gaugepoint/pgsync/SameAccountSync.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

using namespace gaugepoint;
using Steady = std::chrono::steady_clock;

namespace {

double secondsSince(Steady::time_point start) { return std::chrono::duration<double>(Steady::now() - start).count(); }

long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

extern "C" char** environ;

// Runs the command with its output to /dev/null and returns its exit status. posix_spawn, not
// fork: copying this process's page tables (hundreds of MB of test data) would be timed too.
int runQuietly(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

QuotaSessionDescriptor session(int i) {
    QuotaSessionDescriptor d;
    d.id = "session-" + std::to_string(i);
    d.provider = {"claude", "Claude"};
    d.title = "Refactor the importer, part " + std::to_string(i);
    d.projectPath = "/home/dev/src/project-" + std::to_string(i % 40);
    d.startedAt = dateFromSeconds(1790000000.0 + i * 60);
    d.endedAt = dateFromSeconds(1790000000.0 + i * 60 + 1800);
    d.messageCount = 40 + i % 17;
    d.promptCount = 8 + i % 5;
    d.tokenUsage = {1000 + i, 20000 + i, 300000 + i, 40000 + i, std::nullopt};
    QuotaSessionModelUsageSummary model;
    model.id = "claude-sonnet-4-5";
    model.displayName = "Claude Sonnet 4.5";
    model.sessionCount = 1;
    model.messageCount = d.messageCount;
    model.tokenUsage = d.tokenUsage;
    d.topModels = {model};
    return d;
}

QuotaSyncConfiguration machine(const gaugepoint::testing::ScratchDirectory& dir, const std::string& name) {
    QuotaSyncConfiguration c;
    c.appGroupDirectory = dir / name / "group";
    c.sourceID = name;
    c.sourceName = name;
    return c;
}

}  // namespace

int main(int argc, char** argv) {
    const int sessions = argc > 1 ? std::atoi(argv[1]) : 100000;
    gaugepoint::testing::PostgresServer server;
    {
        auto admin = server.superuser();
        PostgresRecordZone::setup(admin);
    }
    gaugepoint::testing::ScratchDirectory dir;
    const auto laptop = machine(dir, "laptop"), workstation = machine(dir, "workstation");
    SameAccountSyncOptions options;
    options.connectionString = server.connectionString("alice");

    std::vector<QuotaSessionDescriptor> list;
    for (int i = 0; i < sessions; ++i) list.push_back(session(i));
    QuotaSessionCatalogStore{laptop}.upsertBatch(list, "laptop");

    auto start = Steady::now();
    const auto pushed = SameAccountSync{laptop, options}.push();
    const double pushSeconds = secondsSince(start);
    std::printf("push of %lld sessions: %.2f s (%.0f sessions/s)\n", (long long)pushed.descriptors, pushSeconds,
                double(pushed.descriptors) / pushSeconds);

    start = Steady::now();
    const auto pulled = SameAccountSync{workstation, options}.pull();
    const double pullSeconds = secondsSince(start);
    std::printf("pull of %lld sessions on the second machine: %.2f s (%.0f sessions/s), peak %ld MB\n",
                (long long)pulled.descriptors, pullSeconds, double(pulled.descriptors) / pullSeconds,
                peakKilobytes() / 1024);

    // One change at a time: the laptop changes a session and pushes, the workstation pulls it.
    const int rounds = 20;
    double incremental = 0, worst = 0;
    for (int round = 0; round < rounds; ++round) {
        auto changed = session(round);
        changed.title = "changed " + std::to_string(round);
        changed.endedAt = dateFromSeconds(1800000000.0 + round);
        QuotaSessionCatalogStore{laptop}.upsert(changed, "laptop");
        SameAccountSync{laptop, options}.push();
        start = Steady::now();
        const auto one = SameAccountSync{workstation, options}.pull();
        const double t = secondsSince(start);
        if (one.descriptors != 1) std::printf("  expected one session, pulled %lld\n", (long long)one.descriptors);
        incremental += t;
        worst = std::max(worst, t);
    }
    std::printf("incremental pull of one change, in process: %.2f ms mean, %.2f ms worst of %d\n",
                incremental / rounds * 1000, worst * 1000, rounds);

    // The same as the command a timer runs, whole process.
    ::setenv("XDG_CONFIG_HOME", (dir / "workstation" / "config").c_str(), 1);
    double command = 0;
    for (int round = 0; round < rounds; ++round) {
        auto changed = session(round);
        changed.title = "changed again " + std::to_string(round);
        changed.endedAt = dateFromSeconds(1810000000.0 + round);
        QuotaSessionCatalogStore{laptop}.upsert(changed, "laptop");
        SameAccountSync{laptop, options}.push();
        start = Steady::now();
        const int status = runQuietly({GAUGEPOINT_BINARY, "sync", "pull", "--url", options.connectionString,
                                       "--app-group-dir", (dir / "workstation" / "group").string()});
        command += secondsSince(start);
        if (status != 0) std::printf("  gaugepoint sync pull failed (exit %d)\n", status);
    }
    std::printf("incremental pull of one change, `gaugepoint sync pull` whole process: %.2f ms mean of %d\n",
                command / rounds * 1000, rounds);
    return 0;
}
