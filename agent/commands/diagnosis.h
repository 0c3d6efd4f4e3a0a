#pragma once

#include "agent/context.h"

/// "account test": looks at the account step by step, asks the module whether it is available, keeps what the look
/// found out where the account's settings say "auto", and prints all of it.
void test_account(Context& context, const std::string& name);
