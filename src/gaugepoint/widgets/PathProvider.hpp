#pragma once

#include <filesystem>

namespace gaugepoint::PathProvider {

// The sibling app's widget snapshot file: "~/Library/Group Containers/<group>/widget-snapshot.json"
// on macOS; elsewhere "$XDG_DATA_HOME/<group>/widget-snapshot.json" (default ~/.local/share). The
// group identifier comes from GAUGEPOINT_SIBLING_GROUP_ID, default "group.tallybar.shared".
// Computed once, on first use.
const std::filesystem::path& defaultTallybarWidgetSnapshot();

}  // namespace gaugepoint::PathProvider
