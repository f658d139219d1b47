// The command line: global options, the command, its operands and options.
// Options may stand before or after the command; "--name=value" and
// "--name value" are both accepted, and "--" ends the options.
#pragma once

#include <string>

#include "cli.h"

namespace whttpctl {

// Parses argv; false with `error` set for an unknown option, an option of
// another command, or a missing option value.
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error);

}  // namespace whttpctl
