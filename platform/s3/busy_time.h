#pragma once

namespace s3 {

/// Seconds since its start that the calling thread has worked or, where the system says so, waited for a processor.
double busy_seconds();

} // namespace s3
