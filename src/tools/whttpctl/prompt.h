// Reading a password: from the terminal without echo, or as one line of
// standard input when that is not a terminal (scripts and tests).
#pragma once

#include <string>

namespace whttpctl {

// Reads one secret; false at end of input or on a read error.
bool readSecret(const std::string& prompt, std::string& secret);

}  // namespace whttpctl
