#pragma once

// The title and body of an alert in the user's language: English, or Simplified Chinese when
// the language code begins with "zh". Clock times are local.

#include <string>
#include <string_view>

#include "gaugepoint/alerts/AlertRules.hpp"

namespace gaugepoint::AlertText {

struct Message {
    std::string title;
    std::string body;
};

// "Claude · Session 5h at 82%" / "Crossed 80% · resets Thu 14:00", and the like for each rule.
Message of(const AlertCandidate& alert, std::string_view language);

// The sample `alerts test` shows.
Message sample(std::string_view language);

}  // namespace gaugepoint::AlertText
