#include "gaugepoint/alerts/DesktopNotifier.hpp"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "gaugepoint/platform/SharedLibrary.hpp"

namespace gaugepoint {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr std::uint64_t kCallTimeoutMicroseconds = 2'000'000;

// The part of sd-bus this program uses, bound at the first notification.
struct SdBus {
    decltype(&sd_bus_open_user) openUser = nullptr;
    decltype(&sd_bus_flush_close_unref) closeUnref = nullptr;
    decltype(&sd_bus_message_new_method_call) newMethodCall = nullptr;
    decltype(&sd_bus_message_append) append = nullptr;
    decltype(&sd_bus_message_open_container) openContainer = nullptr;
    decltype(&sd_bus_message_close_container) closeContainer = nullptr;
    decltype(&sd_bus_message_read) read = nullptr;
    decltype(&sd_bus_message_unref) messageUnref = nullptr;
    decltype(&sd_bus_call) call = nullptr;
    decltype(&sd_bus_error_free) errorFree = nullptr;
};

const SdBus* sdBus() {
    static const std::unique_ptr<SdBus> loaded = []() -> std::unique_ptr<SdBus> {
        const auto lib = SharedLibrary::open({"libsystemd.so.0"});
        if (!lib) return nullptr;
        auto f = std::make_unique<SdBus>();
        const bool bound = lib->bind("sd_bus_open_user", f->openUser) &&
                           lib->bind("sd_bus_flush_close_unref", f->closeUnref) &&
                           lib->bind("sd_bus_message_new_method_call", f->newMethodCall) &&
                           lib->bind("sd_bus_message_append", f->append) &&
                           lib->bind("sd_bus_message_open_container", f->openContainer) &&
                           lib->bind("sd_bus_message_close_container", f->closeContainer) &&
                           lib->bind("sd_bus_message_read", f->read) &&
                           lib->bind("sd_bus_message_unref", f->messageUnref) && lib->bind("sd_bus_call", f->call) &&
                           lib->bind("sd_bus_error_free", f->errorFree);
        return bound ? std::move(f) : nullptr;
    }();
    return loaded.get();
}

// One method call to the notification server on a connection of its own.
class Call {
public:
    Call(const SdBus& bus, const char* member) : f_(bus) {
        int r = f_.openUser(&bus_);
        if (r == -ENOMEDIUM || r == -ENOENT || r == -ECONNREFUSED) {
            problem_ = "no session bus (DBUS_SESSION_BUS_ADDRESS is unset and $XDG_RUNTIME_DIR/bus is not there)";
            return;
        }
        if (r < 0) {
            problem_ = std::string("no session bus: ") + std::strerror(-r);
            return;
        }
        r = f_.newMethodCall(bus_, &message_, kService, kPath, kService, member);
        if (r < 0) problem_ = std::string("cannot build the D-Bus call: ") + std::strerror(-r);
    }
    ~Call() {
        f_.errorFree(&error_);
        if (reply_) f_.messageUnref(reply_);
        if (message_) f_.messageUnref(message_);
        if (bus_) f_.closeUnref(bus_);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    sd_bus_message* message() const { return message_; }
    // Sends the message and waits for the reply; false with problem() set when none came.
    bool send() {
        if (!problem_.empty()) return false;
        if (f_.call(bus_, message_, kCallTimeoutMicroseconds, &error_, &reply_) >= 0) return true;
        const bool noServer = error_.name && (std::strcmp(error_.name, SD_BUS_ERROR_SERVICE_UNKNOWN) == 0 ||
                                              std::strcmp(error_.name, SD_BUS_ERROR_NAME_HAS_NO_OWNER) == 0);
        problem_ = noServer ? "no notification server on the session bus"
                            : std::string("the notification server did not answer: ") +
                                  (error_.message ? error_.message : "unknown error");
        return false;
    }
    void fail(int r) { problem_ = std::string("cannot build the D-Bus call: ") + std::strerror(-r); }
    sd_bus_message* reply() const { return reply_; }
    const std::string& problem() const { return problem_; }

private:
    const SdBus& f_;
    sd_bus* bus_ = nullptr;
    sd_bus_message* message_ = nullptr;
    sd_bus_message* reply_ = nullptr;
    sd_bus_error error_{};
    std::string problem_;
};

// The arguments of Notify after the body: no actions, the urgency hint, the server's timeout.
int appendNotifyTail(const SdBus& f, sd_bus_message* m, bool critical) {
    int r = 0;
    const auto step = [&r](int result) { return (r = result) >= 0; };
    const std::uint8_t urgency = critical ? 2 : 1;
    const bool ok = step(f.openContainer(m, 'a', "s")) && step(f.closeContainer(m)) &&
                    step(f.openContainer(m, 'a', "{sv}")) && step(f.openContainer(m, 'e', "sv")) &&
                    step(f.append(m, "s", "urgency")) && step(f.openContainer(m, 'v', "y")) &&
                    step(f.append(m, "y", urgency)) && step(f.closeContainer(m)) && step(f.closeContainer(m)) &&
                    step(f.closeContainer(m)) && step(f.append(m, "i", std::int32_t(-1)));
    return ok ? 0 : r;
}

constexpr const char* kNoLibrary = "cannot load libsystemd (libsystemd.so.0): install libsystemd0 for desktop notifications";

}  // namespace

DesktopDelivery DesktopNotifier::notify(const DesktopNotification& n) noexcept {
    try {
        const SdBus* f = sdBus();
        if (!f) return {std::nullopt, kNoLibrary};
        Call call{*f, "Notify"};
        if (call.message()) {
            const int r = f->append(call.message(), "susss", "gaugepoint", n.replacesID.value_or(0), "",
                                    n.title.c_str(), n.body.c_str());
            const int tail = r < 0 ? r : appendNotifyTail(*f, call.message(), n.critical);
            if (tail < 0) call.fail(tail);
        }
        if (!call.send()) return {std::nullopt, call.problem()};
        std::uint32_t id = 0;
        if (f->read(call.reply(), "u", &id) < 0) return {std::nullopt, "the notification server gave no id"};
        return {id, {}};
    } catch (const std::exception& e) {
        return {std::nullopt, e.what()};
    }
}

DesktopServerInfo DesktopNotifier::probe() noexcept {
    try {
        const SdBus* f = sdBus();
        if (!f) return {false, kNoLibrary};
        Call call{*f, "GetServerInformation"};
        if (!call.send()) return {false, call.problem()};
        const char *name = nullptr, *vendor = nullptr, *version = nullptr, *specVersion = nullptr;
        if (f->read(call.reply(), "ssss", &name, &vendor, &version, &specVersion) < 0) {
            return {true, "a notification server that does not say who it is"};
        }
        return {true, std::string(name) + " " + version + " (" + vendor + ")"};
    } catch (const std::exception& e) {
        return {false, e.what()};
    }
}

}  // namespace gaugepoint
