#include "agent/cancel_signals.h"
#include "agent/commands/commands.h"

#include "platform/base/printable.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>

namespace {

/// Whether a command is asked for that an interrupt cancels; any other is ended by it as programs are.
bool can_be_cancelled(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    for (const char* command : {"backup", "restore", "run", "rehearse", "merge", "verify"})
      if (std::strcmp(argv[i], command) == 0)
        return true;
  return false;
}

} // namespace

int main(int argc, char** argv) {
  if (can_be_cancelled(argc, argv))
    cancel_signals::exit_at_once();
  Context context;
  try {
    CLI::App app("Backs buckets of S3-compatible object storage up and restores them.", "obs-agent");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "obs-agent " OBS_AGENT_VERSION, "Show the version and exit");
    app.add_option("--state", context.state_folder, "Folder where accounts, pools and sets are known")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_flag("--json", context.json, "Print JSON; of a run, its account as the last line");
    app.add_flag("-v,--verbose", context.verbosity, "Show log lines on standard error; twice: debug lines too");
    app.add_option("--module", context.module_path, "The module to load")->type_name("FILE")->group("Advanced");

    add_account_commands(app, context);
    add_pool_commands(app, context);
    add_browse_command(app, context);
    add_backup_command(app, context);
    add_set_commands(app, context);
    add_verify_command(app, context);
    add_restore_command(app, context);
    add_run_command(app, context);
    add_rehearse_command(app, context);
    add_find_command(app, context);
    add_diff_command(app, context);
    add_problems_command(app, context);
    add_forget_command(app, context);
    add_merge_command(app, context);
    add_media_commands(app, context);
    add_catalog_commands(app, context);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      // It quotes the command line, which may come from a script.
      if (error.get_exit_code() != 0) {
        std::fprintf(stderr, "%s\nRun with --help for more information.\n", printable(error.what()).c_str());
        return EXIT_USAGE;
      }
      return app.exit(error) == 0 ? EXIT_COMPLETED : EXIT_USAGE;
    }
    return context.exit_code;
  } catch (const Command_Error& error) {
    print_error(error.what());
    return error.code();
  } catch (const std::exception& error) {
    print_error(std::string("unexpected error: ") + error.what());
    return EXIT_FAILED;
  }
}
