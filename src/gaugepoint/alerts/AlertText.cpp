#include "gaugepoint/alerts/AlertText.hpp"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "gaugepoint/quota/QuotaReadingText.hpp"

namespace gaugepoint::AlertText {
namespace {

bool chinese(std::string_view language) { return language.starts_with("zh"); }

// Whole percents, never rounded up to a limit not yet reached ("99%", not "100%").
std::string percent(double value) { return std::to_string(std::int64_t(std::floor(value))) + "%"; }

std::string usd(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "$%.2f", value);
    return text;
}

std::string subject(const AlertCandidate& alert, std::string_view language) {
    return alert.providerName + " · " + alert.window.localizedLabel(language);
}

std::string resetText(const AlertCandidate& alert, std::string_view language) {
    if (!alert.window.resetsAt) return {};
    const std::string when = QuotaReadingText::weekdayTime(*alert.window.resetsAt, language);
    return chinese(language) ? " · " + when + " 重置" : " · resets " + when;
}

Message threshold(const AlertCandidate& a, std::string_view language) {
    if (chinese(language)) {
        return {subject(a, language) + " 已用 " + percent(a.value), "已超过 " + percent(a.limit) + resetText(a, language)};
    }
    return {subject(a, language) + " at " + percent(a.value), "Crossed " + percent(a.limit) + resetText(a, language)};
}

Message reset(const AlertCandidate& a, std::string_view language) {
    if (chinese(language)) return {subject(a, language) + " 已重置", "额度已恢复，可以继续使用。"};
    return {subject(a, language) + " has reset", "The allowance is back."};
}

Message runsOut(const AlertCandidate& a, std::string_view language) {
    const std::string when = a.runsOutAt ? QuotaReadingText::weekdayTime(*a.runsOutAt, language) : "";
    if (chinese(language)) {
        return {subject(a, language) + " 将在重置前用尽",
                "按当前速度约 " + when + " 用尽（现已用 " + percent(a.value) + "）" + resetText(a, language)};
    }
    return {subject(a, language) + " runs out before reset",
            "At this pace it runs out ~" + when + " (now " + percent(a.value) + ")" + resetText(a, language)};
}

Message budget(const AlertCandidate& a, std::string_view language) {
    const bool daily = a.budgetPeriod == "daily";
    if (chinese(language)) {
        return {daily ? "已达每日预算" : "已达每月预算",
                std::string(daily ? "今日" : "本月") + "已花费 " + usd(a.value) + "，预算 " + usd(a.limit)};
    }
    return {daily ? "Daily budget reached" : "Monthly budget reached",
            "Spent " + usd(a.value) + " of " + usd(a.limit) + (daily ? " today" : " this month")};
}

}  // namespace

Message of(const AlertCandidate& alert, std::string_view language) {
    switch (alert.rule) {
        case AlertRule::threshold: return threshold(alert, language);
        case AlertRule::reset: return reset(alert, language);
        case AlertRule::runsOut: return runsOut(alert, language);
        case AlertRule::budget: return budget(alert, language);
    }
    return {};
}

Message sample(std::string_view language) {
    if (chinese(language)) return {"gaugepoint 测试通知", "桌面通知工作正常；提醒会像这样显示。"};
    return {"gaugepoint test notification", "Desktop notifications work; alerts will look like this."};
}

}  // namespace gaugepoint::AlertText
