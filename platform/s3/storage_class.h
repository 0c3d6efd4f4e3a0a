#pragma once

#include <string>
#include <string_view>

namespace s3 {

/// True where an object of that class, as a listing of the service at `host` shows it, cannot be read before it was
/// thawed. Only for classes of which that is sure; of any other one the service's answer to the request decides.
bool needs_thaw(std::string_view storage_class, std::string_view host);

} // namespace s3
