#pragma once

#include <string>

/// The folder in which the program keeps what outlives it; empty while none is set. Agents that share it exclude each
/// other by lock files in it. Set once, before jobs run; read from any thread.
void set_state_folder(const std::string& path);
std::string state_folder();
