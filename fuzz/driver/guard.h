#pragma once

#include <string>
#include <string_view>

/// Keeps the input that is being run for the moment in which the program dies, and watches the clock meanwhile. For
/// the driver's thread; the process's own handlers and one watching thread belong to it.
namespace guard {

/// Findings go to `folder` as NAME-KIND-HASH.
void start(const std::string& folder, const std::string& name, unsigned seconds_per_input);
/// Around the run of one input, whose bytes outlive it.
void enter(std::string_view input);
void leave();
/// Looks for memory that nothing points to any more, when the last run may have left some. A leak ends the program.
void check_leaks();

} // namespace guard
