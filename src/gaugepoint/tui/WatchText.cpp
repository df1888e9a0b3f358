#include "gaugepoint/tui/WatchText.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace gaugepoint::tui::WatchText {

std::string_view phrase(Phrase which, std::string_view language) {
    struct Pair {
        std::string_view en, zh;
    };
    static constexpr std::array<Pair, 24> kPhrases{{
        {"Quota", "额度"},
        {"Five-hour blocks", "五小时区块"},
        {"Today", "今日"},
        {"Sessions, last hour", "最近一小时的会话"},
        {"Other machines", "其他机器"},
        {"official", "官方"},
        {"estimated", "估算"},
        {"stale", "过期"},
        {"no quota reading yet", "尚无额度读数"},
        {"no active block", "没有进行中的区块"},
        {"no usage today", "今日尚无用量"},
        {"no session in the last hour", "最近一小时没有会话"},
        {"total", "合计"},
        {"14 days", "14 天"},
        {"all tools", "全部工具"},
        {"updated", "更新于"},
        {"q quit · Tab panel · p tool · z zone · l language · r rescan · ? help",
         "q 退出 · Tab 面板 · p 工具 · z 时区 · l 语言 · r 重新扫描 · ? 帮助"},
        {"q quit · ? help", "q 退出 · ? 帮助"},
        {"Keys", "按键"},
        {"/h", "/小时"},
        {"→", "→"},
        {"by", "至"},
        {"tok", "tok"},
        {"q, Ctrl-C   quit\nTab, ←→↑↓  move between panels\np          cycle the tool filter\nz          local "
         "time or UTC\nl          English or Chinese\nr          rescan the logs now\n?          this help",
         "q, Ctrl-C   退出\nTab, ←→↑↓  在面板间移动\np          切换工具筛选\nz          本地时间或 UTC\nl          "
         "英文或中文\nr          立即重新扫描日志\n?          本帮助"},
    }};
    static_assert(kPhrases.size() == static_cast<std::size_t>(Phrase::helpLines) + 1, "one pair per phrase, in order");
    const auto& pair = kPhrases[static_cast<std::size_t>(which)];
    return language.starts_with("zh") ? pair.zh : pair.en;
}

std::string tokens(std::int64_t count) {
    char text[32];
    const double value = static_cast<double>(count);
    if (count < 1000) std::snprintf(text, sizeof text, "%lld", static_cast<long long>(count));
    else if (count < 1'000'000) std::snprintf(text, sizeof text, "%.1fK", value / 1e3);
    else if (count < 1'000'000'000) std::snprintf(text, sizeof text, "%.1fM", value / 1e6);
    else std::snprintf(text, sizeof text, "%.1fB", value / 1e9);
    return text;
}

std::string dollars(double amount) {
    const bool negative = amount < 0;
    const auto cents = static_cast<long long>(std::llround(std::fabs(amount) * 100));
    std::string whole = std::to_string(cents / 100);
    for (int at = static_cast<int>(whole.size()) - 3; at > 0; at -= 3) whole.insert(static_cast<std::size_t>(at), ",");
    char fraction[4];
    std::snprintf(fraction, sizeof fraction, "%02lld", cents % 100);
    return (negative ? "-$" : "$") + whole + "." + fraction;
}

std::string sparkline(const std::vector<double>& values) {
    static constexpr std::array<std::string_view, 8> kLevels{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const double top = values.empty() ? 0 : *std::max_element(values.begin(), values.end());
    std::string line;
    for (const double value : values) {
        const auto level = top > 0 && value > 0 ? std::clamp(static_cast<int>(std::ceil(value / top * 8)) - 1, 0, 7) : 0;
        line += kLevels[static_cast<std::size_t>(level)];
    }
    return line;
}

}  // namespace gaugepoint::tui::WatchText
