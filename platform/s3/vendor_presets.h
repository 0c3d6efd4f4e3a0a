#pragma once

#include "platform/s3/endpoint_settings.h"

#include <string>
#include <vector>

/// What is known of a service by name: how it wants to be reached and asked. A preset fills in what the settings leave
/// to "auto" and no test has found out; it never overrules either.
struct Vendor_Preset {
  const char* name;
  Endpoint_Settings::Addressing addressing;
  Endpoint_Settings::List_Version list_version;
  Endpoint_Settings::Url_Encoding url_encoding;
  const char* sign_method; ///< "v4", "v2"
  const char* quirks;      ///< what else a user should know; may be empty
  const char* evidence;    ///< where this is known from
};

/// The preset of that name, in whatever case; null where there is none. Valid for ever.
const Vendor_Preset* vendor_preset(const std::string& name);
/// All of them, by name.
const std::vector<Vendor_Preset>& vendor_presets();
/// Fills in what `settings` leaves to auto.
void apply_preset(const Vendor_Preset& preset, Endpoint_Settings& settings);
