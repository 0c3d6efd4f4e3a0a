#include "agent/commands/commands.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace {

struct Browse_Arguments {
  std::string account;
  std::string path;
  int limit = 0;
  std::string marker;
};

std::string item_text(const json_spirit::Object& item) {
  const json_spirit::Value* folder = json_spirit::find(item, "dir");
  if (folder != nullptr)
    return "                              -  " + folder->get_str() + "\n";
  std::string size = std::to_string(item.at("size").get_uint64());
  if (size.size() < 12)
    size.insert(0, 12 - size.size(), ' ');
  return item.at("mtime").get_str() + " " + size + "  " + item.at("file").get_str() + "\n";
}

/// Asks the module what a page of the account would show, and prints it.
void browse(Context& context, const Browse_Arguments& arguments) {
  // The module first: when it is not the right one, nothing else matters.
  JSON_RPC_Channel& rpc = context.rpc();
  json_spirit::Object params;
  params["uuid"] = context.account(arguments.account).uuid;
  if (!arguments.path.empty())
    params["path"] = arguments.path;
  if (arguments.limit > 0)
    params["limit"] = arguments.limit;
  if (!arguments.marker.empty())
    params["marker"] = arguments.marker;

  JSON_RPC_Request request("obs.list", params, 1);
  JSON_RPC_Object_var reply;
  if (rpc.request(request, reply) != 0)
    throw Command_Error("the module does not answer");
  if (reply->type() != JSON_RPC_Object::TYPE_RESPONSE) {
    const auto* refused = dynamic_cast<const JSON_RPC_Error_Response*>(reply.get());
    std::string message = refused ? refused->message() : "no answer";
    if (refused != nullptr && refused->data().type() == json_spirit::obj_type)
      message += ": " + json_spirit::optional_str(refused->data().get_obj(), "code") + ": " +
                 json_spirit::optional_str(refused->data().get_obj(), "message");
    throw Command_Error(message);
  }
  const json_spirit::Object result = dynamic_cast<JSON_RPC_Response&>(*reply).result().get_obj();
  std::string text;
  for (const json_spirit::Value& item : result.at("result").get_array())
    text += item_text(item.get_obj());
  if (result.at("truncated").get_bool())
    text += "... more follows: --marker '" + json_spirit::optional_str(result, "marker") + "'\n";
  context.print(result, text);
}

} // namespace

void add_browse_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Browse_Arguments>();
  CLI::App* command = app.add_subcommand("browse", "Show what an account holds now, one folder at a time");
  command->add_option("account", arguments->account, "Account")->required()->type_name("ACCOUNT");
  command->add_option("path", arguments->path, "/bucket/ or /bucket/prefix/; none: the buckets")->type_name("PATH");
  command->add_option("--limit", arguments->limit, "Entries of a page at the most")->check(CLI::PositiveNumber);
  command->add_option("--marker", arguments->marker, "Go on behind this one")->type_name("M");
  command->callback([&context, arguments] { browse(context, *arguments); });
}
