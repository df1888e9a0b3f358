#include "OptionValues.hpp"

#include <charconv>
#include <cmath>

namespace gaugepoint::cli::Values {
namespace {

std::string refusal(const std::string& accepts, const std::string& got, const std::string& example) {
    return "takes " + accepts + " (got \"" + got + "\"), e.g. {option} " + example;
}

std::string fromText(double minimum) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, minimum).ptr;
    return std::string(text, end);
}

}  // namespace

CLI::Validator wholeNumber(std::int64_t minimum, std::string example, std::int64_t maximum) {
    std::string accepts = "a whole number from " + std::to_string(minimum);
    if (maximum != INT64_MAX) accepts += " to " + std::to_string(maximum);
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            std::int64_t value = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            if (error != std::errc() || end != text.data() + text.size() || value < minimum || value > maximum) {
                return refusal(accepts, text, example);
            }
            return {};
        },
        "", "");
}

CLI::Validator number(double minimum, std::string example) {
    const std::string accepts = "a number from " + fromText(minimum);
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            double value = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) || value < minimum) {
                return refusal(accepts, text, example);
            }
            return {};
        },
        "", "");
}

CLI::Validator oneOf(std::vector<std::string> choices) {
    std::string listed;
    for (std::size_t i = 0; i < choices.size(); ++i) {
        listed += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
    }
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            for (const auto& choice : choices) {
                if (text == choice) return {};
            }
            return refusal(listed, text, choices.front());
        },
        "", "");
}

}  // namespace gaugepoint::cli::Values
