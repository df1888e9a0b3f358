#pragma once

// One registration function per command group; each lives in its own <Group>Command.cpp.

#include "CommandSupport.hpp"

namespace gaugepoint::cli {

void registerWidgetCommand(CLI::App& root, GlobalOptions& globals);
void registerLzfseCommand(CLI::App& root, GlobalOptions& globals);
void registerBlobCommand(CLI::App& root, GlobalOptions& globals);
void registerTokensCommand(CLI::App& root, GlobalOptions& globals);
void registerHistoryCommand(CLI::App& root, GlobalOptions& globals);
void registerSourcesCommand(CLI::App& root, GlobalOptions& globals);
void registerCatalogCommand(CLI::App& root, GlobalOptions& globals);
void registerCostCommand(CLI::App& root, GlobalOptions& globals);
void registerLedgerCommand(CLI::App& root, GlobalOptions& globals);
void registerSessionsCommand(CLI::App& root, GlobalOptions& globals);
void registerRegistryCommand(CLI::App& root, GlobalOptions& globals);
void registerInboxCommand(CLI::App& root, GlobalOptions& globals);
void registerSyncCommand(CLI::App& root, GlobalOptions& globals);
// The server verbs of the sync group (SyncServerCommand.cpp).
void registerSyncServerCommands(CLI::App& syncGroup, GlobalOptions& globals);
void registerScanCommand(CLI::App& root, GlobalOptions& globals);
void registerReportCommand(CLI::App& root, GlobalOptions& globals);
void registerStatusLineCommand(CLI::App& root, GlobalOptions& globals);
void registerAlertsCommand(CLI::App& root, GlobalOptions& globals);
void registerMcpCommand(CLI::App& root, GlobalOptions& globals);
void registerWatchCommand(CLI::App& root, GlobalOptions& globals);
void registerDashboardCommand(CLI::App& root, GlobalOptions& globals);

}  // namespace gaugepoint::cli
