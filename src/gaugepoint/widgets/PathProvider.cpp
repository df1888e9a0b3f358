#include "gaugepoint/widgets/PathProvider.hpp"

#include <cstdlib>
#include <string>

namespace gaugepoint::PathProvider {
namespace {

std::filesystem::path homeDirectory() {
    const char* home = std::getenv("HOME");
    return home && *home ? std::filesystem::path(home) : std::filesystem::path("/");
}

std::filesystem::path computeDefault() {
    const char* configured = std::getenv("GAUGEPOINT_SIBLING_GROUP_ID");
    const std::string group = configured && *configured ? configured : "group.tallybar.shared";
#if defined(__APPLE__)
    return homeDirectory() / "Library" / "Group Containers" / group / "widget-snapshot.json";
#else
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const std::filesystem::path base =
        dataHome && *dataHome ? std::filesystem::path(dataHome) : homeDirectory() / ".local" / "share";
    return base / group / "widget-snapshot.json";
#endif
}

}  // namespace

const std::filesystem::path& defaultTallybarWidgetSnapshot() {
    static const std::filesystem::path path = computeDefault();
    return path;
}

}  // namespace gaugepoint::PathProvider
