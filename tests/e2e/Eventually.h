#pragma once

#include <functional>

/// Waits until something that another process does has happened. The limit is for failing tests
/// only; false when it passes.
bool eventually(const std::function<bool()>& condition);
