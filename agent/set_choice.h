#pragma once

#include "platform/store/records.h"

#include <ctime>
#include <optional>
#include <string>

class Context;

/// Reads a moment as people write one: "2026-05-01", "2026-05-01 14:30", "2026-05-01T14:30:15", each with "Z", "UTC",
/// "+02:00", "+0200" or "+02" after it, else in local time. The last second that the text covers: of a day without a
/// time its end, of a minute likewise. False for anything else, also for a day that no calendar has.
bool parse_moment(const std::string& text, time_t& moment);

/// Whether `id` asks for a set by its age: "latest", or "latest:NAME".
bool names_latest(const std::string& id);

/// The newest whole set that ended at or before `until`. NAME narrows it to a selection, by its name or uuid, or to an
/// account. Throws Command_Error: there is none, or sets of several selections are meant, which it names.
Set latest_set(Context& context, const std::string& id, const std::optional<time_t>& until = std::nullopt);
