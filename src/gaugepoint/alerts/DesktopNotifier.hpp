#pragma once

// Desktop notifications through the freedesktop Notifications service on the session D-Bus
// (org.freedesktop.Notifications.Notify, app name "gaugepoint"), spoken with libsystemd's
// sd-bus. libsystemd is loaded on the first call, so a run that notifies nothing never loads
// it. Nothing here throws: no library, no session bus or no notification server is a problem
// text in the result. Each call opens its own bus connection; safe from any thread.

#include <cstdint>
#include <optional>
#include <string>

namespace gaugepoint {

struct DesktopNotification {
    std::string title;
    std::string body;
    bool critical = false;                    // urgency 2, else 1 (normal)
    std::optional<std::uint32_t> replacesID;  // the notification this one takes the place of
};

struct DesktopDelivery {
    std::optional<std::uint32_t> id;  // the server's id of the shown notification
    std::string problem;              // why nothing was shown ("no session bus: ...")
    bool shown() const { return id.has_value(); }
};

struct DesktopServerInfo {
    bool reachable = false;
    std::string description;  // "dunst 1.9.0 (knopwob)" or why it cannot be reached
};

namespace DesktopNotifier {

// Shows `notification`; waits at most two seconds for the server's answer.
DesktopDelivery notify(const DesktopNotification& notification) noexcept;
// Asks the notification server who it is (GetServerInformation), which also starts one that
// the bus activates on demand.
DesktopServerInfo probe() noexcept;

}  // namespace DesktopNotifier
}  // namespace gaugepoint
