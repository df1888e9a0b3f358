// gaugepoint report daily|weekly|monthly|session|blocks: usage tables from the imported logs.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <set>

#include "Commands.hpp"
#include "LogScan.hpp"
#include "TextTable.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/ScanLock.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "gaugepoint/reports/ClaudeBlockLimit.hpp"
#include "gaugepoint/reports/UsageBlocks.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"
#include "gaugepoint/reports/UsageReport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"

namespace gaugepoint::cli {
namespace {

using ReportKind = UsageReportKind;

struct ReportOptions {
    LogHomesOptions homes;
    bool noScan = false;
    std::string since, until, timezone;
    std::vector<std::string> providers;  // none: every provider
    bool byProvider = false;             // periods: a row per provider under each period
    std::optional<std::int64_t> last;  // the N most recent periods (days for sessions and blocks)
    bool breakdown = false;
    std::string order = "asc";
    std::string startOfWeek = "sunday";
    bool allSources = false;
    bool timezoneGiven = false;  // --timezone '' is refused, not taken for the default
    bool activeOnly = false;     // blocks: only the active one
    bool recent = false;         // blocks: the last three days
    std::string tokenLimit;      // blocks: N or "max"
};

// The texts of the tables, English and Chinese.
struct Words {
    const char *daily, *weekly, *monthly, *sessions, *blocks;
    const char *date, *week, *month, *session, *provider, *project, *lastActivity, *start, *status;
    const char *models, *input, *output, *cacheCreate, *cacheRead, *total, *cost, *totalRow;
    const char *allProviders, *noUsage, *in, *stop, *storesAt, *scanFirst, *active, *gap, *unpriced, *unpricedCell;
    const char *left, *ofLimit, *burnRate, *perMinute, *perHour, *atThisRate, *tokensAnd, *by;
    const char* oneHour;
    const char *charges, *premiumRequests, *aiu, *credits, *listSeparator;
};

constexpr Words kEnglish{"Daily usage", "Weekly usage", "Monthly usage", "Usage by session", "Five-hour blocks",
                         "Date", "Week", "Month", "Session", "Provider", "Project", "Last activity", "Block start",
                         "Status", "Models", "Input", "Output", "Cache create", "Cache read", "Total tokens", "Cost",
                         "Total", "all providers", "No usage found.", " in ", ".", "the stores at ",
                         " (without --no-scan the logs are read first)", "active", "idle",
                         " tokens of models without a price are not in the costs: ", "unpriced*",
                         "{} left", "% of limit", "Burn rate: ", " tokens/min", "/h", "At this rate the block ends with ",
                         " tokens, ", " by ", "1h ", "Charged in the tools' own units, not in the costs: ",
                         " premium requests", " AIU", " credits", ", "};
constexpr Words kChinese{"每日用量", "每周用量", "每月用量", "按会话的用量", "五小时区块", "日期", "周", "月",
                         "会话", "服务", "项目", "最后活动", "区块开始", "状态", "模型", "输入", "输出", "缓存写入",
                         "缓存读取", "总令牌", "费用", "合计", "全部服务", "没有找到用量。", "：", "。", "存储 ",
                         "（不带 --no-scan 时会先读取日志）", "进行中", "空闲",
                         " 个令牌属于没有价格的模型，未计入费用：", "无价格*",
                         "剩余 {}", "占上限", "消耗速度：", " 令牌/分钟", "/小时", "按此速度，区块结束时为 ", " 令牌、",
                         "，截至 ", "1小时 ", "工具以自身单位计的费用，未计入费用：", " 次高级请求", " AIU",
                         " 积分", "、"};

const Words& wordsFor(const GlobalOptions& globals) {
    return isChineseLanguage(resolveLanguage(globals)) ? kChinese : kEnglish;
}

// The cost cell: "$12.34", marked when some tokens have no price.
std::string costCell(const UsageTotals& totals) {
    return usdCentsText(totals.totalCost) + (totals.unpricedTokens > 0 ? "*" : "");
}

std::vector<std::string> tokenCells(const QuotaSessionTokenUsage& t) {
    return {groupedInteger(t.inputTokens), groupedInteger(t.outputTokens), groupedInteger(t.cacheWriteTokens),
            groupedInteger(t.cacheReadTokens), groupedInteger(t.totalTokens())};
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const auto& part : parts) text += (text.empty() ? "" : ", ") + part;
    return text;
}

// A model name without its release date ("claude-sonnet-4-5-20250929" → "claude-sonnet-4-5"),
// so that a row of several models stays readable; the breakdown rows and JSON keep full names.
std::string shortModelName(const std::string& name) {
    constexpr std::size_t kDate = 9;  // "-YYYYMMDD"
    if (name.size() <= kDate || name[name.size() - kDate] != '-') return name;
    const bool digits = std::all_of(name.end() - 8, name.end(), [](char c) { return c >= '0' && c <= '9'; });
    return digits ? name.substr(0, name.size() - kDate) : name;
}

// Up to three models by name; beyond that two and how many more (--breakdown lists them all).
std::string modelsCell(const std::vector<std::string>& models) {
    constexpr std::size_t kShown = 3;
    std::vector<std::string> names;
    for (const auto& model : models) {
        auto name = shortModelName(model);
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
    }
    if (names.size() <= kShown) return joined(names);
    const std::size_t more = names.size() - (kShown - 1);
    names.resize(kShown - 1);
    return joined(names) + " +" + std::to_string(more);
}

// A leading column of a usage table: its header, and whether a narrow terminal may cut it (ids,
// paths) or leave it out.
struct LeadingColumn {
    std::string header;
    bool shrinkable = false;
    bool optional = false;
    bool rightAligned = false;
};

// A table whose rows begin with `leading` cells, then models, the token counts and the cost. On
// a narrow terminal the four token counts are left out (the total stays) and the models cut.
class UsageTable {
public:
    UsageTable(const std::vector<LeadingColumn>& leading, const Words& words, bool breakdown)
        : leading_(leading.size()), words_(words), breakdown_(breakdown) {
        std::vector<std::string> header;
        for (const auto& column : leading) {
            header.push_back(column.header);
            format_.shrinkable.push_back(column.shrinkable);
            format_.optional.push_back(column.optional);
        }
        for (const auto& column : leading) format_.rightAligned.push_back(column.rightAligned);
        format_.rightAligned.push_back(false);  // models
        format_.rightAligned.resize(leading_ + 7, true);
        format_.shrinkable.push_back(true);  // models
        format_.optional.push_back(false);
        format_.optional.insert(format_.optional.end(), {true, true, true, true, false, false});
        format_.totalRow = true;
        for (const char* h : {words.models, words.input, words.output, words.cacheCreate, words.cacheRead, words.total,
                              words.cost}) {
            header.emplace_back(h);
        }
        rows_.push_back(std::move(header));
    }

    void add(std::vector<std::string> leading, const UsageTotals& totals) {
        leading.push_back(modelsCell(totals.modelsUsed));
        for (auto& cell : tokenCells(totals.tokens)) leading.push_back(std::move(cell));
        leading.push_back(costCell(totals));
        rows_.push_back(std::move(leading));
        if (totals.unpricedTokens > 0) {
            unpricedTokens_ += totals.unpricedTokens;
            for (const auto& b : totals.modelBreakdowns) {
                if (!b.priced) unpricedModels_.insert(b.modelName);
            }
        }
        if (!breakdown_) return;
        for (const auto& b : totals.modelBreakdowns) {
            std::vector<std::string> row(leading_ + 1, "");
            row.back() = "  └ " + b.modelName;
            for (auto& cell : tokenCells(b.tokens)) row.push_back(std::move(cell));
            // The one-hour part of a model's cache writes, priced apart: "1,234 (1h 234)".
            if (b.cacheWrite1hTokens > 0) {
                row[leading_ + 3] += std::string(" (") + words_.oneHour + groupedInteger(b.cacheWrite1hTokens) + ")";
            }
            row.push_back(b.priced ? usdCentsText(b.cost) : words_.unpricedCell);
            rows_.push_back(std::move(row));
        }
    }

    void addEmpty(std::vector<std::string> leading) { rows_.push_back(std::move(leading)); }

    std::string text(const UsageTotals& totals) {
        std::vector<std::string> last(leading_, "");
        last.front() = words_.totalRow;
        last.emplace_back("");
        for (auto& cell : tokenCells(totals.tokens)) last.push_back(std::move(cell));
        last.push_back(costCell(totals));
        rows_.push_back(std::move(last));
        std::string text = renderTable(rows_, format_);
        if (totals.unpricedTokens > 0) {
            std::vector<std::string> models{unpricedModels_.begin(), unpricedModels_.end()};
            const std::string note = " " + groupedInteger(totals.unpricedTokens) + words_.unpriced;
            const auto width = OutputStyle::current().width;
            const bool oneLine = !width || OutputStyle::current().wide || 1 + displayWidth(note + joined(models)) <= *width;
            // On a narrow terminal the models go on a line of their own rather than wrap.
            text += Ansi::yellow("*") + (oneLine ? note : std::string(trimmed(note)).insert(0, " ") + "\n  ") +
                    joined(models) + "\n";
        }
        if (totals.charges.any()) text += chargesLine(totals.charges) + "\n";
        return text;
    }

private:
    // "Charged in the tools' own units, not in the costs: 3 premium requests, 12.5 AIU"
    std::string chargesLine(const QuotaUsageCharges& charges) const {
        std::string list;
        for (const auto& [amount, unit] : {std::pair{charges.premiumRequests, words_.premiumRequests},
                                           std::pair{charges.aiu, words_.aiu}, std::pair{charges.credits, words_.credits}}) {
            if (amount != 0) list += (list.empty() ? "" : words_.listSeparator) + numberText(amount) + unit;
        }
        return words_.charges + list;
    }

    std::size_t leading_;
    TableFormat format_;
    const Words& words_;
    bool breakdown_;
    std::vector<std::vector<std::string>> rows_;
    std::int64_t unpricedTokens_ = 0;
    std::set<std::string> unpricedModels_;
};

std::string titleLine(const char* title, const LocalCalendar& calendar, const UsageReportFilter& filter,
                      const Words& words) {
    return Ansi::bold(std::string(title)) + " · " + singleLine(calendar.timeZoneID()) + " · " +
           singleLine(filter.providerID.value_or(words.allProviders)) + "\n\n";
}

// What every printer needs to know of the invocation.
struct ReportContext {
    const ReportOptions& options;
    const UsageReportFilter& filter;
    const LocalCalendar& calendar;
    const GlobalOptions& globals;
    Date now;
    const Words& words;
    std::string searched;  // where the usage was looked for
    std::string title(const char* what) const { return titleLine(what, calendar, filter, words); }
    // "No usage found in ~/.claude, ~/.codex, ~/.gemini."
    std::string nothingFound() const {
        std::string text = words.noUsage;
        return text.substr(0, text.size() - (text.ends_with("。") ? 3 : 1)) + words.in + searched + words.stop;
    }
};

void printPeriods(const UsagePeriodReport& report, ReportKind kind, const ReportContext& context) {
    const Words& w = context.words;
    if (report.rows.empty()) return writeOutput("-", context.nothingFound() + "\n");
    const char* title = kind == ReportKind::weekly ? w.weekly : kind == ReportKind::monthly ? w.monthly : w.daily;
    const char* column = kind == ReportKind::weekly ? w.week : kind == ReportKind::monthly ? w.month : w.date;
    UsageTable table{{{column}}, w, context.options.breakdown};
    for (const auto& row : report.rows) table.add({row.period}, row.totals);
    writeOutput("-", context.title(title) + table.text(report.totals));
}

// The providers a by-provider report shows: those given, else every tool's.
std::vector<std::string> reportedProviders(const ReportOptions& options) {
    if (!options.providers.empty()) return options.providers;
    std::vector<std::string> all;
    for (const auto& tool : codingTools()) all.push_back(tool->provider().id);
    return all;
}

// Sums of rows of different providers: tokens, responses, priced cost and unpriced tokens add up;
// the models are listed once each.
void addTotals(UsageTotals& sum, const UsageTotals& more) {
    sum.tokens += more.tokens;
    sum.tokens.exactCostUSD.reset();
    sum.cacheWrite1hTokens += more.cacheWrite1hTokens;
    sum.charges += more.charges;
    sum.entries += more.entries;
    sum.totalCost += more.totalCost;
    sum.unpricedTokens += more.unpricedTokens;
    sum.costSource = sum.costSource == QuotaUsageCostSource::unavailable || sum.costSource == more.costSource
                         ? more.costSource
                         : QuotaUsageCostSource::mixed;
    for (const auto& model : more.modelsUsed) {
        if (std::find(sum.modelsUsed.begin(), sum.modelsUsed.end(), model) == sum.modelsUsed.end()) sum.modelsUsed.push_back(model);
    }
    sum.modelBreakdowns.insert(sum.modelBreakdowns.end(), more.modelBreakdowns.begin(), more.modelBreakdowns.end());
}

// Periods with a provider column: which tool used what, in one table.
void printPeriodsByProvider(const std::vector<std::pair<std::string, UsagePeriodReport>>& reports, ReportKind kind,
                            const ReportContext& context) {
    const Words& w = context.words;
    struct Row {
        std::string period;
        std::size_t provider;
        const UsageTotals* totals;
    };
    std::vector<Row> rows;
    UsageTotals total;
    for (std::size_t p = 0; p < reports.size(); ++p) {
        for (const auto& row : reports[p].second.rows) rows.push_back({row.period, p, &row.totals});
        addTotals(total, reports[p].second.totals);
    }
    if (rows.empty()) return writeOutput("-", context.nothingFound() + "\n");
    std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
        if (a.period != b.period) return context.filter.descending ? a.period > b.period : a.period < b.period;
        return a.provider < b.provider;
    });
    const char* title = kind == ReportKind::weekly ? w.weekly : kind == ReportKind::monthly ? w.monthly : w.daily;
    const char* column = kind == ReportKind::weekly ? w.week : kind == ReportKind::monthly ? w.month : w.date;
    UsageTable table{{{column}, {w.provider}}, w, context.options.breakdown};
    for (const auto& row : rows) table.add({row.period, reports[row.provider].first}, *row.totals);
    writeOutput("-", context.title(title) + table.text(total));
}

void printSessions(const UsageSessionReport& report, const ReportContext& context) {
    const Words& w = context.words;
    if (report.rows.empty()) return writeOutput("-", context.nothingFound() + "\n");
    UsageTable table{{{w.session, true}, {w.provider}, {w.project, true}, {w.lastActivity, false, true}},
                     w, context.options.breakdown};
    for (const auto& row : report.rows) {
        table.add({row.sessionID, row.providerID, row.projectPath.value_or("-"),
                   context.calendar.dayTimeText(row.lastActivity)},
                  row.totals);
    }
    writeOutput("-", context.title(w.sessions) + table.text(report.totals));
}

// "2h 10m", "45m".
std::string hoursAndMinutes(double seconds) {
    const auto minutes = std::int64_t(std::llround(std::max(0.0, seconds) / 60));
    return minutes >= 60 ? std::to_string(minutes / 60) + "h " + std::to_string(minutes % 60) + "m"
                         : std::to_string(minutes) + "m";
}

// The words under a block table: the active block's pace and where it leads.
std::string burnRateLine(const UsageBlock& block, const ReportContext& context) {
    const Words& w = context.words;
    const std::string mark = block.totals.unpricedTokens > 0 ? "*" : "";
    return "\n" + std::string(w.burnRate) + groupedInteger(std::llround(block.burnRate->tokensPerMinute)) + w.perMinute +
           " · " + usdCentsText(block.burnRate->costPerHour) + mark + w.perHour + "\n" + w.atThisRate +
           groupedInteger(block.projection->totalTokens) + w.tokensAnd + usdCentsText(block.projection->totalCost) + mark +
           w.by + context.calendar.dayTimeText(block.endTime) + "\n";
}

// The token limit a percent column is measured against: --token-limit N, "max" (the largest
// completed block shown), else the Claude block limit the user set or gaugepoint estimated.
std::optional<std::int64_t> blockTokenLimit(const std::vector<UsageBlock>& blocks, const ReportContext& context,
                                            const QuotaUsageEntryStore& store) {
    const std::string& given = context.options.tokenLimit;
    if (given == "max") {
        std::int64_t largest = 0;
        for (const auto& b : blocks) {
            if (!b.isGap && !b.isActive) largest = std::max(largest, b.totals.tokens.totalTokens());
        }
        return largest > 0 ? std::optional(largest) : std::nullopt;
    }
    if (!given.empty()) {
        std::int64_t tokens = 0;
        const auto [end, error] = std::from_chars(given.data(), given.data() + given.size(), tokens);
        if (error != std::errc() || end != given.data() + given.size() || tokens <= 0) {
            throw UsageError("--token-limit takes a number of tokens or max (got \"" + given + "\"), e.g. --token-limit 880000");
        }
        return tokens;
    }
    if (context.filter.providerID != "claude") return std::nullopt;
    const auto configuration = resolveConfiguration(context.globals);
    return ClaudeBlockLimit::resolve(ClaudeBlockLimit::setting(*configuration.userDefaults), store, context.now);
}

std::string percentOf(std::int64_t tokens, std::int64_t limit) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%", 100.0 * double(tokens) / double(limit));
    return text;
}

void printBlocks(const std::vector<UsageBlock>& blocks, const ReportContext& context, const QuotaUsageEntryStore& store) {
    const Words& w = context.words;
    const LocalCalendar& calendar = context.calendar;
    if (blocks.empty()) return writeOutput("-", context.nothingFound() + "\n");
    const auto limit = blockTokenLimit(blocks, context, store);
    std::vector<LeadingColumn> leading{{w.start}, {w.status}};
    if (limit) leading.push_back({w.ofLimit, false, false, true});
    UsageTable table{leading, w, context.options.breakdown};
    std::string activeLine;
    std::optional<Date> lastEntry;  // of the block before, for the idle time a gap stands for
    for (const auto& block : blocks) {
        if (block.isGap) {
            // The pause between two entries, from the last entry before it (not the block's end).
            const Date from = lastEntry.value_or(block.startTime);
            const double idle = secondsSince1970(block.endTime) - secondsSince1970(from);
            table.addEmpty({calendar.dayTimeText(from), std::string(w.gap) + " " + hoursAndMinutes(idle)});
            continue;
        }
        lastEntry = block.actualEndTime;
        std::string status;
        if (block.isActive) {
            std::string left = w.left;
            left.replace(left.find("{}"), 2, hoursAndMinutes(secondsSince1970(block.endTime) - secondsSince1970(context.now)));
            status = std::string(w.active) + " · " + left;
        }
        std::vector<std::string> cells{calendar.dayTimeText(block.startTime), status};
        if (limit) cells.push_back(percentOf(block.totals.tokens.totalTokens(), *limit));
        table.add(std::move(cells), block.totals);
        if (block.burnRate && block.projection) activeLine = burnRateLine(block, context);
    }
    std::string text = context.title(w.blocks) + table.text(usageBlockTotals(blocks)) + activeLine;
    if (limit) text += "\n" + std::string(w.ofLimit) + ": " + groupedInteger(*limit) + " tokens\n";
    writeOutput("-", text);
}

// The blocks the options ask for: only the active one, or those of the last three days.
std::vector<UsageBlock> selectedBlocks(std::vector<UsageBlock> blocks, const ReportOptions& options, Date now) {
    if (options.activeOnly) std::erase_if(blocks, [](const UsageBlock& b) { return !b.isActive; });
    if (options.recent) {
        const Date since = now - std::chrono::hours(72);
        std::erase_if(blocks, [since](const UsageBlock& b) { return b.endTime < since; });
    }
    return blocks;
}

LocalCalendar reportCalendar(const ReportOptions& options) {
    if (!options.timezone.empty() || options.timezoneGiven) {
        auto calendar = LocalCalendar::inTimeZone(options.timezone, LocalCalendar::Kind::gregorian);
        if (!calendar) {
            throw UsageError("--timezone takes a time zone such as UTC or Europe/Berlin (got \"" + options.timezone +
                             "\"), e.g. --timezone UTC");
        }
        return *calendar;
    }
    return systemCalendar();
}

// A day as people type it: "2026-11-01", "20261101", "today", "yesterday" (in the report's zone).
std::string dayOption(const std::string& text, const char* name, const LocalCalendar& calendar, Date now) {
    if (text == "today") return calendar.dayKey(now);
    if (text == "yesterday") return calendar.dayKey(calendar.addingDays(now, -1));
    std::string key = text;
    if (key.size() == 8 && key.find_first_not_of("0123456789") == std::string::npos) {
        key = key.substr(0, 4) + "-" + key.substr(4, 2) + "-" + key.substr(6, 2);
    }
    if (!dayNumber(key)) {
        throw UsageError(std::string(name) + " takes a day: YYYY-MM-DD, YYYYMMDD, today or yesterday (got \"" + text +
                         "\"), e.g. " + name + " 2026-11-01");
    }
    return key;
}

// The first day of the `count` most recent periods of `kind`, today's included.
std::string firstDayOfLast(std::int64_t count, ReportKind kind, bool weekStartsMonday, const LocalCalendar& calendar,
                           Date now) {
    const std::int64_t today = *dayNumber(calendar.dayKey(now));
    if (kind == ReportKind::weekly) {
        const int offset = (weekdayOfNumber(today) + 7 - (weekStartsMonday ? 1 : 0)) % 7;
        return dayKeyOfNumber(today - offset - 7 * (count - 1));
    }
    if (kind == ReportKind::monthly) {
        const std::string key = dayKeyOfNumber(today);
        std::int64_t months = std::stoll(key.substr(0, 4)) * 12 + std::stoll(key.substr(5, 2)) - 1 - (count - 1);
        char first[48];
        std::snprintf(first, sizeof first, "%04lld-%02lld-01", (long long)(months / 12), (long long)(months % 12 + 1));
        return first;
    }
    return dayKeyOfNumber(today - (count - 1));
}

UsageReportFilter reportFilter(const ReportOptions& options, ReportKind kind, const LocalCalendar& calendar, Date now) {
    UsageReportFilter filter;
    if (!options.since.empty()) filter.since = dayOption(options.since, "--since", calendar, now);
    if (!options.until.empty()) filter.until = dayOption(options.until, "--until", calendar, now);
    if (options.last) {
        if (filter.since) throw UsageError("--last and --since say the same thing twice; give one, e.g. --last 7");
        filter.since = firstDayOfLast(*options.last, kind, options.startOfWeek == "monday", calendar, now);
    }
    if (filter.since && filter.until && *filter.until < *filter.since) {
        throw UsageError("--until " + *filter.until + " is before --since " + *filter.since);
    }
    if (options.providers.size() == 1) filter.providerID = options.providers.front();
    if (options.providers.size() > 1 && kind == ReportKind::blocks) {
        throw UsageError("blocks are one tool's: give one --provider, e.g. --provider claude");
    }
    if (kind == ReportKind::blocks && !filter.providerID) filter.providerID = "claude";
    filter.descending = options.order == "desc";
    return filter;
}

void run(ReportKind kind, const ReportOptions& options, const GlobalOptions& globals) {
    const Date now = resolveNow(globals);
    const LocalCalendar calendar = reportCalendar(options);
    const UsageReportFilter filter = reportFilter(options, kind, calendar, now);
    if (!options.noScan) {
        QuotaScanOptions scanOptions;
        options.homes.applyTo(scanOptions);
        warnAboutMissingHomes(options.homes);
        try {
            scanAndPublish(scanOptions, globals);
        } catch (const ScanLockBusy& e) {
            // A stopped or slow scan must not hold the report up: what is stored is shown.
            std::cerr << "gaugepoint: " << e.what() << "; showing what is stored\n";
        }
    }
    const QuotaSyncConfiguration configuration = resolveConfiguration(globals);
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    ReportContext context{options, filter, calendar, globals, now, wordsFor(globals), {}};
    if (options.noScan) {
        context.searched = context.words.storesAt + configuration.resolvedAppGroupDirectory().value_or("").string() +
                           context.words.scanFirst;
    } else {
        QuotaScanOptions scanned;
        options.homes.applyTo(scanned);
        for (const auto& home : searchedHomes(scanned)) context.searched += (context.searched.empty() ? "" : ", ") + home.string();
    }
    const auto others = options.allSources
                            ? usageOfOtherSources(QuotaSessionCatalogStore{configuration}, configuration.localSourceID())
                            : std::vector<UsageOfOtherSource>{};
    const bool isPeriod = kind == ReportKind::daily || kind == ReportKind::weekly || kind == ReportKind::monthly;
    if (isPeriod && (options.byProvider || options.providers.size() > 1)) {
        std::vector<std::pair<std::string, UsagePeriodReport>> reports;
        std::string json;
        for (const auto& provider : reportedProviders(options)) {
            UsageReportFilter one = filter;
            one.providerID = provider;
            auto report = makeUsageReport(store, calendar, kind, one, now, options.startOfWeek == "monday", others);
            if (globals.json) json += std::string(json.empty() ? "" : ",") + "\"" + provider + "\"" + ":" +
                                      usageReportDocument(report);
            reports.emplace_back(provider, std::move(report.periods));
        }
        if (globals.json) return writeOutput("-", "{\"byProvider\":{" + json + "}}\n");
        return printPeriodsByProvider(reports, kind, context);
    }
    UsageReport report = makeUsageReport(store, calendar, kind, filter, now, options.startOfWeek == "monday", others);
    if (kind == ReportKind::blocks) report.blocks = selectedBlocks(std::move(report.blocks), options, now);
    if (globals.json) return writeOutput("-", usageReportDocument(report) + "\n");
    switch (kind) {
        case ReportKind::daily:
        case ReportKind::weekly:
        case ReportKind::monthly:
            return printPeriods(report.periods, kind, context);
        case ReportKind::session:
            return printSessions(report.sessions, context);
        case ReportKind::blocks:
            return printBlocks(report.blocks, context, store);
    }
}

void addReport(CLI::App& group, const char* name, const char* description, ReportKind kind,
               const std::shared_ptr<ReportOptions>& options, GlobalOptions& globals) {
    CLI::App* command = addGroup(group, name, description);
    command->add_flag("--no-scan", options->noScan, "Report what the stores hold, without reading the logs first");
    command->add_option("-s,--since", options->since,
                        "The first day counted, in the report's time zone: YYYY-MM-DD, YYYYMMDD, today, yesterday")
        ->option_text("DAY");
    command->add_option("-u,--until", options->until, "The last day counted (as --since)")->option_text("DAY");
    command->add_option("--last", options->last,
                        kind == ReportKind::session || kind == ReportKind::blocks
                            ? "The last N days, today included"
                            : "The N most recent periods, the current one included")
        ->option_text("N")
        ->check(Values::wholeNumber(1, "7", 100000));
    command->add_option("-z,--timezone", options->timezone,
                        "The time zone of days, weeks and months, e.g. UTC or Europe/Berlin, in any case "
                        "(default: TZ, else the system's)")
        ->option_text("ZONE")
        ->each([options](const std::string&) { options->timezoneGiven = true; });
    std::vector<std::string> providers;
    for (const auto& tool : codingTools()) providers.push_back(tool->provider().id);
    command->add_option("--provider", options->providers,
                        kind == ReportKind::blocks ? "The tool whose blocks are shown (default: claude)"
                                                   : "Only this tool's usage (repeatable; default: all)")
        ->check(Values::oneOf(providers))
        ->option_text("ID");
    command->add_flag("-b,--breakdown", options->breakdown, "A row per model under each row");
    if (kind == ReportKind::daily || kind == ReportKind::weekly || kind == ReportKind::monthly) {
        command->add_flag("--by-provider", options->byProvider, "A row per tool under each period (provider column)");
    }
    command->add_option("-o,--order", options->order, "asc (default: oldest first) or desc")
        ->check(Values::oneOf({"asc", "desc"}))
        ->option_text("ORDER");
    if (kind == ReportKind::weekly) {
        command->add_option("--start-of-week", options->startOfWeek, "sunday (default) or monday")
            ->check(Values::oneOf({"sunday", "monday"}))
            ->option_text("DAY");
    }
    if (kind == ReportKind::blocks) {
        command->add_flag("--active", options->activeOnly, "Only the active block");
        command->add_flag("--recent", options->recent, "Only the blocks of the last three days");
        command->add_option("--token-limit", options->tokenLimit,
                            "Add each block's percent of N tokens, or of the largest past block (max); default: the "
                            "limit of scan --claude-block-limit")
            ->option_text("N|max");
    } else {
        command->add_flag("--all-sources", options->allSources,
                          "Add the sessions of the user's other machines (pulled by `gaugepoint sync pull`), each "
                          "counted at its last activity");
    }
    options->homes.addOptions(*command);
    command->callback([kind, options, &globals] { run(kind, *options, globals); });
}

}  // namespace

void registerReportCommand(CLI::App& root, GlobalOptions& globals) {
    CLI::App* report = addGroup(root, "report", "Usage and cost tables from the local logs of the coding tools");
    report->require_subcommand(1);
    auto options = std::make_shared<ReportOptions>();
    addReport(*report, "daily", "Tokens and cost per day", ReportKind::daily, options, globals);
    addReport(*report, "weekly", "Tokens and cost per week, named by its first day", ReportKind::weekly, options, globals);
    addReport(*report, "monthly", "Tokens and cost per month", ReportKind::monthly, options, globals);
    addReport(*report, "session", "Tokens and cost per session", ReportKind::session, options, globals);
    addReport(*report, "blocks", "Five-hour blocks of Claude Code usage", ReportKind::blocks, options, globals);
}

}  // namespace gaugepoint::cli
