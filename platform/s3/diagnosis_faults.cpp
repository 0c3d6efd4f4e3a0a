#include "platform/s3/diagnosis.h"

#include <cstring>

namespace s3 {
namespace {

struct Fault_Row {
  const char* fault;
  const char* advice;
};

/// Every fault that a diagnosis names, and what a user can do about it.
constexpr Fault_Row FAULTS[] = {
    {"name.unknown", "check the host in the endpoint for a typing error"},
    {"name.no-answer", "check this machine's name servers (/etc/resolv.conf) and its network"},
    {"connect.refused", "check the endpoint's port, and that the service runs"},
    {"connect.timeout", "check firewalls and routes between here and the service, or set --proxy"},
    {"connect.failed", "check this machine's network and routes"},
    {"tls.expired", "have the service's certificate renewed"},
    {"tls.not-yet-valid", "check this machine's clock, then the certificate"},
    {"tls.other-name", "use the host that the certificate is for, or have one issued for this host"},
    {"tls.unknown-ca", "give the CA that signed the certificate with --ca-file"},
    {"tls.expires-soon", "have the service's certificate renewed"},
    {"tls.not-tls", "use http:// in the endpoint, or the port that speaks TLS"},
    {"tls.too-old", "the service must speak TLS 1.2 or newer"},
    {"tls.closed", "check that the port speaks TLS, and that nothing in between forbids it"},
    {"tls.silent", "check that the port speaks TLS, and what stands between here and the service"},
    {"tls.failed", "check which TLS versions and ciphers the service takes"},
    {"tls.ca-file", "give a readable PEM file with --ca-file"},
    {"tls.client-file", "give readable PEM files with --client-cert and --client-key"},
    {"tls.client-certificate", "give a certificate that the service trusts with --client-cert"},
    {"http.closed", "check that an S3 service listens on this port, and what stands between here and it"},
    {"http.silent", "check whether the service is overloaded or stuck"},
    {"http.not-http", "check the endpoint's port: something else than HTTP answers there"},
    {"http.wants-tls", "use https:// in the endpoint"},
    {"http.not-s3", "check the endpoint: a web server answers there, but no S3 service"},
    {"http.too-large", "check the endpoint: no S3 service answers so"},
    {"http.busy", "the service asks for fewer requests: try again later, or have its limits raised"},
    {"http.server-error", "the service itself is broken: see its own logs"},
    {"http.no-client", "check host, keys and --sign-method; the log says which makes no sense"},
    {"http.failed", "see the message"},
    {"clock.offset", "set this machine's clock (or the service's); until then requests carry the service's time"},
    {"clock.refused", "set this machine's clock: the service does not take requests dated so"},
    {"credentials.unknown-key", "check --access-key"},
    {"credentials.wrong-secret", "check the secret key, and that it belongs to this access key"},
    {"credentials.suspended", "have the keys or the account renewed by whoever runs the service"},
    {"credentials.denied", "the keys lack the right to do this: name the buckets with --bucket, or grant it"},
    {"credentials.no-list", "the keys may not list the account's buckets: name those to back up with --bucket"},
    {"credentials.no-read", "grant the keys the right to read objects (s3:GetObject)"},
    {"signature.v2-only", "set --sign-method v2"},
    {"signature.v4-only", "set --sign-method v4"},
    {"signature.refused", "check --sign-method: the service takes neither version from us"},
    {"addressing.path-only", "set --addressing path or auto"},
    {"addressing.virtual-only", "set --addressing virtual or auto"},
    {"addressing.failed", "see the message; the bucket can be had in no way"},
    {"bucket.missing", "check the bucket's name with --bucket"},
    {"bucket.denied", "grant the keys the right to list this bucket (s3:ListBucket)"},
    {"region.other", "set --region to the region named, which spares a request now and then"},
    {"region.wrong", "set --region to the service's region"},
    {"redirect.to-http", "not followed: it would lead away from TLS; have the service's own address corrected"},
    {"redirect.other-host", "not followed: the keys are for this service alone; use the other endpoint if it is yours"},
    {"redirect.unusable", "not followed: it says nothing that can be used; check endpoint and region"},
    {"listing.v1-only", "set --list-version 1 or auto"},
    {"listing.v2-only", "set --list-version 2 or auto"},
    {"listing.v2-ignored", "set --list-version 1 or auto"},
    {"listing.failed", "see the message; without listings nothing can be found"},
    {"paging.does-not-advance", "listings of this service never end: have it mended, or try --list-version"},
    {"paging.no-limit", "nothing: pages come as long as the service likes"},
    {"encoding.refused", "nothing: keys are asked for without encoding; those with control characters may not be had"},
    {"encoding.ignored", "nothing: keys come without encoding; those with control characters may not be had"},
    {"encoding.unsaid", "nothing: keys are decoded all the same"},
    {"range.ignored", "objects whose transfer breaks off are read again from the start"},
    {"range.failed", "see the message; objects cannot be read in part"},
    {"if-match.ignored", "an object that is replaced while it is read is told by its ETag and size alone"},
};

} // namespace

const char* advice_for(const std::string& fault) {
  for (const Fault_Row& row : FAULTS)
    if (fault == row.fault)
      return row.advice;
  return "";
}

const char* text_of(Check::State state) {
  switch (state) {
  case Check::PASSED:
    return "passed";
  case Check::NOTED:
    return "noted";
  case Check::FAILED:
    return "failed";
  default:
    return "skipped";
  }
}

bool Diagnosis::good() const {
  return failure() == nullptr;
}

const Check* Diagnosis::failure() const {
  for (const Check& check : checks)
    if (check.state == Check::FAILED)
      return &check;
  return nullptr;
}

bool Diagnosis::unreachable() const {
  const Check* const failed = failure();
  return failed &&
         (failed->name == "name" || failed->name == "connect" || failed->name == "tls" || failed->name == "http");
}

} // namespace s3
