#include "agent/commands/browse_page.h"

namespace {

std::string refusal(const JSON_RPC_Object& reply) {
  const auto* refused = dynamic_cast<const JSON_RPC_Error_Response*>(&reply);
  if (refused == nullptr)
    return "the module does not answer";
  std::string message = refused->message();
  if (refused->data().type() == json_spirit::obj_type)
    message += ": " + json_spirit::optional_str(refused->data().get_obj(), "code") + ": " +
               json_spirit::optional_str(refused->data().get_obj(), "message");
  return message;
}

} // namespace

Browse_Page browse_page(Context& context, const std::string& account_uuid, const std::string& path, int limit,
                        const std::string& marker) {
  json_spirit::Object params;
  params["uuid"] = account_uuid;
  if (!path.empty())
    params["path"] = path;
  if (limit > 0)
    params["limit"] = limit;
  if (!marker.empty())
    params["marker"] = marker;

  JSON_RPC_Request request("obs.list", params, 1);
  JSON_RPC_Object_var reply;
  if (context.rpc().request(request, reply) != 0)
    throw Command_Error("the module does not answer");
  if (reply->type() != JSON_RPC_Object::TYPE_RESPONSE)
    throw Command_Error(refusal(*reply));

  Browse_Page page;
  const json_spirit::Object& answer = dynamic_cast<JSON_RPC_Response&>(*reply).result().get_obj();
  page.truncated = answer.at("truncated").get_bool();
  page.marker = json_spirit::optional_str(answer, "marker");
  for (const json_spirit::Value& value : answer.at("result").get_array()) {
    const json_spirit::Object& item = value.get_obj();
    if (const json_spirit::Value* folder = json_spirit::find(item, "dir"))
      page.folders.push_back(folder->get_str());
    else
      page.files.push_back({item.at("file").get_str(), item.at("size").get_uint64(), item.at("mtime").get_str()});
  }
  return page;
}

bool has_objects_below(Context& context, const std::string& account_uuid, const std::string& path) {
  try {
    const Browse_Page page = browse_page(context, account_uuid, path + "/", 1, std::string());
    return !page.files.empty() || !page.folders.empty();
  } catch (const Command_Error&) {
    return false;
  }
}

std::string folder_instead(const std::string& path) {
  return "no object '" + path + "', but there are objects below '" + path + "/'";
}
