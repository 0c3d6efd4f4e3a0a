#include "agent/commands/browse_page.h"
#include "agent/commands/commands.h"
#include "agent/times.h"

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
  // What a page names is what goes on after the path.
  std::string above = arguments.path;
  if (!above.empty() && above.find('/', 1) == std::string::npos)
    above += '/';
  json_spirit::Object json{{"truncated", page.truncated}};
  if (page.truncated)
    json["marker"] = page.marker;
  json_spirit::Array entries;
  Lines text;
  for (const std::string& folder : page.folders) {
    entries.push_back(json_spirit::Object{{"dir", above + folder}});
    text.add("                                -  " + above + folder);
  }
  for (const Browse_Page::File& file : page.files) {
    char size[32];
    std::snprintf(size, sizeof size, " %12llu  ", file.size);
    entries.push_back(
        json_spirit::Object{{"file", above + file.name}, {"size", file.size}, {"mtime", json_time(file.mtime)}});
    text.add(zoned_time(file.mtime) + size + above + file.name);
  }
  if (page.truncated)
    text.add("... more follows: --marker ", page.marker);
  json["result"] = entries;
  context.print(json, text);
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
