// gaugepoint report daily|weekly|monthly|session|blocks: usage tables from the imported logs.

#include <algorithm>
#include <cmath>
#include <set>

#include "Commands.hpp"
#include "LogScan.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"
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
    std::string since, until, timezone, provider;
    bool breakdown = false;
    std::string order = "asc";
    std::string startOfWeek = "sunday";
    bool allSources = false;
};

// The texts of the tables, English and Chinese.
struct Words {
    const char *daily, *weekly, *monthly, *sessions, *blocks;
    const char *date, *week, *month, *session, *provider, *project, *lastActivity, *start, *status;
    const char *models, *input, *output, *cacheCreate, *cacheRead, *total, *cost, *totalRow;
    const char *allProviders, *noUsage, *active, *gap, *unpriced;
};

constexpr Words kEnglish{"Daily usage", "Weekly usage", "Monthly usage", "Usage by session", "Five-hour blocks",
                         "Date", "Week", "Month", "Session", "Provider", "Project", "Last activity", "Block start",
                         "Status", "Models", "Input", "Output", "Cache create", "Cache read", "Total tokens", "Cost",
                         "Total", "all providers", "No usage found.", "active", "gap",
                         " tokens of models without a price are not in the costs: "};
constexpr Words kChinese{"每日用量", "每周用量", "每月用量", "按会话的用量", "五小时区块", "日期", "周", "月",
                         "会话", "服务", "项目", "最后活动", "区块开始", "状态", "模型", "输入", "输出", "缓存写入",
                         "缓存读取", "总令牌", "费用", "合计", "全部服务", "没有找到用量。", "进行中", "空档",
                         " 个令牌属于没有价格的模型，未计入费用："};

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

// A table whose rows begin with `leading` cells, then models, the token counts and the cost.
class UsageTable {
public:
    UsageTable(std::vector<std::string> leadingHeader, const Words& words, bool breakdown)
        : leading_(leadingHeader.size()), words_(words), breakdown_(breakdown) {
        auto header = std::move(leadingHeader);
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
                if (b.cost == 0 && b.tokens.totalTokens() > 0) unpricedModels_.insert(b.modelName);
            }
        }
        if (!breakdown_) return;
        for (const auto& b : totals.modelBreakdowns) {
            std::vector<std::string> row(leading_ + 1, "");
            row.back() = "  └ " + b.modelName;
            for (auto& cell : tokenCells(b.tokens)) row.push_back(std::move(cell));
            row.push_back(usdCentsText(b.cost));
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
        std::vector<bool> right(leading_ + 1, false);
        right.resize(leading_ + 7, true);
        std::string text = alignedRows(rows_, right);
        if (totals.unpricedTokens > 0) {
            std::vector<std::string> models{unpricedModels_.begin(), unpricedModels_.end()};
            text += "* " + groupedInteger(totals.unpricedTokens) + words_.unpriced + joined(models) + "\n";
        }
        return text;
    }

private:
    std::size_t leading_;
    const Words& words_;
    bool breakdown_;
    std::vector<std::vector<std::string>> rows_;
    std::int64_t unpricedTokens_ = 0;
    std::set<std::string> unpricedModels_;
};

std::string titleLine(const char* title, const LocalCalendar& calendar, const UsageReportFilter& filter,
                      const Words& words) {
    return std::string(title) + " · " + calendar.timeZoneID() + " · " + filter.providerID.value_or(words.allProviders) +
           "\n\n";
}

// What every printer needs to know of the invocation.
struct ReportContext {
    const ReportOptions& options;
    const UsageReportFilter& filter;
    const LocalCalendar& calendar;
    const GlobalOptions& globals;
    Date now;
    const Words& words;
    std::string title(const char* what) const { return titleLine(what, calendar, filter, words); }
};

void printPeriods(const UsagePeriodReport& report, ReportKind kind, const ReportContext& context) {
    const Words& w = context.words;
    if (report.rows.empty()) return writeOutput("-", std::string(w.noUsage) + "\n");
    const char* title = kind == ReportKind::weekly ? w.weekly : kind == ReportKind::monthly ? w.monthly : w.daily;
    const char* column = kind == ReportKind::weekly ? w.week : kind == ReportKind::monthly ? w.month : w.date;
    UsageTable table{{column}, w, context.options.breakdown};
    for (const auto& row : report.rows) table.add({row.period}, row.totals);
    writeOutput("-", context.title(title) + table.text(report.totals));
}

void printSessions(const UsageSessionReport& report, const ReportContext& context) {
    const Words& w = context.words;
    if (report.rows.empty()) return writeOutput("-", std::string(w.noUsage) + "\n");
    UsageTable table{{w.session, w.provider, w.project, w.lastActivity}, w, context.options.breakdown};
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

void printBlocks(const std::vector<UsageBlock>& blocks, const ReportContext& context) {
    const Words& w = context.words;
    const LocalCalendar& calendar = context.calendar;
    if (blocks.empty()) return writeOutput("-", std::string(w.noUsage) + "\n");
    UsageTable table{{w.start, w.status}, w, context.options.breakdown};
    std::string activeLine;
    for (const auto& block : blocks) {
        const std::string start = calendar.dayTimeText(block.startTime);
        if (block.isGap) {
            const double length = secondsSince1970(block.endTime) - secondsSince1970(block.startTime);
            table.addEmpty({start, std::string(w.gap) + " " + hoursAndMinutes(length)});
            continue;
        }
        std::string status;
        if (block.isActive) {
            status = std::string(w.active) + " · " + hoursAndMinutes(secondsSince1970(block.endTime) - secondsSince1970(context.now));
        }
        table.add({start, status}, block.totals);
        if (block.burnRate && block.projection) {
            const std::string mark = block.totals.unpricedTokens > 0 ? "*" : "";
            activeLine = "\n" + groupedInteger(std::llround(block.burnRate->tokensPerMinute)) + " tokens/min · " +
                         usdCentsText(block.burnRate->costPerHour) + mark + "/h · → " +
                         groupedInteger(block.projection->totalTokens) + " tokens, " +
                         usdCentsText(block.projection->totalCost) + mark + " by " + calendar.dayTimeText(block.endTime) +
                         "\n";
        }
    }
    // The total row sums the blocks' own figures (costs as priced per block).
    UsageTotals totals;
    for (const auto& block : blocks) {
        totals.tokens += block.totals.tokens;
        totals.totalCost += block.totals.totalCost;
        totals.unpricedTokens += block.totals.unpricedTokens;
    }
    writeOutput("-", context.title(w.blocks) + table.text(totals) + activeLine);
}

LocalCalendar reportCalendar(const ReportOptions& options) {
    if (options.timezone.empty()) return LocalCalendar::current(LocalCalendar::Kind::gregorian);
    auto calendar = LocalCalendar::inTimeZone(options.timezone, LocalCalendar::Kind::gregorian);
    if (!calendar) throw UsageError("--timezone: unknown time zone \"" + options.timezone + "\"");
    return *calendar;
}

UsageReportFilter reportFilter(const ReportOptions& options, ReportKind kind) {
    UsageReportFilter filter;
    for (const auto& [text, name, slot] : {std::tuple{&options.since, "--since", &filter.since},
                                           std::tuple{&options.until, "--until", &filter.until}}) {
        if (text->empty()) continue;
        if (!dayNumber(*text)) throw UsageError(std::string(name) + ": expected a day such as 2026-11-18, got \"" + *text + "\"");
        *slot = *text;
    }
    if (filter.since && filter.until && *filter.until < *filter.since) throw UsageError("--until is before --since");
    if (!options.provider.empty()) filter.providerID = options.provider;
    if (kind == ReportKind::blocks && !filter.providerID) filter.providerID = "claude";
    filter.descending = options.order == "desc";
    return filter;
}

void run(ReportKind kind, const ReportOptions& options, const GlobalOptions& globals) {
    const Date now = resolveNow(globals);
    const LocalCalendar calendar = reportCalendar(options);
    const UsageReportFilter filter = reportFilter(options, kind);
    if (!options.noScan) {
        QuotaScanOptions scanOptions;
        options.homes.applyTo(scanOptions);
        scanAndPublish(scanOptions, globals);
    }
    const QuotaSyncConfiguration configuration = resolveConfiguration(globals);
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    const ReportContext context{options, filter, calendar, globals, now, wordsFor(globals)};
    const auto others = options.allSources
                            ? usageOfOtherSources(QuotaSessionCatalogStore{configuration}, configuration.localSourceID())
                            : std::vector<UsageOfOtherSource>{};
    const UsageReport report =
        makeUsageReport(store, calendar, kind, filter, now, options.startOfWeek == "monday", others);
    if (globals.json) return writeOutput("-", usageReportDocument(report) + "\n");
    switch (kind) {
        case ReportKind::daily:
        case ReportKind::weekly:
        case ReportKind::monthly:
            return printPeriods(report.periods, kind, context);
        case ReportKind::session:
            return printSessions(report.sessions, context);
        case ReportKind::blocks:
            return printBlocks(report.blocks, context);
    }
}

void addReport(CLI::App& group, const char* name, const char* description, ReportKind kind,
               const std::shared_ptr<ReportOptions>& options, GlobalOptions& globals) {
    CLI::App* command = addGroup(group, name, description);
    command->add_flag("--no-scan", options->noScan, "Report what the stores hold, without reading the logs first");
    command->add_option("--since", options->since, "The first day counted (in the report's time zone)")
        ->option_text("YYYY-MM-DD");
    command->add_option("--until", options->until, "The last day counted")->option_text("YYYY-MM-DD");
    command->add_option("--timezone", options->timezone, "The time zone of days, weeks and months (default: the system's)")
        ->option_text("IANA");
    command->add_option("--provider", options->provider,
                        kind == ReportKind::blocks ? "claude (default), codex or gemini" : "claude, codex or gemini (default: all)")
        ->check(CLI::IsMember({"claude", "codex", "gemini"}))
        ->option_text("ID");
    command->add_flag("--breakdown", options->breakdown, "A row per model under each row");
    command->add_option("--order", options->order, "asc (default: oldest first) or desc")
        ->check(CLI::IsMember({"asc", "desc"}))
        ->option_text("ORDER");
    if (kind == ReportKind::weekly) {
        command->add_option("--start-of-week", options->startOfWeek, "sunday (default) or monday")
            ->check(CLI::IsMember({"sunday", "monday"}))
            ->option_text("DAY");
    }
    if (kind != ReportKind::blocks) {
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
