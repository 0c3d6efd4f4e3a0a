#include "agent/commands/commands.h"
#include "agent/commands/open_set.h"

#include "platform/base/printable.h"
#include "platform/mtf/media_check.h"
#include "platform/mtf/medium_reader.h"
#include "platform/pool/set_keys.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace {

/// The cipher of the set that a medium says it belongs to, with the key of the named pool; null without a pool. Throws
/// Command_Error.
Set_Cipher_ptr cipher_of(Context& context, const std::string& pool_name, const std::string& file) {
  Set_Cipher_ptr cipher;
  Medium_Set set;
  std::string error;
  if (pool_name.empty())
    return cipher;
  const Pool pool = context.open_pool(context.pool_entry(pool_name));
  if (!read_medium_set(file, set, error) || !open_set_cipher(pool, set.uuid, set.wrapped_key, cipher, error))
    throw Command_Error("medium '" + file + "': " + error);
  return cipher;
}

/// Problems are printed as they are found: a medium may have any number of them.
bool check_one(const std::string& file, const Set_Cipher_ptr& cipher, bool json) {
  const auto found = [&](const Media_Problem& problem) {
    if (json) {
      json_spirit::Object line;
      line["medium"] = file;
      line["offset"] = problem.offset;
      line["length"] = problem.length;
      if (!problem.object.empty())
        line["object"] = "/" + problem.object;
      line["message"] = problem.message;
      print_json_line(line);
    } else {
      print_line(file + ": at " + std::to_string(problem.offset) +
                 (problem.object.empty() ? std::string() : ", '/" + problem.object + "'") + ": " + problem.message);
    }
    return true;
  };
  Media_Figures figures;
  std::string error;
  const bool read = check_medium(file, found, figures, error, cipher);
  const bool clean = read && figures.problems == 0;
  if (json) {
    json_spirit::Object line;
    line["medium"] = file;
    line["clean"] = clean;
    line["size"] = figures.size;
    line["objects"] = figures.objects;
    line["bytes"] = figures.bytes;
    line["problems"] = figures.problems;
    if (!read)
      line["failure"] = error;
    print_json_line(line);
  } else if (read) {
    print_line(file + ": " + std::to_string(figures.objects) + " whole objects of " + human_bytes(figures.bytes) +
               ", " + (clean ? std::string("clean") : std::to_string(figures.problems) + " problems"));
  }
  if (!read)
    print_error("medium '" + file + "' cannot be checked: " + error);
  return clean;
}

void check(Context& context, const std::vector<std::string>& files, const std::string& pool) {
  for (const std::string& file : files)
    if (!check_one(file, cipher_of(context, pool, file), context.json))
      context.exit_code = EXIT_FAILED;
}

void dump(Context& context, const std::string& file, const std::string& pool) {
  const auto line = [&](const std::string& text) {
    if (context.json)
      print_json_line(json_spirit::Object{{"medium", file}, {"text", printable(text)}});
    else
      print_line(text);
    return std::ferror(stdout) == 0;
  };
  std::string error;
  if (!dump_medium(file, line, error, cipher_of(context, pool, file)))
    throw Command_Error("medium '" + file + "' cannot be read: " + error);
}

} // namespace

void add_media_commands(CLI::App& app, Context& context) {
  CLI::App* media = app.add_subcommand("media", "Look into single media files");
  media->require_subcommand(1);
  auto files = std::make_shared<std::vector<std::string>>();
  CLI::App* check_command = media->add_subcommand("check", "Hold media against their format, contents included");
  check_command->add_option("file", *files, "Medium")->required()->type_name("FILE");
  auto pool = std::make_shared<std::string>();
  const char* const pool_help = "Pool whose key opens encrypted media; without it their structure and checks are held";
  check_command->add_option("--pool", *pool, pool_help)->type_name("POOL");
  check_command->callback([&context, files, pool] { check(context, *files, *pool); });

  auto file = std::make_shared<std::string>();
  CLI::App* dump_command = media->add_subcommand("dump", "Describe a medium block by block");
  dump_command->add_option("file", *file, "Medium")->required()->type_name("FILE");
  dump_command->add_option("--pool", *pool, pool_help)->type_name("POOL");
  dump_command->callback([&context, file, pool] { dump(context, *file, *pool); });
}
