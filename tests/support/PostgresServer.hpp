#pragma once

// A throwaway PostgreSQL cluster for one test: made with initdb in a scratch directory, listening
// on a Unix socket there and on no TCP port, with a database "gaugepoint", the superuser
// "postgres" and two ordinary roles, "alice" and "bob". Commits are not flushed to disk (fsync
// off), which survives a killed server though not a crashed machine. The server refuses to run as root, so
// under root (as in CI) its programs run as the "postgres" system user of Debian's package.

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestSupport.hpp"
#include "gaugepoint/pgsync/PostgresConnection.hpp"

namespace gaugepoint::testing {

class PostgresServer {
public:
    PostgresServer() : port_(20000 + int(std::random_device{}() % 40000)) {
        bin_ = binDirectory();
        std::filesystem::create_directories(dir_ / "sock");
        if (::geteuid() == 0) {
            const passwd* user = ::getpwnam("postgres");
            if (!user) throw std::runtime_error("running as root needs the postgres system user (Debian's postgresql)");
            for (const auto& p : {dir_.path(), dir_ / "sock"}) {
                if (::chown(p.c_str(), user->pw_uid, user->pw_gid) != 0) throw std::runtime_error("cannot chown " + p.string());
            }
        }
        run({(bin_ / "initdb").string(), "-D", data(), "-A", "trust", "-U", "postgres", "--no-sync", "-E", "UTF8"});
        start();
        auto admin = superuser("postgres");
        admin.execute("CREATE ROLE alice LOGIN");
        admin.execute("CREATE ROLE bob LOGIN");
        admin.execute("CREATE DATABASE gaugepoint");
    }
    ~PostgresServer() {
        try {
            run({(bin_ / "pg_ctl").string(), "-D", data(), "-m", "immediate", "-w", "stop"}, true);
        } catch (...) {
        }
    }
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    // "host=<socket dir> port=<port> dbname=<database> user=<role>".
    std::string connectionString(const std::string& role, const std::string& database = "gaugepoint") const {
        return "host=" + (dir_ / "sock").string() + " port=" + std::to_string(port_) + " dbname=" + database +
               " user=" + role;
    }
    PostgresConnection superuser(const std::string& database = "gaugepoint") const {
        return PostgresConnection::open(connectionString("postgres", database));
    }

    void start() {
        run({(bin_ / "pg_ctl").string(), "-D", data(), "-l", (dir_ / "server.log").string(), "-w", "-o",
             "-k " + (dir_ / "sock").string() + " -p " + std::to_string(port_) +
                 " -c listen_addresses= -c fsync=off -c full_page_writes=off",
             "start"});
    }
    // As a crash would: no checkpoint, every connection cut.
    void kill() { run({(bin_ / "pg_ctl").string(), "-D", data(), "-m", "immediate", "-w", "stop"}); }

private:
    std::string data() const { return (dir_ / "data").string(); }

    // The newest installed server's programs.
    static std::filesystem::path binDirectory() {
        std::filesystem::path best;
        std::error_code ignored;
        for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
            if (std::filesystem::exists(version.path() / "bin" / "initdb") && version.path() > best.parent_path()) {
                best = version.path() / "bin";
            }
        }
        if (best.empty()) throw std::runtime_error("no PostgreSQL server installed (Debian package postgresql)");
        return best;
    }

    // Runs a server program (as the postgres user under root) and waits for it.
    void run(std::vector<std::string> args, bool quiet = false) const {
        if (::geteuid() == 0) args.insert(args.begin(), {"runuser", "-u", "postgres", "--"});
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const std::string log = (dir_ / "ctl.log").string();
        std::fflush(nullptr);  // the child must not write out what this process has buffered
        const pid_t pid = ::fork();
        if (pid == 0) {
            if (!std::freopen(log.c_str(), "ab", stdout) || !std::freopen(log.c_str(), "ab", stderr)) ::_exit(127);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (!quiet && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
            throw std::runtime_error(args.front() + " failed: " + readFile(log));
        }
    }

    ScratchDirectory dir_;
    std::filesystem::path bin_;
    int port_;
};

}  // namespace gaugepoint::testing
