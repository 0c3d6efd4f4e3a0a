#include "agent/commands/browse_page.h"
#include "agent/commands/commands.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace {

struct Browse_Arguments {
  std::string account;
  std::string path;
  int limit = 0;
  std::string marker;
};

/// Prints a page of the account.
void browse(Context& context, const Browse_Arguments& arguments) {
  // The module first: when it is not the right one, nothing else matters.
  context.module();
  const Browse_Page page =
      browse_page(context, context.account(arguments.account).uuid, arguments.path, arguments.limit, arguments.marker);
  Lines text;
  for (const std::string& folder : page.folders)
    text.add("                              -  " + folder);
  for (const Browse_Page::File& file : page.files) {
    char size[32];
    std::snprintf(size, sizeof size, " %12llu  ", file.size);
    text.add(file.mtime + size + file.name);
  }
  if (page.truncated)
    text.add("... more follows: --marker '" + page.marker + "'");
  context.print(page.json, text);
}

} // namespace

void add_browse_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Browse_Arguments>();
  CLI::App* command = app.add_subcommand("browse", "Show what an account holds now, one folder at a time");
  command->add_option("account", arguments->account, "Account")->required()->type_name("ACCOUNT");
  command->add_option("path", arguments->path, "/bucket/ or /bucket/prefix/; none: the buckets")->type_name("PATH");
  command
      ->add_option("--limit", arguments->limit,
                   "Entries of a page at the most; what the service gives (mostly 1000) unless told")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  command
      ->add_option("--marker", arguments->marker,
                   "Show the page behind this one, as the page before printed it; the first page unless told")
      ->type_name("M");
  command->callback([&context, arguments] { browse(context, *arguments); });
}
