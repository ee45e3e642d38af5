#pragma once

#include <atomic>

/// Set by the quit command and by signals; whoever loops ends at its next look.
extern std::atomic<bool> g_quit;
