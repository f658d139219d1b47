// The console (standard output) of the platform's programs.
#pragma once

#include <cstddef>

// Queues text for the console: a thread of its own writes it out, so that a
// request thread that prints pays a copy rather than a system call, and
// under load many lines go out in one write.  Text keeps its order, and all
// of it is out before the process exits.  A child of fork writes directly.
void consoleWrite(const char* text, size_t n);
