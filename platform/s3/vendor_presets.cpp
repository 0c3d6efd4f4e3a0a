#include "platform/s3/vendor_presets.h"

#include <strings.h>

namespace {

constexpr auto PATH = Endpoint_Settings::ADDRESSING_PATH;
constexpr auto VIRTUAL = Endpoint_Settings::ADDRESSING_VIRTUAL;
constexpr auto ANY_ADDRESSING = Endpoint_Settings::ADDRESSING_AUTO;
constexpr auto V1 = Endpoint_Settings::LIST_V1;
constexpr auto V2 = Endpoint_Settings::LIST_V2;
constexpr auto ANY_VERSION = Endpoint_Settings::LIST_AUTO;
constexpr auto ENCODED = Endpoint_Settings::ENCODING_ON;
constexpr auto PLAIN = Endpoint_Settings::ENCODING_OFF;
constexpr auto ANY_ENCODING = Endpoint_Settings::ENCODING_AUTO;

/// The provider files of rclone, one per service; its quirks are kept by the services' own people and users.
#define PROVIDERS "rclone backend/s3/provider/"

} // namespace

// One row per service; doc/compatibility.md names the test behind each quirk.
const std::vector<Vendor_Preset>& vendor_presets() {
  static const std::vector<Vendor_Preset> presets{
      {"aws", VIRTUAL, V2, ENCODED, "v4", "buckets are bound to regions; a hint at the right one is followed",
       PROVIDERS "AWS.yaml; aws-sdk-js#1001"},
      {"ceph", PATH, V1, ANY_ENCODING, "v4",
       "url-encodes keys and prefixes but not the marker; goes on from the last key",
       PROVIDERS "Ceph.yaml (V1, path style); own runs against radosgw 16: encoding works"},
      {"ceph-old", PATH, V1, PLAIN, "v2", "before version 10: no V4 signatures",
       PROVIDERS "Other.yaml: other-v2-signature, pre Jewel/v10"},
      {"dreamobjects", ANY_ADDRESSING, ANY_VERSION, PLAIN, "v4", "", PROVIDERS "Dreamhost.yaml"},
      {"gcs", ANY_ADDRESSING, ANY_VERSION, ANY_ENCODING, "v4",
       "changes Accept-Encoding on the way, so that it must not be signed: none is sent",
       PROVIDERS "GCS.yaml; rclone#6670"},
      {"hcp", PATH, ANY_VERSION, ANY_ENCODING, "v4", "", PROVIDERS "HCP.yaml"},
      {"ibmcos", PATH, V1, PLAIN, "v4", "", PROVIDERS "IBMCOS.yaml"},
      {"minio", PATH, V2, ENCODED, "v4", "Expect: 100-continue is ignored by some versions (minio#7266)",
       PROVIDERS "Minio.yaml"},
      {"netease", ANY_ADDRESSING, V1, PLAIN, "v4", "the ETag of an object sent in parts is not the usual one",
       PROVIDERS "Netease.yaml"},
      {"other", PATH, V1, PLAIN, "v4", "what the most services understand", PROVIDERS "Other.yaml"},
      {"scality", PATH, ANY_VERSION, ANY_ENCODING, "v4",
       "virtual-host style needs wildcard names, which are often missing", PROVIDERS "Scality.yaml"},
      {"seaweedfs", PATH, V1, PLAIN, "v4", "the ETag of an object sent in parts is not the usual one",
       PROVIDERS "SeaweedFS.yaml"},
      {"storj", ANY_ADDRESSING, ANY_VERSION, ANY_ENCODING, "v4", "wants parts of 64 MiB", PROVIDERS "Storj.yaml"},
  };
  return presets;
}

const Vendor_Preset* vendor_preset(const std::string& name) {
  for (const Vendor_Preset& preset : vendor_presets())
    if (strcasecmp(preset.name, name.c_str()) == 0)
      return &preset;
  return nullptr;
}

void apply_preset(const Vendor_Preset& preset, Endpoint_Settings& settings) {
  if (settings.addressing == Endpoint_Settings::ADDRESSING_AUTO)
    settings.addressing = preset.addressing;
  if (settings.list_version == Endpoint_Settings::LIST_AUTO)
    settings.list_version = preset.list_version;
  if (settings.url_encoding == Endpoint_Settings::ENCODING_AUTO)
    settings.url_encoding = preset.url_encoding;
}
