#pragma once

#include <string>

/// Whether a pool's file may lie at `url`, whatever can be read of it: false only when there is certainly none, so that
/// nobody makes a pool over one that merely cannot be read. Any thread.
bool may_hold_pool(const std::string& url);
