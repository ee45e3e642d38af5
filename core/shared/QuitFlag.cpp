#include "core/shared/QuitFlag.h"

std::atomic<bool> g_quit = false;
