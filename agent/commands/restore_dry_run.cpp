#include "agent/commands/restore_dry_run.h"

#include "agent/commands/open_set.h"
#include "agent/entry.h"

#include <string>
#include <vector>

namespace {

std::vector<std::string> missing_buckets(const Account& account, const Restore_Plan& plan) {
  std::vector<std::string> missing;
  S3_Service_var service = make_account_service(account);
  for (const std::string& bucket : plan.target_buckets())
    if (!service->bucket_exists(bucket.c_str())) {
      // Absent is an answer; anything else means that the target cannot be asked.
      if (service->last_error().code() != "NoSuchBucket")
        throw Command_Error("bucket '" + bucket + "' cannot be looked for: " + service->error());
      missing.push_back(bucket);
    }
  return missing;
}

/// Prints each object and where it goes, as far as the selection reaches. Throws Command_Error.
void print_objects(const Context& context, Catalog_Reader& catalog, const Catalog_Selection& selection,
                   const Restore_Plan& plan) {
  std::string error;
  const auto print = [&](const Catalog_Object& object) {
    const std::string target = plan.target(object.path);
    if (context.json) {
      json_spirit::Object line = object_json(object);
      line["target"] = "/" + target;
      print_json_line(line);
    } else {
      print_line(object_head(object) + "/" + object.path + " -> /" + target);
    }
    return true;
  };
  // All of a set comes as it was listed; a selection as it lies on the media, each object once.
  const bool walked =
      selection.everything() ? catalog.walk(std::string(), print, error) : catalog.walk_media(selection, print, error);
  if (!walked)
    throw Command_Error(error);
}

json_spirit::Array texts(const std::vector<std::string>& values) {
  return json_spirit::Array(values.begin(), values.end());
}

} // namespace

void restore_dry_run(Context& context, const Account& account, Catalog_Reader& catalog,
                     const Catalog_Selection& selection, Restore_Plan& plan) {
  unsigned long long objects = 0, bytes = 0;
  std::vector<std::string> absent;
  std::string error;
  if (!catalog.count(selection, objects, bytes, absent, error))
    throw Command_Error(error);
  for (std::string& path : absent)
    path.insert(0, 1, '/');
  const std::vector<std::string> missing = missing_buckets(account, plan);
  plan.find_collisions();
  print_objects(context, catalog, selection, plan);

  json_spirit::Array collisions;
  Lines text;
  for (const Collision& one : plan.collisions()) {
    collisions.push_back(
        json_spirit::Object{{"first", "/" + one.first}, {"second", "/" + one.second}, {"target", "/" + one.target}});
    text.add("collision: '/" + one.first + "' and '/" + one.second + "' would both become '/" + one.target + "'");
  }
  for (const std::string& path : absent)
    text.add("not in the set: '" + path + "'");
  for (const std::string& bucket : missing)
    text.add("bucket '" + bucket + "' does not exist (--create-bucket makes it)");
  std::string sum = std::to_string(objects) + " objects, " + human_bytes(bytes) + " would be restored";
  if (plan.collision_count() != 0)
    sum += ", but " + std::to_string(plan.collision_count()) + " pairs collide, and a restore would refuse to begin";
  text.add(sum);

  json_spirit::Object json;
  json["objects"] = objects;
  json["bytes"] = bytes;
  json["absent"] = texts(absent);
  json["missing_buckets"] = texts(missing);
  json["collisions"] = collisions;
  json["collision_count"] = plan.collision_count();
  context.print(json, text);
  context.exit_code = plan.collision_count() != 0 ? EXIT_FAILED
                      : absent.empty()            ? EXIT_COMPLETED
                                                  : EXIT_COMPLETED_WITH_ERRORS;
}
