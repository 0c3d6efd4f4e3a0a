#include "agent/cancel_signals.h"
#include "agent/commands/commands.h"
#include "agent/commands/open_set.h"

#include "platform/mtf/damage_marks.h"
#include "platform/mtf/verify.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>

namespace {

struct Verify_Arguments {
  std::string set;
  unsigned threads = 0;
  std::string sample = "100%";
  unsigned long long seed = 0;
  bool seed_given = false;
  bool mark = false;
};

/// "5%", "0.5%" or "5". Throws Command_Error.
double percent(const std::string& text) {
  std::string number = text;
  if (!number.empty() && number.back() == '%')
    number.pop_back();
  char* end = nullptr;
  const double value = std::strtod(number.c_str(), &end);
  if (number.empty() || *end != '\0' || !(value > 0) || value > 100)
    throw Command_Error("'" + text + "' is no part of a set: give more than 0% and at most 100%", EXIT_USAGE);
  return value;
}

json_spirit::Object damage_json(const Verify_Damage& damage) {
  json_spirit::Object json;
  json["name"] = "/" + damage.path;
  json["size"] = damage.size;
  json["lost"] = damage.lost;
  json["set"] = damage.set;
  json["medium"] = damage.medium;
  json["message"] = damage.message;
  return json;
}

json_spirit::Object place_json(const Verify_Report::Place& place) {
  json_spirit::Object json;
  json["set"] = place.set;
  json["own"] = place.own;
  json["medium"] = place.medium;
  json["objects"] = place.objects;
  json["good"] = place.good;
  json["damaged"] = place.damaged;
  if (!place.error.empty())
    json["error"] = place.error;
  return json;
}

json_spirit::Object report_json(const Set& set, const Verify_Options& options, const Verify_Report& report) {
  json_spirit::Array damages, media, places;
  for (const Verify_Damage& damage : report.damages)
    damages.push_back(damage_json(damage));
  for (const std::string& message : report.media)
    media.push_back(message);
  for (const Verify_Report::Place& place : report.places)
    places.push_back(place_json(place));
  json_spirit::Object json;
  json["set"] = set.uuid;
  json["clean"] = report.clean();
  json["objects"] = report.objects;
  json["checked"] = report.checked;
  json["good"] = report.good;
  json["damaged"] = report.damaged;
  json["lost"] = report.lost;
  json["lost_bytes"] = report.lost_bytes;
  json["bytes"] = report.bytes;
  json["damages"] = damages;
  json["media"] = media;
  json["places"] = places;
  if (options.sample < 100) {
    json["sample"] = options.sample;
    json["seed"] = options.seed;
  }
  if (report.canceled)
    json["outcome"] = "cancelled";
  if (!report.failure.empty())
    json["message"] = report.failure;
  return json;
}

Lines report_text(const Verify_Options& options, const Verify_Report& report) {
  Lines text;
  for (const std::string& message : report.media)
    text.add("medium: " + message);
  if (report.damaged != 0)
    for (const Verify_Report::Place& place : report.places)
      text.add((place.own ? place.medium : "set " + place.set + ", " + place.medium) + ": " +
               std::to_string(place.damaged) + " of " + std::to_string(place.objects) + " objects damaged" +
               (place.error.empty() ? std::string() : ": " + place.error));
  std::string sum = std::to_string(report.good) + " of " + std::to_string(report.checked) + " objects are good, " +
                    human_bytes(report.bytes) + " read back";
  if (options.sample < 100)
    sum += " (a sample of the " + std::to_string(report.objects) + " objects, with --seed " +
           std::to_string(options.seed) + ")";
  text.add(sum);
  if (report.lost != 0)
    text.add("a restore would lack " + std::to_string(report.lost) + " objects with " + human_bytes(report.lost_bytes));
  if (report.canceled)
    text.add("cancelled: the other " + std::to_string(report.objects - report.checked - report.passed) +
             " objects were not looked at");
  if (!report.failure.empty())
    text.add("the set cannot be verified: " + report.failure);
  return text;
}

/// Has the next incremental store what is damaged anew. Nobody may write into the pool meanwhile.
unsigned long long mark(Context& context, const Pool& pool, const Set_Record& record, Damage_Marks& marks) {
  context.lock_pool(pool);
  unsigned long long rows = 0;
  if (!marks.write(pool, record.uri.substr(0, record.uri.rfind('/')), rows))
    throw Command_Error("what is damaged cannot be marked: " + marks.error());
  return rows;
}

void verify(Context& context, const Verify_Arguments& arguments) {
  Cancel_Request cancel;
  Verify_Options options;
  options.canceling = [&cancel] { return cancel.asked(); };
  options.threads = arguments.threads;
  options.sample = percent(arguments.sample);
  // Each time other objects, so that repeated samples come to see all.
  options.seed = arguments.seed_given ? arguments.seed : std::random_device()();
  const Set set = context.set(arguments.set);
  Pool pool;
  Set_Record record;
  open_set(context, set, pool, record);
  // A set may have lost any number of objects: each is told when it is found.
  std::string error;
  const std::unique_ptr<Damage_Marks> marks = arguments.mark ? Damage_Marks::make(error) : nullptr;
  if (arguments.mark && !marks)
    throw Command_Error(error);
  options.found = [&](const Verify_Damage& damage) {
    if (context.json)
      print_json_line(damage_json(damage));
    else
      print_line("damaged: '/" + damage.path + "': " + damage.message);
    if (marks)
      marks->add(damage);
  };
  Verify_Report report;
  const bool clean = verify_set(pool, record, options, report);
  json_spirit::Object json = report_json(set, options, report);
  Lines text = report_text(options, report);
  if (marks) {
    unsigned long long rows = 0;
    try {
      rows = report.damaged == 0 ? 0 : mark(context, pool, record, *marks);
    } catch (const Command_Error&) {
      context.print(json, text);
      throw;
    }
    json["marked"] = rows;
    if (report.damaged != 0)
      text.add(std::to_string(rows) +
               " entries of catalogs are marked as damaged; the next incremental backup stores " +
               "these objects anew");
  } else if (report.damaged != 0) {
    text.add("with --mark the next incremental backup stores the damaged objects anew");
  }
  context.print(json, text);
  if (report.checked == 0 && report.objects != 0 && clean && !report.canceled)
    throw Command_Error("the sample has none of the set's " + std::to_string(report.objects) +
                        " objects, so nothing was verified: give a larger --sample, or another --seed");
  context.exit_code = report.canceled ? EXIT_CANCELLED : clean ? EXIT_COMPLETED : EXIT_FAILED;
}

} // namespace

void add_verify_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Verify_Arguments>();
  CLI::App* check = app.add_subcommand("verify", "Read every stored byte of a set back and check it");
  check->add_option("set", arguments->set, "Set: its uuid, the beginning of it, or \"latest\"")
      ->required()
      ->type_name("SET");
  check->add_option("--threads", arguments->threads, "Objects read at the same time; 0: 4")
      ->check(CLI::Range(0, 256))
      ->capture_default_str();
  check->add_option("--sample", arguments->sample, "Read only this part of the objects, chosen by chance")
      ->type_name("N%")
      ->capture_default_str();
  check->add_flag("--mark", arguments->mark, "Have the next incremental backup store anew what is damaged");
  CLI::Option* seed =
      check
          ->add_option("--seed", arguments->seed,
                       "The sample of an earlier run again, by the number it printed; a new one each time unless given")
          ->type_name("N");
  check->callback([&context, arguments, seed] {
    arguments->seed_given = seed->count() != 0;
    verify(context, *arguments);
  });
}
