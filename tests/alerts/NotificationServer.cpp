// A notification server for tests, run on a private bus under dbus-run-session:
//   NotificationServer RECORD READY
// owns org.freedesktop.Notifications, appends one line per Notify call to RECORD
// ("app<TAB>replaces_id<TAB>summary<TAB>body<TAB>urgency"), answers with an id, writes the bus
// address to READY once it serves, and exits when its standard input closes.

#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

const char* recordFile = nullptr;
std::uint32_t lastID = 0;

int urgencyOf(sd_bus_message* m) {
    int urgency = -1;
    if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) return urgency;
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        const char* key = nullptr;
        sd_bus_message_read(m, "s", &key);
        if (key && std::strcmp(key, "urgency") == 0 && sd_bus_message_enter_container(m, 'v', "y") > 0) {
            std::uint8_t value = 0;
            sd_bus_message_read(m, "y", &value);
            urgency = value;
            sd_bus_message_exit_container(m);
        } else {
            sd_bus_message_skip(m, "v");
        }
        sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
    return urgency;
}

int notify(sd_bus_message* m) {
    const char *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
    std::uint32_t replaces = 0;
    if (sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body) < 0) return -EINVAL;
    sd_bus_message_skip(m, "as");
    const int urgency = urgencyOf(m);
    std::ofstream(recordFile, std::ios::app) << app << '\t' << replaces << '\t' << summary << '\t' << body << '\t'
                                             << urgency << '\n';
    return sd_bus_reply_method_return(m, "u", replaces != 0 ? replaces : ++lastID);
}

int handle(sd_bus_message* m, void*, sd_bus_error*) {
    const char* member = sd_bus_message_get_member(m);
    if (!member) return 0;
    if (std::strcmp(member, "Notify") == 0) return notify(m);
    if (std::strcmp(member, "GetServerInformation") == 0) {
        return sd_bus_reply_method_return(m, "ssss", "test-server", "gaugepoint tests", "1.0", "1.2");
    }
    return 0;
}

bool inputClosed() {
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (::poll(&in, 1, 0) <= 0) return false;
    char byte;
    return ::read(STDIN_FILENO, &byte, 1) <= 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    recordFile = argv[1];
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) return 1;
    if (sd_bus_add_object(bus, nullptr, "/org/freedesktop/Notifications", handle, nullptr) < 0) return 1;
    if (sd_bus_request_name(bus, "org.freedesktop.Notifications", 0) < 0) return 1;
    std::ofstream(recordFile, std::ios::trunc).flush();
    {
        const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        std::ofstream ready(std::string(argv[2]) + ".tmp");
        ready << (address ? address : "");
    }
    std::rename((std::string(argv[2]) + ".tmp").c_str(), argv[2]);
    while (!inputClosed()) {
        while (sd_bus_process(bus, nullptr) > 0) {
        }
        sd_bus_wait(bus, 50'000);
    }
    sd_bus_flush_close_unref(bus);
    return 0;
}
