// Arbitrary bytes as a sibling widget snapshot and as a quota snapshot document. Whatever
// decodes must render, and must survive encode -> decode -> encode unchanged.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace {

using namespace gaugepoint;

void render(const QuotaSnapshot& snapshot) {
    const Date now = dateFromSeconds(1795267140);
    for (const char* language : {"en", "zh-Hans"}) {
        const auto view = QuotaWidgetView::make(snapshot, now, language);
        (void)QuotaWidgetText::providerLines(view);
        (void)QuotaWidgetText::waybarJSON(QuotaWidgetText::waybarModule(view));
        try {
            (void)json::encode(view);
        } catch (const json::EncodingError&) {
            // Infinite percents cannot be written as JSON; that is reported, not a crash.
        }
    }
}

// Encoding is stable after the first pass: dates are written to the microsecond, so only
// the first decode may lose precision.
void checkStableEncoding(const QuotaSnapshot& snapshot) {
    std::string once;
    try {
        once = json::encode(snapshot);
    } catch (const json::EncodingError&) {
        return;
    }
    const auto again = json::decode<QuotaSnapshot>(once);
    if (json::encode(again) != once) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        render(TallybarSnapshotImporter::normalize(json::decode<tallybar::RawSnapshot>(text)));
    } catch (const json::DecodingError&) {
    }
    try {
        const auto snapshot = json::decode<QuotaSnapshot>(text);
        render(snapshot);
        checkStableEncoding(snapshot);
    } catch (const json::DecodingError&) {
    }
    return 0;
}
