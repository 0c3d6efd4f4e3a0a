#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

/// An object-storage account: the entry that jobs name by its uuid.
struct Account {
  std::string uuid;
  std::string name;     ///< unique
  std::string scheme;   ///< "http", "https"
  std::string endpoint; ///< host, optionally with ":port"
  std::string access_key;
  std::string secret_key; ///< cipher text of `seal_secret`, never the plain key
  std::string region;
  std::string vendor;
  std::string sign_method;              ///< "v4", "v2"; empty: the vendor's, else v4
  std::string addressing = "auto";      ///< "auto", "path", "virtual"
  std::string ca_file;                  ///< PEM; empty: the system's
  std::vector<std::string> buckets;     ///< the buckets that jobs may use; empty: all of the account
  std::string list_version = "auto";    ///< "auto", "1", "2"
  std::string url_encoding = "auto";    ///< of listings: "auto", "on", "off"
  std::string payload_signing = "auto"; ///< "auto" (where TLS does not cover the body), "on", "off"
  std::string client_cert;              ///< PEM; empty: none
  std::string client_key;               ///< PEM; empty: in the certificate's file
  std::string proxy;                    ///< URL; empty: none
  unsigned connect_timeout = 0;         ///< seconds; 0: the default
  unsigned idle_timeout = 0;            ///< seconds without a byte; 0: the default
  std::string user_agent;               ///< empty: none is sent
  // What a test of the account found out where a setting says "auto"; empty: not yet.
  std::string found_addressing;
  std::string found_list_version;
  std::string found_url_encoding;
};

/// A pool as the agent knows it.
struct Pool_Entry {
  std::string uuid;
  std::string name; ///< unique
  std::string url;  ///< "file:///DIR"
  bool encrypt = false;
};

/// What is backed up of an account. Its uuid is the minor resource id of the jobs.
struct Selection {
  std::string uuid;
  std::string account_uuid;
  std::string name;               ///< unique within the account
  std::vector<std::string> paths; ///< bytes; none: the whole account
  std::vector<std::string> exclusions;
  std::vector<std::string> inclusions;
};

/// A job definition that is kept.
struct Definition {
  std::string id;
  std::string uuid;
  std::string name;
  std::string json;
};

/// One run of a job.
struct Activity {
  std::string id;
  std::string definition_id; ///< may name a definition that is not kept
  std::string type;          ///< "backup", "restore"
  std::string state;         ///< "completed", "completed with errors", "cancelled", "failed"
  time_t start = 0;          ///< seconds since the epoch
  time_t end = 0;
  std::string outcome; ///< JSON; empty while it runs
};

/// A set in a pool.
struct Set {
  static constexpr const char* STATE_ONLINE = "online";
  static constexpr const char* STATE_GONE = "gone"; ///< its record is no longer in the pool

  std::string uuid;
  std::string pool_uuid;
  std::string account_uuid; ///< may name an account of another agent
  std::string minor_resource_id;
  std::string minor_resource_name;
  std::string name;
  unsigned seq = 0;
  unsigned channels = 0;
  std::string incarnation;
  std::vector<std::string> bases;
  std::string uri;        ///< folder inside the pool, "HOST/RESOURCE/ACTIVITY"
  std::string type;       ///< "full", "incremental"
  std::string start_time; ///< "%Y-%m-%d %H:%M:%S", UTC
  std::string end_time;
  unsigned long long source_size = 0; ///< bytes of the objects
  unsigned long long backup_set_size = 0;
  unsigned long long backup_set_storage_size = 0;
  unsigned long long objects = 0;
  std::optional<unsigned long long> missing; ///< as Set_Record::missing
  std::string state = STATE_ONLINE;
};

/// Splits "https://host:9000" into scheme and endpoint. Text without a scheme counts as https. False, with a message
/// for the operator, for anything but http and https, for a path behind the host and for what is no URI.
bool split_endpoint_url(const std::string& url, std::string& scheme, std::string& endpoint, std::string& error);
