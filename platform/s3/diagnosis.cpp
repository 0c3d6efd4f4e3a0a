#include "platform/s3/diagnosis.h"

#include "platform/http/http_date.h"
#include "platform/s3/percent_encoding.h"
#include "platform/s3/transport.h"
#include "platform/s3/vendor_presets.h"
#include "sdk/base/clock.h"
#include "sdk/base/uri.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace s3 {
namespace {

typedef std::chrono::steady_clock Steady;
typedef Endpoint_Settings Settings;

/// No single step may take more, so that a later one that tells what is wrong still has its turn.
constexpr std::chrono::milliseconds STEP(1500);
/// A request with less than this left is not worth sending: time-outs of requests are whole seconds.
constexpr std::chrono::milliseconds LEAST(1000);
/// Beyond it requests are refused by services that look.
constexpr long long SMALL_OFFSET = 60;
/// Keys that are compared in both encodings, and among which one to read is sought.
constexpr int SAMPLE = 100;

/// What a failed request says about the service.
std::string fault_of(const Outcome& outcome) {
  const S3_Error& error = outcome.error;
  const std::string& code = error.code();
  struct Row {
    const char* code;
    const char* fault;
  };
  static constexpr Row CODES[] = {
      {"CouldNotResolveHost", "name.unknown"},
      {"CouldNotResolveProxy", "name.unknown"},
      {"CouldNotConnect", "connect.refused"},
      {"TimedOut", "http.silent"},
      {"ConnectionBroken", "http.closed"},
      {"CertificateNotTrusted", "tls.unknown-ca"},
      {"CertificateFileUnreadable", "tls.ca-file"},
      {"TLSHandshakeFailed", "tls.failed"},
      {"NotHTTP", "http.not-http"},
      {"AnswerTooLarge", "http.too-large"},
      {"MalformedAnswer", "http.not-s3"},
      {"ListingDoesNotAdvance", "paging.does-not-advance"},
      {"InvalidAccessKeyId", "credentials.unknown-key"},
      {"SignatureDoesNotMatch", "credentials.wrong-secret"},
      {"ExpiredToken", "credentials.suspended"},
      {"InvalidToken", "credentials.suspended"},
      {"AccountProblem", "credentials.suspended"},
      {"AllAccessDisabled", "credentials.suspended"},
      {"NotSignedUp", "credentials.suspended"},
      {"UserSuspended", "credentials.suspended"},
      {"RequestTimeTooSkewed", "clock.refused"},
      {"RequestExpired", "clock.refused"},
      {"AuthorizationHeaderMalformed", "region.wrong"},
      {"NoSuchBucket", "bucket.missing"},
      {"AccessDenied", "credentials.denied"},
  };
  for (const Row& row : CODES)
    if (code == row.code)
      return row.fault;
  if (is_busy(error))
    return "http.busy";
  if (error.status() >= 300 && error.status() < 400) {
    const std::string& location = outcome.head.value("location");
    if (location.empty())
      return "redirect.unusable";
    return location.compare(0, 7, "http://") == 0 ? "redirect.to-http" : "redirect.other-host";
  }
  if (error.status() >= 500 && error.status() != 501)
    return "http.server-error";
  return "http.failed";
}

/// The service does not like how the request was signed, or did not understand it.
bool may_be_signature(const S3_Error& error) {
  for (const char* code :
       {"SignatureDoesNotMatch", "InvalidRequest", "InvalidArgument", "AccessDenied", "NotImplemented", "BadRequest",
        "Unauthorized", "AuthorizationHeaderMalformed", "InvalidSecurity"})
    if (error.code() == code)
      return true;
  return false;
}

/// Keys are any bytes; what is told of them is text.
std::string shown(const std::string& key) {
  std::string text;
  for (const char c : key) {
    if (c > ' ' && c < 0x7f)
      text.push_back(c);
    else
      text += c == ' ' ? " " : percent_encode(std::string_view(&c, 1), false);
  }
  return text;
}

class Diagnoser {
public:
  explicit Diagnoser(const Diagnosis_Options& options)
      : options_(options), service_(options.service), settings_(options.settings), end_(Steady::now() + options.limit) {
    if (const Vendor_Preset* preset = vendor_preset(service_.vendor)) {
      apply_preset(*preset, settings_);
      if (service_.sign_method.empty())
        service_.sign_method = preset->sign_method;
    }
    if (service_.port == 0)
      service_.port = service_.ssl ? 443 : 80;
  }

  Diagnosis run() {
    if (reach() && talk()) {
      at_bucket();
      const bool listed = list();
      if (listed) {
        page();
        encode();
        read();
      }
    }
    for (const char* name : {"name", "connect", "tls", "http", "clock", "credentials", "signature", "addressing",
                             "region", "listing", "paging", "encoding", "range", "if-match"})
      order(name);
    return std::move(diagnosis_);
  }

private:
  std::chrono::milliseconds left() const {
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(end_ - Steady::now()),
                    std::chrono::milliseconds(0));
  }
  std::chrono::milliseconds step() const { return std::min(STEP, left()); }

  Check& add(const char* name, Check::State state, std::string fault, std::string tried, std::string found) {
    Check& check = diagnosis_.checks.emplace_back();
    check.name = name;
    check.state = state;
    check.advice = advice_for(fault);
    check.fault = std::move(fault);
    check.tried = std::move(tried);
    check.found = std::move(found);
    return check;
  }
  bool add(const char* name, const Finding& finding) {
    const bool noted = finding.fault == "tls.expires-soon";
    add(name,
        finding.fault.empty() ? Check::PASSED
        : noted               ? Check::NOTED
                              : Check::FAILED,
        finding.fault, finding.tried, finding.found);
    return finding.fault.empty() || noted;
  }
  /// Puts the check of that name behind those that stand in order already; one that was not made is skipped.
  void order(const char* name) {
    std::vector<Check>& checks = diagnosis_.checks;
    const auto begin = checks.begin() + static_cast<std::ptrdiff_t>(ordered_++);
    const auto found = std::find_if(begin, checks.end(), [&](const Check& check) { return check.name == name; });
    if (found != checks.end()) {
      std::rotate(begin, found, found + 1);
      return;
    }
    Check check;
    check.name = name;
    check.found = no_time_ ? "there was no time left" : "what comes before it failed";
    checks.insert(begin, std::move(check));
  }

  /// A client of the service as it is set up but for what is changed. Null when there is no time left.
  template <typename Change>
  std::shared_ptr<Endpoint> client(Change change) {
    if (left() < LEAST) {
      no_time_ = true;
      return nullptr;
    }
    Settings settings = settings_;
    S3_Service_Options service = service_;
    service.vendor.clear(); // applied already
    service.ledger = ledger_;
    const unsigned seconds = static_cast<unsigned>(left() / std::chrono::seconds(1));
    settings.connect_timeout = settings.idle_timeout = settings.total_timeout = std::min(2u, std::max(1u, seconds));
    change(service, settings);
    std::shared_ptr<Endpoint> endpoint = Endpoint::make(service, nullptr, settings);
    if (endpoint && clock_offset_ != 0)
      endpoint->learn_clock(clock_offset_);
    return endpoint;
  }
  std::shared_ptr<Endpoint> client() {
    return client([](S3_Service_Options&, Settings&) {});
  }

  bool reach();
  bool talk();
  void look_at_clock(const Outcome& outcome);
  bool settle_signature(const Outcome& first, const std::string& tried);
  void at_bucket();
  Outcome ask_listing(Endpoint& endpoint, const Get_Bucket_Parameter& param, bool v2, bool encoded,
                      Listing_Reader& reader);
  bool list();
  void page();
  void encode();
  void read();
  std::string where(const Outcome& outcome) const { return outcome.error.text(); }

  const Diagnosis_Options& options_;
  S3_Service_Options service_;
  Settings settings_;
  const Steady::time_point end_;
  const std::shared_ptr<S3_Ledger> ledger_ = std::make_shared<S3_Ledger>();
  Diagnosis diagnosis_;
  size_t ordered_ = 0;
  bool no_time_ = false;
  long long clock_offset_ = 0;
  std::vector<Host_Address> addresses_;
  bool wants_certificate_ = false;
  std::string bucket_;  ///< empty: none that can be looked at
  bool denied_ = false; ///< the account's buckets may not be listed
  bool list_v2_ = false;
  Get_Bucket_Content sample_;
};

/// Name, connection and TLS, each seen by itself. Through a proxy only the way to the proxy can be seen.
bool Diagnoser::reach() {
  std::string host = service_.host;
  unsigned short port = service_.port;
  URI proxy;
  const bool proxied = !settings_.proxy.empty();
  if (proxied && URI_Parser::parse(settings_.proxy.c_str(), proxy)) {
    host = proxy.host();
    port = proxy.port();
  }
  if (!add("name",
           look_up(host, port, options_.resolver ? options_.resolver : Resolver(resolve_host), step(), addresses_)))
    return false;
  Probe_Socket socket;
  if (!add("connect", try_connect(addresses_, port, step(), socket)))
    return false;
  if (!service_.ssl || proxied) {
    add("tls", Check::SKIPPED, "", "", service_.ssl ? "the proxy stands in between" : "the endpoint says http://");
    return true;
  }
  const TLS_Files files{settings_.ca_file, settings_.client_cert, settings_.client_key};
  const Finding finding = try_tls(socket, service_.host, files, step());
  wants_certificate_ = finding.wants_certificate;
  return add("tls", finding);
}

void Diagnoser::look_at_clock(const Outcome& outcome) {
  const std::string& date = outcome.head.value("date");
  const time_t theirs = parse_http_date(date);
  const std::string tried = "compare the answer's date with this machine's";
  if (date.empty() || theirs <= 0) {
    add("clock", Check::SKIPPED, "", tried, "the answer has no date");
    return;
  }
  const long long offset = static_cast<long long>(theirs) - static_cast<long long>(Clock::instance().now());
  const bool small = std::llabs(offset) <= SMALL_OFFSET;
  if (!small)
    clock_offset_ = offset;
  add("clock", small ? Check::PASSED : Check::NOTED, small ? "" : "clock.offset", tried,
      "the service's clock is " + std::to_string(std::llabs(offset)) + " seconds " + (offset < 0 ? "behind" : "ahead"));
}

/// Whether the service understands us: its answer, its clock, the keys and their signature. The first bucket to look at
/// is known afterwards.
bool Diagnoser::talk() {
  if (!options_.buckets.empty())
    bucket_ = options_.buckets.front();
  const std::shared_ptr<Endpoint> endpoint = client();
  if (!endpoint) {
    if (!no_time_)
      add("http", Check::FAILED, "http.no-client", "make a client of the settings", "they make no sense");
    return false;
  }
  Transport transport(endpoint);
  Get_Service_Content content;
  Buckets_Reader reader(content);
  const Outcome first = transport.ask(Request{"GET", "", "", {}, {}, false, {}}, reader);
  const std::string tried = "list the account's buckets";
  const std::string fault = first.ok() ? "" : fault_of(first);
  const bool talks = fault.compare(0, 5, "http.") != 0 || fault == "http.failed";
  const bool reached =
      fault.compare(0, 4, "tls.") != 0 && fault.compare(0, 8, "connect.") != 0 && fault.compare(0, 5, "name.") != 0;
  if (!talks || !reached) {
    std::string named = fault;
    // A service that goes without a certificate just hangs up, or says why too late.
    if (wants_certificate_ && fault != "http.busy" && fault != "http.server-error")
      named = "tls.client-certificate";
    else if (!service_.ssl && settings_.proxy.empty() && fault != "http.busy" && fault != "http.server-error" &&
             left() > LEAST) {
      Probe_Socket socket;
      if (try_connect(addresses_, service_.port, step(), socket).fault.empty() &&
          speaks_tls(socket, service_.host, std::min(std::chrono::milliseconds(500), left())))
        named = "http.wants-tls";
    }
    add("http", Check::FAILED, named, tried, where(first));
    return false;
  }
  if (!first.ok() && first.error.status() != 0 && first.head.value("server").empty() &&
      first.head.value("x-amz-request-id").empty() &&
      first.head.value("content-type").find("html") != std::string::npos) {
    add("http", Check::FAILED, "http.not-s3", tried, where(first));
    return false;
  }
  add("http", Check::PASSED, "", tried, "HTTP " + std::to_string(first.head.status));
  look_at_clock(first);
  if (bucket_.empty() && first.ok() && !content.buckets.empty())
    bucket_ = content.buckets.front().name;
  return settle_signature(first, tried);
}

bool Diagnoser::settle_signature(const Outcome& first, const std::string& tried) {
  const bool v2 = service_.sign_method == "v2" || service_.sign_method == "V2";
  const char* const mine = v2 ? "v2" : "v4";
  if (first.ok()) {
    add("credentials", Check::PASSED, "", tried, "taken");
    add("signature", Check::PASSED, "", std::string("sign by ") + mine, "taken");
    return true;
  }
  const std::string fault = fault_of(first);
  // Where the account may not be listed a bucket tells whether the keys are good; it does not know the secret's faults.
  const auto ask = [&](Endpoint& endpoint) {
    Transport transport(endpoint.shared_from_this());
    if (bucket_.empty()) {
      Get_Service_Content content;
      Buckets_Reader reader(content);
      Outcome outcome = transport.ask(Request{"GET", "", "", {}, {}, false, {}}, reader);
      if (outcome.ok() && !content.buckets.empty())
        bucket_ = content.buckets.front().name;
      return outcome;
    }
    Get_Bucket_Content content;
    Listing_Reader reader(content);
    return transport.ask(Request{"GET", bucket_, "", {{"max-keys", "1"}}, {}, false, {}}, reader);
  };
  if (may_be_signature(first.error)) {
    const std::shared_ptr<Endpoint> other =
        client([&](S3_Service_Options& service, Settings&) { service.sign_method = v2 ? "v4" : "v2"; });
    if (other && ask(*other).ok()) {
      // AccessDenied alone does not tell: the same keys may be good for the bucket by either method.
      const std::shared_ptr<Endpoint> same =
          first.error.code() == "AccessDenied" && !bucket_.empty() ? client() : nullptr;
      if (!same || !ask(*same).ok()) {
        add("credentials", Check::PASSED, "", tried, std::string("taken when signed by ") + (v2 ? "v4" : "v2"));
        add("signature", Check::FAILED, v2 ? "signature.v4-only" : "signature.v2-only", std::string("sign by ") + mine,
            where(first));
        service_.sign_method = v2 ? "v4" : "v2";
        return true;
      }
    }
  }
  const bool redirected = first.error.status() >= 300 && first.error.status() < 400;
  if (redirected || fault == "region.wrong") {
    add("region", Check::FAILED, fault, tried, where(first));
    return false;
  }
  if (fault == "clock.refused") {
    diagnosis_.checks.pop_back();
    add("clock", Check::FAILED, fault, tried, where(first));
    return false;
  }
  denied_ =
      fault == "credentials.denied" || first.error.number() == ENOTSUP || first.error.code() == "MethodNotAllowed";
  if (denied_ && !bucket_.empty()) {
    add("credentials", Check::NOTED, "credentials.no-list", tried, where(first));
    add("signature", Check::PASSED, "", std::string("sign by ") + mine, "not complained about");
    return true;
  }
  add("credentials", Check::FAILED, fault == "http.failed" ? "signature.refused" : fault, tried, where(first));
  return false;
}

/// Addressing and region, at the first bucket.
void Diagnoser::at_bucket() {
  if (bucket_.empty()) {
    for (const char* name : {"addressing", "region", "listing", "paging", "encoding", "range", "if-match"})
      add(name, Check::SKIPPED, "", "", "the account has no bucket to look at: name one with --bucket");
    return;
  }
  const bool asked = options_.settings.addressing != Settings::ADDRESSING_AUTO;
  const bool by_host = settings_.addressing == Settings::ADDRESSING_VIRTUAL ||
                       (settings_.addressing == Settings::ADDRESSING_AUTO && !needs_path_style(service_.host));
  const auto ask = [&](bool virtual_host, Address& learned, bool& asked_at_all) {
    const std::shared_ptr<Endpoint> endpoint = client([&](S3_Service_Options&, Settings& settings) {
      settings.addressing = virtual_host ? Settings::ADDRESSING_VIRTUAL : Settings::ADDRESSING_PATH;
    });
    asked_at_all = endpoint != nullptr;
    if (!endpoint)
      return Outcome();
    Transport transport(endpoint);
    Get_Bucket_Content content;
    Listing_Reader reader(content);
    Request request{"GET", bucket_, "", {{"max-keys", "1"}}, {}, false, {}};
    Outcome outcome = transport.ask(request, reader);
    if (outcome.error.number() == ENOTSUP) {
      // Listings of version 1 may be what is not served.
      request.query.emplace_back("list-type", "2");
      Listing_Reader again(content);
      outcome = transport.ask(request, again);
    }
    learned = endpoint->address(bucket_);
    return outcome;
  };
  const auto named = [](bool virtual_host) { return virtual_host ? "virtual" : "path"; };
  Address learned;
  bool sent = false;
  Outcome outcome = ask(by_host, learned, sent);
  if (!sent)
    return;
  const std::string tried = std::string("list bucket ") + bucket_ + ", " + named(by_host) + " style";
  bool works_by_host = by_host;
  if (!outcome.ok() && outcome.error.code() != "NoSuchBucket") {
    Address other_learned;
    const Outcome other = ask(!by_host, other_learned, sent);
    if (sent && other.ok()) {
      works_by_host = !by_host;
      add("addressing", asked ? Check::FAILED : Check::NOTED,
          works_by_host ? "addressing.virtual-only" : "addressing.path-only", tried,
          where(outcome) + "; " + named(works_by_host) + " style works");
      outcome = other;
      learned = other_learned;
    }
  }
  if (outcome.ok()) {
    settings_.addressing = works_by_host ? Settings::ADDRESSING_VIRTUAL : Settings::ADDRESSING_PATH;
    if (!asked)
      diagnosis_.addressing = named(works_by_host);
    if (works_by_host == by_host)
      add("addressing", Check::PASSED, "", tried, "the bucket answers");
    const std::string mine = service_.region.empty() ? signing_region(Address()) : service_.region;
    const bool same = signing_region(learned) == mine && learned.host == service_.host;
    add("region", same ? Check::PASSED : Check::NOTED, same ? "" : "region.other", "sign for region " + mine,
        same ? "taken" : "the bucket lies in " + signing_region(learned) + ", at " + learned.host);
    if (!same)
      service_.region = learned.region;
    return;
  }
  const std::string fault = fault_of(outcome);
  if (fault == "region.wrong" || fault.compare(0, 9, "redirect.") == 0) {
    add("region", Check::FAILED, fault, tried, where(outcome));
  } else if (fault == "credentials.denied") {
    if (denied_) {
      // Neither the account nor the bucket: the keys are good for nothing here.
      for (Check& check : diagnosis_.checks)
        if (check.name == "credentials") {
          check.state = Check::FAILED;
          check.fault = fault;
          check.advice = advice_for(fault);
        }
    }
    add("addressing", Check::FAILED, "bucket.denied", tried, where(outcome));
  } else if (fault == "bucket.missing" || fault.compare(0, 5, "http.") != 0 || fault != "http.failed") {
    add("addressing", Check::FAILED, fault, tried, where(outcome));
  } else {
    add("addressing", Check::FAILED, "addressing.failed", tried, where(outcome));
  }
  bucket_.clear();
}

Outcome Diagnoser::ask_listing(Endpoint& endpoint, const Get_Bucket_Parameter& param, bool v2, bool encoded,
                               Listing_Reader& reader) {
  Request request{"GET", bucket_, "", {}, {}, false, {}};
  if (v2)
    request.query.emplace_back("list-type", "2");
  request.query.emplace_back("max-keys", std::to_string(param.max_keys()));
  if (!param.marker().empty())
    request.query.emplace_back(v2 ? "start-after" : "marker", param.marker());
  if (encoded)
    request.query.emplace_back("encoding-type", "url");
  if (v2)
    reader.version_2(false);
  Transport transport(endpoint.shared_from_this());
  return transport.ask(request, reader);
}

/// Which list versions are served. True when there is one to go on with.
bool Diagnoser::list() {
  if (bucket_.empty())
    return false;
  const bool asked = options_.settings.list_version != Settings::LIST_AUTO;
  const bool first_v2 = settings_.list_version == Settings::LIST_V2;
  Get_Bucket_Parameter param;
  param.max_keys(SAMPLE);
  Outcome outcomes[2];
  bool counts = false;
  for (const bool v2 : {first_v2, !first_v2}) {
    const std::shared_ptr<Endpoint> endpoint = client();
    if (!endpoint)
      return false;
    Get_Bucket_Content content;
    Listing_Reader reader(content);
    outcomes[v2] = ask_listing(*endpoint, param, v2, false, reader);
    // A key with a control character breaks the page, which is the encoding's matter.
    if (outcomes[v2].error.code() == "MalformedAnswer") {
      Listing_Reader mending(content);
      mending.mend();
      outcomes[v2] = ask_listing(*endpoint, param, v2, false, mending);
      counts = v2 ? mending.counts_keys() : counts;
    } else {
      counts = v2 ? reader.counts_keys() : counts;
    }
    if (outcomes[v2].ok() && v2 == first_v2)
      sample_ = content;
    else if (outcomes[v2].ok() && !outcomes[first_v2].ok())
      sample_ = content;
  }
  const bool ignored = outcomes[true].ok() && !counts;
  const bool works[2] = {outcomes[false].ok(), outcomes[true].ok() && !ignored};
  const std::string tried = "list by version 1 and version 2";
  if (!works[0] && !works[1]) {
    const std::string fault = fault_of(outcomes[first_v2]);
    add("listing", Check::FAILED, fault == "http.failed" ? "listing.failed" : fault, tried, where(outcomes[first_v2]));
    return false;
  }
  list_v2_ = works[first_v2] ? first_v2 : !first_v2;
  if (!asked)
    diagnosis_.list_version = list_v2_ ? "2" : "1";
  const std::string fault = works[0] && works[1] ? ""
                            : works[1]           ? "listing.v2-only"
                            : ignored            ? "listing.v2-ignored"
                                                 : "listing.v1-only";
  const bool failed = asked && !works[first_v2];
  Check& check = add("listing",
                     failed          ? Check::FAILED
                     : fault.empty() ? Check::PASSED
                                     : Check::NOTED,
                     fault, tried,
                     fault.empty() ? "both are served"
                     : ignored     ? "a listing of version 2 is answered as one of version 1"
                                   : where(outcomes[works[0]]));
  if (!failed && !fault.empty())
    check.advice = "nothing: version " + std::string(list_v2_ ? "2" : "1") + " is used";
  settings_.list_version = list_v2_ ? Settings::LIST_V2 : Settings::LIST_V1;
  return true;
}

/// Two pages of one key each.
void Diagnoser::page() {
  const std::string tried = "list two pages of one key";
  const std::shared_ptr<Endpoint> endpoint = client();
  if (!endpoint)
    return;
  Get_Bucket_Parameter param;
  param.max_keys(1);
  Get_Bucket_Content content;
  Listing_Reader first(content);
  Outcome outcome = ask_listing(*endpoint, param, list_v2_, true, first);
  if (outcome.error.number() == EINVAL || outcome.error.number() == ENOTSUP) {
    Listing_Reader plain(content);
    outcome = ask_listing(*endpoint, param, list_v2_, false, plain);
  }
  const auto keys = [](const Get_Bucket_Content& page) { return page.objects.size() + page.common_prefixes.size(); };
  const auto failed = [&](const std::string& fault, const std::string& found) {
    add("paging", Check::FAILED, fault, tried, found);
  };
  if (!outcome.ok())
    return failed(fault_of(outcome), where(outcome));
  if (keys(content) > 1) {
    add("paging", Check::NOTED, "paging.no-limit", tried, "a page of one key has " + std::to_string(keys(content)));
    return;
  }
  const bool truncated = content.truncated;
  if (!first.complete(param))
    return failed("paging.does-not-advance", "the first page leads nowhere");
  if (!truncated) {
    add("paging", Check::SKIPPED, "", tried, "the bucket has not enough keys");
    return;
  }
  const std::string last = content.objects.empty() ? content.next_marker : content.objects.back().name;
  param.marker(content.next_marker.c_str());
  Get_Bucket_Content next;
  Listing_Reader second(next);
  outcome = ask_listing(*endpoint, param, list_v2_, false, second);
  if (!outcome.ok() && outcome.error.code() != "MalformedAnswer")
    return failed(fault_of(outcome), where(outcome));
  if (outcome.ok() && !next.objects.empty() && next.objects.front().name <= last)
    return failed("paging.does-not-advance",
                  "the second page begins with '" + shown(next.objects.front().name) + "' again");
  add("paging", Check::PASSED, "", tried, "the second page goes on behind the first");
}

/// What the service makes of encoding-type=url.
void Diagnoser::encode() {
  const std::string tried = "list with encoded keys";
  const bool asked = options_.settings.url_encoding != Settings::ENCODING_AUTO;
  const std::shared_ptr<Endpoint> endpoint = client();
  if (!endpoint)
    return;
  Get_Bucket_Parameter param;
  param.max_keys(SAMPLE);
  Get_Bucket_Content content;
  Listing_Reader reader(content);
  const Outcome outcome = ask_listing(*endpoint, param, list_v2_, true, reader);
  const auto settle = [&](bool on, const char* fault, const std::string& found) {
    const bool wrong = asked && on != (options_.settings.url_encoding == Settings::ENCODING_ON);
    if (!asked)
      diagnosis_.url_encoding = on ? "on" : "off";
    add("encoding", *fault ? (wrong && !on ? Check::FAILED : Check::NOTED) : Check::PASSED, fault, tried, found);
  };
  if (!outcome.ok())
    return outcome.error.status() >= 400 ? settle(false, "encoding.refused", where(outcome))
                                         : settle(false, "encoding.ignored", where(outcome));
  if (reader.says_encoded())
    return settle(true, "", "the page says that its keys are encoded");
  // Nothing is said: keys that come in another shape than without asking are encoded all the same.
  for (size_t i = 0; i < content.objects.size() && i < sample_.objects.size(); ++i) {
    std::string decoded;
    if (content.objects[i].name != sample_.objects[i].name && percent_decode(content.objects[i].name, true, decoded) &&
        decoded == sample_.objects[i].name)
      return settle(true, "encoding.unsaid", "keys come encoded, but the page does not say so");
  }
  settle(false, "encoding.ignored", "the page does not say that its keys are encoded");
}

/// Reads the first byte of an object, then with a condition that does not hold.
void Diagnoser::read() {
  const S3_Object* object = nullptr;
  for (const S3_Object& one : sample_.objects)
    if (!object && one.size > 1 && one.storage_class != "GLACIER" && one.storage_class != "DEEP_ARCHIVE")
      object = &one;
  if (!object) {
    for (const char* name : {"range", "if-match"})
      add(name, Check::SKIPPED, "", "", "no object of more than a byte was found to read from");
    return;
  }
  const std::shared_ptr<Endpoint> endpoint = client();
  if (!endpoint)
    return;
  Transport transport(endpoint);
  Request request{"GET", bucket_, object->name, {}, {{"range", "bytes=0-0"}}, false, {}};
  const auto ask = [&](Outcome& outcome) {
    const Curl_Connection_ref connection = transport.open(request, outcome);
    if (connection && outcome.ok())
      connection->refuse(1);
  };
  Outcome outcome;
  ask(outcome);
  const std::string tried = "read the first byte of '" + shown(object->name) + "'";
  if (!outcome.ok()) {
    if (outcome.error.code() == "InvalidObjectState") {
      for (const char* name : {"range", "if-match"})
        add(name, Check::SKIPPED, "", tried, "the object is archived");
      return;
    }
    const bool denied = outcome.error.number() == EACCES;
    const std::string fault = fault_of(outcome);
    add("range", Check::FAILED,
        denied                   ? "credentials.no-read"
        : fault == "http.failed" ? "range.failed"
                                 : fault,
        tried, where(outcome));
    return;
  }
  const bool ranged = outcome.head.status == 206 && outcome.head.value("content-length") == "1";
  add("range", ranged ? Check::PASSED : Check::NOTED, ranged ? "" : "range.ignored", tried,
      ranged ? "that byte came" : "the whole object came (HTTP " + std::to_string(outcome.head.status) + ")");
  if (left() < LEAST) {
    no_time_ = true;
    return;
  }
  request.headers.emplace_back("if-match", "\"00000000000000000000000000000000\"");
  ask(outcome);
  const bool heeded = outcome.error.status() == 412;
  const std::string condition = tried + " if its ETag is another one";
  if (heeded)
    add("if-match", Check::PASSED, "", condition, "refused (HTTP 412)");
  else if (outcome.ok())
    add("if-match", Check::NOTED, "if-match.ignored", condition, "it came all the same");
  else
    add("if-match", Check::NOTED, "if-match.ignored", condition, where(outcome));
}

} // namespace

Diagnosis diagnose(const Diagnosis_Options& options) {
  return Diagnoser(options).run();
}

} // namespace s3
