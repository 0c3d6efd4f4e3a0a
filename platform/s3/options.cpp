#include "platform/s3/ledger.h"
#include "sdk/job/job.h"
#include "sdk/s3/s3_types.h"

namespace {

std::shared_ptr<S3_Ledger> current_ledger() {
  Job* job = Job::current();
  return job ? job->ledger() : nullptr;
}

int current_max_retry_seconds() {
  Job* job = Job::current();
  return job ? job->ledger()->max_retry_seconds.load() : 0;
}

} // namespace

S3_Client_Options::S3_Client_Options() : ledger(current_ledger()) {}

S3_Client_Options::S3_Client_Options(const std::string& access_key, const std::string& secret_key,
                                     int max_retry_seconds)
    : access_key(access_key), secret_key(secret_key), max_retry_seconds(max_retry_seconds), ledger(current_ledger()) {}

S3_Client_Options::~S3_Client_Options() = default;

S3_Service_Options::S3_Service_Options() : max_retry_seconds(current_max_retry_seconds()), ledger(current_ledger()) {}

S3_Service_Options::~S3_Service_Options() = default;
