#pragma once

// Runs the built gaugepoint command in a child process and captures what it printed.

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "TestSupport.hpp"

namespace gaugepoint::testing {

struct CommandResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs `binary` with `args`, feeding `input` on stdin. GAUGEPOINT_BINARY is set by the test target.
inline CommandResult runCommand(const std::string& binary, const std::vector<std::string>& args,
                                const std::string& input = {}) {
    ScratchDirectory dir;
    writeFile(dir / "in", input);
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::fflush(nullptr);  // the child must not write out what this process has buffered
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (!std::freopen((dir / "in").c_str(), "rb", stdin) || !std::freopen((dir / "out").c_str(), "wb", stdout) ||
            !std::freopen((dir / "err").c_str(), "wb", stderr)) {
            ::_exit(127);
        }
        ::execv(binary.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(dir / "out"), readFile(dir / "err")};
}

#ifdef GAUGEPOINT_BINARY
inline CommandResult gaugepoint(const std::vector<std::string>& args, const std::string& input = {}) {
    return runCommand(GAUGEPOINT_BINARY, args, input);
}
#endif

}  // namespace gaugepoint::testing
