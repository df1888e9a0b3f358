#pragma once

// A private session bus with the test notification server on it (dbus-run-session), made the
// bus of this process and of the commands it starts. Ends when the value goes.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.hpp"

namespace gaugepoint::testing {

// One recorded Notify call.
struct NotifyCall {
    std::string app;
    std::uint32_t replacesID = 0;
    std::string summary;
    std::string body;
    int urgency = -1;
};

inline bool haveDbusRunSession() {
    return std::system("command -v dbus-run-session >/dev/null 2>&1") == 0;
}

class PrivateBus {
public:
    PrivateBus() {
        int input[2];
        if (::pipe(input) != 0) return;
        const std::string server = NOTIFICATION_SERVER, record = (dir_ / "record").string(),
                          ready = (dir_ / "ready").string();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(input[0], STDIN_FILENO);
            ::close(input[0]);
            ::close(input[1]);
            ::execlp("dbus-run-session", "dbus-run-session", "--", server.c_str(), record.c_str(), ready.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(input[0]);
        input_ = input[1];
        for (int i = 0; i < 200 && !std::filesystem::exists(dir_ / "ready"); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        address_ = std::filesystem::exists(dir_ / "ready") ? readFile(dir_ / "ready") : "";
        if (!address_.empty()) ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~PrivateBus() {
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
        if (input_ >= 0) ::close(input_);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool running() const { return !address_.empty(); }

    std::vector<NotifyCall> calls() const {
        std::vector<NotifyCall> calls;
        const std::string text = readFile(dir_ / "record");
        for (std::size_t start = 0; start < text.size();) {
            const auto end = text.find('\n', start);
            std::vector<std::string> f;
            for (std::size_t p = start; p <= end;) {
                const auto tab = std::min(text.find('\t', p), end);
                f.push_back(text.substr(p, tab - p));
                p = tab + 1;
            }
            if (f.size() == 5) calls.push_back({f[0], std::uint32_t(std::stoul(f[1])), f[2], f[3], std::stoi(f[4])});
            start = end + 1;
        }
        return calls;
    }

private:
    ScratchDirectory dir_;
    pid_t pid_ = -1;
    int input_ = -1;
    std::string address_;
};

}  // namespace gaugepoint::testing
