#pragma once

#include <string>

/// Whether somebody sits at a terminal who can be asked.
bool can_prompt();
/// Asks a question on the terminal; true when the answer begins with "y" or "Y".
bool confirm(const std::string& question);
/// Asks for a secret on the terminal, without showing what is typed. Empty when nothing came. Throws Command_Error when
/// the terminal cannot be used.
std::string prompt_secret(const std::string& question);
