#include "platform/s3/diagnosis.h"

#include "platform/s3/vendor_presets.h"
#include "testing/s3_server/raw_server.h"
#include "testing/s3_server/s3_server.h"

#include <netdb.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>

namespace {

using s3::Check;
using s3_testing::Addressing;
using s3_testing::Fault;
using s3_testing::Key_Encoding;
using s3_testing::Raw_Server;
using s3_testing::S3_Server;
using s3_testing::S3_Server_Options;
using s3_testing::S3_Server_Settings;
using s3_testing::Signatures;

/// A service with a fault, and an account that is set up for it as if there were none.
struct Patient {
  explicit Patient(S3_Server_Options options = {}) : server(options) {
    server.create_bucket("bucket");
    for (const char* key : {"a", "b c", "d"})
      server.put("bucket", key, "some text");
    account.service.host = "127.0.0.1";
    account.service.port = server.port();
    account.service.ssl = options.tls;
    account.service.type = options.tls ? "https" : "http";
    account.service.access_key = options.access_key;
    account.service.secret_key = options.secret_key;
    if (options.tls)
      account.settings.ca_file = server.ca_file();
  }
  void raw(const std::string& answer, bool hang_up = false) {
    other = std::make_unique<Raw_Server>(answer, hang_up);
    account.service.port = other->port();
  }
  /// The bucket may stand before "localhost", which resolves to this machine whatever stands there.
  void by_name() { account.service.host = "localhost"; }
  void configure(const std::function<void(S3_Server_Settings&)>& change) { server.configure(change); }

  S3_Server server;
  std::unique_ptr<Raw_Server> other;
  s3::Diagnosis_Options account;
};

S3_Server_Options over_tls() {
  S3_Server_Options options;
  options.tls = true;
  return options;
}

struct Case {
  const char* name;
  Check::State state;
  const char* check;
  const char* fault;
  std::function<S3_Server_Options()> server;
  std::function<void(Patient&)> spoil;
};

S3_Server_Options plain() {
  return {};
}

std::string document(const std::string& status, const std::string& type, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

const Case CASES[] = {
    {"unknown_name", Check::FAILED, "name", "name.unknown", plain,
     [](Patient& p) {
       p.account.service.host = "no.such.host";
       p.account.resolver = [](const std::string&, unsigned short, std::vector<s3::Host_Address>&) {
         return EAI_NONAME;
       };
     }},
    {"name_servers_down", Check::FAILED, "name", "name.no-answer", plain,
     [](Patient& p) {
       p.account.resolver = [](const std::string&, unsigned short, std::vector<s3::Host_Address>&) {
         return EAI_AGAIN;
       };
     }},
    {"nobody_listens", Check::FAILED, "connect", "connect.refused", plain,
     [](Patient& p) { p.server.stop_listening(); }},
    {"certificate_expired", Check::FAILED, "tls", "tls.expired",
     [] {
       S3_Server_Options options = over_tls();
       options.tls_valid_seconds = -3600;
       return options;
     },
     [](Patient&) {}},
    {"certificate_expires_soon", Check::NOTED, "tls", "tls.expires-soon",
     [] {
       S3_Server_Options options = over_tls();
       options.tls_valid_seconds = 3 * 24 * 3600;
       return options;
     },
     [](Patient&) {}},
    {"certificate_of_another_host", Check::FAILED, "tls", "tls.other-name",
     [] {
       S3_Server_Options options = over_tls();
       options.tls_names = "DNS:s3.example.com";
       return options;
     },
     [](Patient&) {}},
    {"certificate_of_an_unknown_ca", Check::FAILED, "tls", "tls.unknown-ca", over_tls,
     [](Patient& p) { p.account.settings.ca_file.clear(); }},
    {"ca_file_missing", Check::FAILED, "tls", "tls.ca-file", over_tls,
     [](Patient& p) { p.account.settings.ca_file = "/nowhere.pem"; }},
    {"client_certificate_wanted", Check::FAILED, "http", "tls.client-certificate",
     [] {
       S3_Server_Options options = over_tls();
       options.tls_client_certificate = true;
       return options;
     },
     [](Patient&) {}},
    {"client_certificate_missing", Check::FAILED, "tls", "tls.client-file", over_tls,
     [](Patient& p) { p.account.settings.client_cert = "/nowhere.pem"; }},
    {"no_tls_there", Check::FAILED, "tls", "tls.not-tls", plain,
     [](Patient& p) {
       p.account.service.ssl = true;
       p.raw("HTTP/1.1 400 Bad Request\r\n\r\n");
     }},
    {"tls_broken_off", Check::FAILED, "tls", "tls.closed", over_tls, [](Patient& p) { p.raw("", true); }},
    {"silent_tls", Check::FAILED, "tls", "tls.silent", over_tls, [](Patient& p) { p.raw(""); }},
    {"tls_wanted", Check::FAILED, "http", "http.wants-tls", over_tls,
     [](Patient& p) { p.account.service.ssl = false; }},
    {"silent", Check::FAILED, "http", "http.silent", plain, [](Patient& p) { p.raw(""); }},
    {"hangs_up", Check::FAILED, "http", "http.closed", plain,
     [](Patient& p) { p.server.add_fault(Fault::no_reply()); }},
    {"another_protocol", Check::FAILED, "http", "http.not-http", plain,
     [](Patient& p) { p.raw("220 mail.example.com ESMTP\r\n"); }},
    {"web_page", Check::FAILED, "http", "http.not-s3", plain,
     [](Patient& p) { p.raw(document("200 OK", "text/html", "<html><body>Welcome</body></html>")); }},
    {"web_server_that_knows_nothing", Check::FAILED, "http", "http.not-s3", plain,
     [](Patient& p) { p.raw(document("404 Not Found", "text/html", "<html><body>Not found</body></html>")); }},
    {"endless_head", Check::FAILED, "http", "http.too-large", plain,
     [](Patient& p) { p.raw("HTTP/1.1 200 OK\r\nX-Long: " + std::string(80000, 'x') + "\r\n\r\n"); }},
    {"settings_without_sense", Check::FAILED, "http", "http.no-client", plain,
     [](Patient& p) { p.account.service.sign_method = "v5"; }},
    {"busy", Check::FAILED, "http", "http.busy", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(503, "SlowDown")); }},
    {"broken", Check::FAILED, "http", "http.server-error", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(500, "InternalError")); }},
    {"clock_ahead", Check::NOTED, "clock", "clock.offset", plain,
     [](Patient& p) {
       p.configure([](S3_Server_Settings& s) {
         s.clock = [] { return static_cast<std::int64_t>(std::time(nullptr)) + 7200; };
       });
     }},
    {"clock_refused", Check::FAILED, "clock", "clock.refused", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(403, "RequestTimeTooSkewed")); }},
    {"unknown_access_key", Check::FAILED, "credentials", "credentials.unknown-key", plain,
     [](Patient& p) { p.account.service.access_key = "NOBODY"; }},
    {"wrong_secret", Check::FAILED, "credentials", "credentials.wrong-secret", plain,
     [](Patient& p) { p.account.service.secret_key = "wrong"; }},
    {"suspended", Check::FAILED, "credentials", "credentials.suspended", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(403, "UserSuspended")); }},
    {"nothing_allowed", Check::FAILED, "credentials", "credentials.denied", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(403, "AccessDenied")); }},
    {"buckets_not_to_be_listed", Check::NOTED, "credentials", "credentials.no-list", plain,
     [](Patient& p) {
       p.account.buckets = {"bucket"};
       p.server.add_fault(Fault::error(403, "AccessDenied").on("ListBuckets"));
     }},
    {"objects_not_to_be_read", Check::FAILED, "range", "credentials.no-read", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(403, "AccessDenied").on("GetObject")); }},
    {"only_v2_signatures", Check::FAILED, "signature", "signature.v2-only", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.signatures = Signatures::v2_only; }); }},
    {"only_v4_signatures", Check::FAILED, "signature", "signature.v4-only", plain,
     [](Patient& p) {
       p.account.service.sign_method = "v2";
       p.configure([](S3_Server_Settings& s) { s.signatures = Signatures::v4_only; });
     }},
    {"only_path_style", Check::FAILED, "addressing", "addressing.path-only", plain,
     [](Patient& p) {
       p.by_name();
       p.account.settings.addressing = Endpoint_Settings::ADDRESSING_VIRTUAL;
       p.configure([](S3_Server_Settings& s) { s.addressing = Addressing::path_only; });
     }},
    {"only_virtual_host_style", Check::FAILED, "addressing", "addressing.virtual-only", plain,
     [](Patient& p) {
       p.by_name();
       p.account.settings.addressing = Endpoint_Settings::ADDRESSING_PATH;
       p.configure([](S3_Server_Settings& s) { s.addressing = Addressing::virtual_only; });
     }},
    {"only_virtual_host_style_found_out", Check::NOTED, "addressing", "addressing.virtual-only", plain,
     [](Patient& p) {
       p.by_name();
       p.configure([](S3_Server_Settings& s) { s.addressing = Addressing::virtual_only; });
     }},
    {"bucket_missing", Check::FAILED, "addressing", "bucket.missing", plain,
     [](Patient& p) { p.account.buckets = {"elsewhere"}; }},
    {"bucket_denied", Check::FAILED, "addressing", "bucket.denied", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(403, "AccessDenied").on("ListObjects*")); }},
    {"another_region", Check::NOTED, "region", "region.other", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.region = "eu-west-1"; }); }},
    {"region_that_is_not_told", Check::FAILED, "region", "region.wrong", plain,
     [](Patient& p) { p.server.add_fault(Fault::error(400, "AuthorizationHeaderMalformed")); }},
    {"redirected_away_from_tls", Check::FAILED, "region", "redirect.to-http", over_tls,
     [](Patient& p) {
       p.server.add_fault(Fault::redirect(307, "", "http://127.0.0.1:" + std::to_string(p.server.port())));
     }},
    {"redirected_to_a_stranger", Check::FAILED, "region", "redirect.other-host", plain,
     [](Patient& p) { p.server.add_fault(Fault::redirect(301, "", "https://elsewhere.example")); }},
    {"redirected_nowhere", Check::FAILED, "region", "redirect.unusable", plain,
     [](Patient& p) { p.server.add_fault(Fault::redirect(301, "")); }},
    {"only_list_version_1", Check::FAILED, "listing", "listing.v1-only", plain,
     [](Patient& p) {
       p.account.settings.list_version = Endpoint_Settings::LIST_V2;
       p.configure([](S3_Server_Settings& s) { s.list_v2 = false; });
     }},
    {"only_list_version_2", Check::FAILED, "listing", "listing.v2-only", plain,
     [](Patient& p) {
       p.account.settings.list_version = Endpoint_Settings::LIST_V1;
       p.configure([](S3_Server_Settings& s) { s.list_v1 = false; });
     }},
    {"only_list_version_2_found_out", Check::NOTED, "listing", "listing.v2-only", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.list_v1 = false; }); }},
    {"list_version_2_ignored", Check::FAILED, "listing", "listing.v2-ignored", plain,
     [](Patient& p) {
       p.account.settings.list_version = Endpoint_Settings::LIST_V2;
       p.configure([](S3_Server_Settings& s) { s.list_type_ignored = true; });
     }},
    {"pages_that_come_again", Check::FAILED, "paging", "paging.does-not-advance", plain,
     [](Patient& p) { p.server.add_fault(Fault::repeat_page()); }},
    {"encoding_ignored", Check::NOTED, "encoding", "encoding.ignored", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::ignored; }); }},
    {"encoding_refused", Check::NOTED, "encoding", "encoding.refused", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::refused; }); }},
    {"encoding_unsaid", Check::NOTED, "encoding", "encoding.unsaid", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::unsaid; }); }},
    {"encoding_asked_for_and_ignored", Check::FAILED, "encoding", "encoding.ignored", plain,
     [](Patient& p) {
       p.account.settings.url_encoding = Endpoint_Settings::ENCODING_ON;
       p.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::ignored; });
     }},
    {"ranges_ignored", Check::NOTED, "range", "range.ignored", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.ranges = false; }); }},
    {"if_match_ignored", Check::NOTED, "if-match", "if-match.ignored", plain,
     [](Patient& p) { p.configure([](S3_Server_Settings& s) { s.if_match = false; }); }},
};

const Check* find(const s3::Diagnosis& diagnosis, const std::string& name) {
  for (const Check& check : diagnosis.checks)
    if (check.name == name)
      return &check;
  return nullptr;
}

std::string story(const s3::Diagnosis& diagnosis) {
  std::string out;
  for (const Check& check : diagnosis.checks)
    out += check.name + ' ' + text_of(check.state) + ' ' + check.fault + ": " + check.tried + " -> " + check.found +
           (check.advice.empty() ? "" : " => " + check.advice) + "\n";
  return out;
}

/// Seconds in which a look is over that keeps its limit: that is under five, a busy machine may need more.
constexpr double IN_TIME = 30;

TEST(Diagnosis, limit_is_under_five_seconds) {
  EXPECT_LT(s3::Diagnosis_Options().limit, std::chrono::seconds(5));
}

class Diagnosis_Of : public testing::TestWithParam<Case> {};

TEST_P(Diagnosis_Of, a_fault_names_it_and_what_to_do_in_under_five_seconds) {
  const Case& one = GetParam();
  Patient patient(one.server());
  one.spoil(patient);
  const auto before = std::chrono::steady_clock::now();
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
  EXPECT_LT(took.count(), IN_TIME);

  ASSERT_EQ(14u, diagnosis.checks.size());
  const Check* const check = find(diagnosis, one.check);
  ASSERT_NE(nullptr, check);
  EXPECT_EQ(one.fault, check->fault) << story(diagnosis);
  EXPECT_EQ(one.state, check->state) << story(diagnosis);
  EXPECT_NE("", check->advice);
  EXPECT_NE("", check->tried);
  EXPECT_NE("", check->found);
  EXPECT_EQ(one.state != Check::FAILED, diagnosis.good()) << story(diagnosis);
  // This and nothing else is blamed.
  for (const Check& other : diagnosis.checks)
    EXPECT_TRUE(other.name == one.check || other.state != Check::FAILED) << story(diagnosis);
  if (one.state == Check::FAILED) {
    EXPECT_EQ(one.fault, diagnosis.failure()->fault);
  }
}

INSTANTIATE_TEST_SUITE_P(services, Diagnosis_Of, testing::ValuesIn(CASES),
                         [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

TEST(Diagnosis, of_a_sound_service_passes_every_check_and_settles_what_was_left_open) {
  Patient patient(over_tls());
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  EXPECT_TRUE(diagnosis.good());
  for (const Check& check : diagnosis.checks) {
    EXPECT_EQ(Check::PASSED, check.state) << story(diagnosis);
    EXPECT_EQ("", check.fault) << story(diagnosis);
    EXPECT_EQ("", check.advice) << story(diagnosis);
  }
  EXPECT_EQ("path", diagnosis.addressing);
  EXPECT_EQ("1", diagnosis.list_version);
  EXPECT_EQ("on", diagnosis.url_encoding);
}

TEST(Diagnosis, finds_out_what_an_odd_service_wants) {
  Patient patient;
  patient.by_name();
  patient.configure([](S3_Server_Settings& s) {
    s.addressing = Addressing::virtual_only;
    s.list_v1 = false;
    s.key_encoding = Key_Encoding::refused;
  });
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  EXPECT_TRUE(diagnosis.good()) << story(diagnosis);
  EXPECT_EQ("virtual", diagnosis.addressing);
  EXPECT_EQ("2", diagnosis.list_version);
  EXPECT_EQ("off", diagnosis.url_encoding);
}

TEST(Diagnosis, leaves_settings_alone_that_were_made) {
  Patient patient;
  patient.account.settings.addressing = Endpoint_Settings::ADDRESSING_PATH;
  patient.account.settings.list_version = Endpoint_Settings::LIST_V2;
  patient.account.settings.url_encoding = Endpoint_Settings::ENCODING_OFF;
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  EXPECT_TRUE(diagnosis.good()) << story(diagnosis);
  EXPECT_EQ("", diagnosis.addressing + diagnosis.list_version + diagnosis.url_encoding);
}

TEST(Diagnosis, changes_nothing_at_the_service) {
  Patient patient;
  patient.server.keep_log(true);
  diagnose(patient.account);
  for (const s3_testing::Request_Info& request : patient.server.log())
    EXPECT_EQ("GET", request.method);
  EXPECT_EQ(3u, patient.server.object_count("bucket"));
}

TEST(Diagnosis, of_an_account_without_buckets_says_what_is_missing) {
  S3_Server server;
  Patient patient;
  patient.account.service.port = server.port();
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  EXPECT_TRUE(diagnosis.good()) << story(diagnosis);
  EXPECT_EQ(Check::SKIPPED, find(diagnosis, "listing")->state);
  EXPECT_NE(std::string::npos, find(diagnosis, "listing")->found.find("--bucket"));
}

TEST(Diagnosis, ends_in_time_at_a_service_that_is_slow_at_everything) {
  Patient patient;
  patient.configure([](S3_Server_Settings& s) { s.latency_milliseconds = 900; });
  const auto before = std::chrono::steady_clock::now();
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
  EXPECT_LT(took.count(), IN_TIME);
  EXPECT_EQ(Check::PASSED, find(diagnosis, "credentials")->state) << story(diagnosis);
  EXPECT_EQ("there was no time left", find(diagnosis, "if-match")->found) << story(diagnosis);
}

TEST(Diagnosis, resolver_that_never_answers_is_not_waited_for) {
  Patient patient;
  const auto gate = std::make_shared<std::promise<void>>();
  const std::shared_future<void> opened = gate->get_future().share();
  patient.account.resolver = [opened](const std::string&, unsigned short, std::vector<s3::Host_Address>&) {
    opened.wait();
    return EAI_AGAIN;
  };
  const s3::Diagnosis diagnosis = diagnose(patient.account);
  EXPECT_EQ("name.no-answer", diagnosis.failure()->fault);
  gate->set_value();
}

TEST(Diagnosis, every_fault_of_the_table_of_cases_has_its_advice) {
  for (const Case& one : CASES)
    EXPECT_STRNE("", s3::advice_for(one.fault)) << one.fault;
  EXPECT_STREQ("", s3::advice_for("no.such"));
}

} // namespace
