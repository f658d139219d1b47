// whttpctl: parsing of the command line.
#include "args.h"

#include <cstring>

namespace whttpctl {

namespace {

struct KnownOption {
    const char* name;
    bool takesValue;
    const char* commands;  // the commands that take it, space-separated; "" for all
};

const KnownOption kOptions[] = {
    {"--url", true, ""},
    {"--insecure", false, ""},
    {"--cacert", true, ""},
    {"--compact", false, ""},
    {"--timeout", true, ""},
    {"--help", false, ""},
    {"--subtree", false, "get schema"},
    {"--device", true, "mesh-reboot mesh-reset"},
    {"--new-user", true, "passwd"},
    {"--port", true, "discover"},
    {"--wait", true, "discover"},
};

const KnownOption* findOption(const std::string& name) {
    for (const KnownOption& o : kOptions) {
        if (name == o.name)
            return &o;
    }
    return nullptr;
}

bool allowedFor(const KnownOption& o, const std::string& command) {
    if (!*o.commands)
        return true;
    std::string list = std::string(" ") + o.commands + " ";
    return list.find(" " + command + " ") != std::string::npos;
}

}  // namespace

bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error) {
    std::vector<std::string> words;
    bool optionsEnd = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (optionsEnd || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            words.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnd = true;
            continue;
        }
        size_t eq = arg.find('=');
        std::string name = arg.substr(0, eq);
        const KnownOption* option = findOption(name);
        if (!option) {
            error = "unknown option " + name;
            return false;
        }
        std::string value;
        if (option->takesValue && eq != std::string::npos) {
            value = arg.substr(eq + 1);
        } else if (option->takesValue && i + 1 < argc) {
            value = argv[++i];
        } else if (option->takesValue || eq != std::string::npos) {
            error = option->takesValue ? name + " needs a value" : name + " takes no value";
            return false;
        }
        line.options[name] = value;
    }
    if (!words.empty()) {
        line.command = words.front();
        line.operands.assign(words.begin() + 1, words.end());
    }
    for (const auto& [name, value] : line.options) {
        if (!allowedFor(*findOption(name), line.command)) {
            error = name + " is not an option of " +
                    (line.command.empty() ? std::string("this command") : line.command);
            return false;
        }
    }
    return true;
}

}  // namespace whttpctl
