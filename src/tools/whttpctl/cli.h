// What every part of whttpctl shares: exit statuses, the parsed command
// line, and the context a command runs in.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace whttpctl {

// Exit statuses, distinct per class of failure so that scripts can tell a
// refusal by the device from a device they could not reach.
enum Exit {
    kOk = 0,
    kFailed = 1,   // the device answered and the operation failed
    kUsage = 2,    // bad command line or bad input (path, JSON, file)
    kNetwork = 3,  // no answer: connection, TLS, time-out
    kState = 4,    // the state file is refused or unusable
    kBusy = 5,     // another run kept the session's lock too long
};

// The command line after parsing: the command, its operands and every
// option given (flags map to "").
struct CommandLine {
    std::string command;
    std::vector<std::string> operands;
    std::map<std::string, std::string> options;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string option(const std::string& name, const std::string& fallback = "") const {
        auto it = options.find(name);
        return it == options.end() ? fallback : it->second;
    }
};

class Transport;
class StateFile;

struct Context {
    CommandLine line;
    std::string url;  // https://HOST:PORT, without a trailing slash
    bool compact = false;
    long timeoutMs = 0;  // 0: each request's own bound
    Transport* http = nullptr;
    StateFile* state = nullptr;
};

}  // namespace whttpctl
