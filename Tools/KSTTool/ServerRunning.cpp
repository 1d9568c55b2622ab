#include "Tools/KSTTool/ServerRunning.h"

std::atomic<bool> gServerRunning = false;

bool isServerRunning() { return gServerRunning.load(std::memory_order_relaxed); }
