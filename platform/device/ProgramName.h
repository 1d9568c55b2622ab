#pragma once

/// The name under which this process was started: the last path component of its first argument.
/// Lives as long as the process. For C libraries that have no function of this name.
const char* getprogname();
