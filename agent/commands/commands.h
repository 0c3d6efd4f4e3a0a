#pragma once

#include "agent/context.h"

namespace CLI {
class App;
}

// Each adds its commands to the program's command line; their callbacks do the work when the line has been read, throw
// Command_Error, and leave the exit code in the context.
void add_account_commands(CLI::App& app, Context& context);
void add_pool_commands(CLI::App& app, Context& context);
void add_browse_command(CLI::App& app, Context& context);
void add_backup_command(CLI::App& app, Context& context);
void add_set_commands(CLI::App& app, Context& context);
void add_verify_command(CLI::App& app, Context& context);
void add_restore_command(CLI::App& app, Context& context);
void add_run_command(CLI::App& app, Context& context);
void add_rehearse_command(CLI::App& app, Context& context);
void add_media_commands(CLI::App& app, Context& context);
void add_catalog_commands(CLI::App& app, Context& context);
void add_merge_command(CLI::App& app, Context& context);
void add_find_command(CLI::App& app, Context& context);
void add_diff_command(CLI::App& app, Context& context);
void add_problems_command(CLI::App& app, Context& context);
void add_forget_command(CLI::App& app, Context& context);
