// whttpctl: command-line client of the device's REST API, for app developers
// and scripts.  It logs in, keeps the session (cookie and the session key
// that every write renews) in a private per-user state file, and prints the
// device's JSON answers.
#include <curl/curl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "state.h"
#include "transport.h"

namespace whttpctl {

namespace {

const char* kHelp =
    "usage: whttpctl [--url https://HOST:PORT] [--insecure | --cacert FILE] [--compact]\n"
    "                [--timeout SECONDS] COMMAND [ARGS]\n"
    "  login USER [PASSWORD]          open a session; without PASSWORD it is asked on the\n"
    "                                 terminal (or read as one line of standard input when\n"
    "                                 that is no terminal).  A PASSWORD operand is visible\n"
    "                                 to the other users of this machine (ps)\n"
    "  logout                         end it\n"
    "  passwd [--new-user NAME]       change the session user's password (and name)\n"
    "  get PATH [--subtree]           read an object (with everything below it)\n"
    "  set PATH JSON                  write parameters of an object\n"
    "  add PATH [JSON]                add an instance to a table\n"
    "  del PATH                       delete an instance\n"
    "  batch FILE                     write several objects at once (FILE - : stdin; 1 MiB)\n"
    "  schema PATH [--subtree]        what the device supports below PATH\n"
    "  methods                        the device's REST methods\n"
    "  reboot                         restart the device\n"
    "  mesh-reboot [--device ID]      restart the mesh, this device (controller) or one agent\n"
    "  mesh-reset [--device ID]       reset the settings of the mesh, likewise\n"
    "  fota check | fota upgrade      look for newer firmware; download and install it\n"
    "  watch [PATH...]                print the device's changes as they happen (below the\n"
    "                                 PATHs, ending in '.'), one JSON document per event;\n"
    "                                 a dropped connection resumes where it left off; ends\n"
    "                                 with status 0 when the session ends\n"
    "  discover [ADDRESS] [--port N] [--wait MS]\n"
    "                                 list the devices that answer the discovery datagram\n"
    "                                 (default: the LAN broadcast, port 263, 1000 ms); to\n"
    "                                 an ADDRESS that is no broadcast, only its answer counts\n"
    "--insecure accepts any certificate; --cacert FILE pins the device's certificate: the\n"
    "device must present it (or one signed by its key); its names are not checked.\n"
    "PATH begins with \"Device.\".  The URL is also taken from $WHTTPCTL_URL (default\n"
    "https://localhost:8443); the session is kept in $WHTTPCTL_STATE or\n"
    "$XDG_STATE_HOME/whttpctl/session (~/.local/state/whttpctl/session).\n"
    "Exit status: 0 done, 1 the operation failed, 2 bad input, 3 device not reached,\n"
    "4 state file refused, 5 session busy (another run held its lock for a minute).\n";

struct Command {
    const char* name;
    size_t minOperands, maxOperands;
    bool session;  // needs the state file
    int (*run)(Context&);
};

// Dispatch table: name, operand counts, whether the state file is needed.
const Command kCommands[] = {
    {"login", 1, 2, true, cmdLogin},
    {"logout", 0, 0, true, cmdLogout},
    {"passwd", 0, 0, true, cmdPasswd},
    {"get", 1, 1, true, cmdGet},
    {"set", 2, 2, true, cmdSet},
    {"add", 1, 2, true, cmdAdd},
    {"del", 1, 1, true, cmdDel},
    {"batch", 1, 1, true, cmdBatch},
    {"schema", 1, 1, true, cmdSchema},
    {"methods", 0, 0, true, cmdMethods},
    {"reboot", 0, 0, true, cmdReboot},
    {"mesh-reboot", 0, 0, true, cmdMeshReboot},
    {"mesh-reset", 0, 0, true, cmdMeshReset},
    {"fota", 1, 1, true, cmdFota},
    {"discover", 0, 1, false, cmdDiscover},
    {"watch", 0, 64, true, cmdWatch},
};

const Command* findCommand(const std::string& name) {
    for (const Command& c : kCommands) {
        if (name == c.name)
            return &c;
    }
    return nullptr;
}

// The device's base URL: https, a host and a port at most, nothing after.
int baseUrl(const CommandLine& line, std::string& url) {
    const char* env = getenv("WHTTPCTL_URL");
    url = line.option("--url", env && *env ? env : "https://localhost:8443");
    while (url.size() > 8 && url.back() == '/')
        url.pop_back();
    const std::string scheme = "https://";
    bool ok = url.rfind(scheme, 0) == 0 && url.size() > scheme.size();
    for (size_t i = scheme.size(); ok && i < url.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(url[i]);
        ok = c > 0x20 && c < 0x7f && !strchr("/?#@\\", c);
    }
    return ok ? kOk : fail(kUsage, "--url takes https://HOST[:PORT], not " + url);
}

int tlsChoice(const CommandLine& line, TlsChoice& tls) {
    tls.insecure = line.has("--insecure");
    tls.cacert = line.option("--cacert");
    if (tls.insecure && line.has("--cacert"))
        return fail(kUsage, "--insecure and --cacert exclude each other");
    if (line.has("--cacert") && access(tls.cacert.c_str(), R_OK) != 0)
        return fail(kUsage, "--cacert " + tls.cacert + ": " + strerror(errno));
    return kOk;
}

int timeoutOf(const CommandLine& line, long& ms) {
    if (!line.has("--timeout"))
        return kOk;
    std::string text = line.option("--timeout");
    char* end = nullptr;
    long s = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end || s < 1 || s > 86400)
        return fail(kUsage, "--timeout takes seconds from 1 to 86400");
    ms = s * 1000;
    return kOk;
}

// Checks the command line against the table.
int findRunnable(const CommandLine& line, const Command*& cmd) {
    cmd = findCommand(line.command);
    if (!cmd)
        return fail(kUsage, line.command.empty() ? "no command given (see --help)"
                                                 : "unknown command " + line.command);
    size_t n = line.operands.size();
    if (n < cmd->minOperands || n > cmd->maxOperands)
        return fail(kUsage, "wrong number of arguments for " + line.command + " (see --help)");
    return kOk;
}

int run(int argc, char** argv) {
    Context ctx;
    std::string error;
    if (!parseCommandLine(argc, argv, ctx.line, error))
        return fail(kUsage, error);
    if (ctx.line.has("--help") || ctx.line.command == "help") {
        fputs(kHelp, stdout);
        return kOk;
    }
    const Command* cmd = nullptr;
    TlsChoice tls;
    if (int rc = findRunnable(ctx.line, cmd); rc || (rc = baseUrl(ctx.line, ctx.url)) ||
                                              (rc = tlsChoice(ctx.line, tls)) ||
                                              (rc = timeoutOf(ctx.line, ctx.timeoutMs)))
        return rc;
    ctx.compact = ctx.line.has("--compact");
    StateFile state(StateFile::defaultPath());
    // Checked before anything is sent or asked; the lock is taken later,
    // only around the requests that use the session key.
    if (cmd->session && !state.read(error))
        return fail(kState, error);
    Transport http(ctx.url, tls);
    ctx.http = &http;
    ctx.state = &state;
    return cmd->run(ctx);
}

// libcurl's global state, set up before any handle and torn down after all.
struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
    ~CurlGlobal() { curl_global_cleanup(); }
};

}  // namespace

}  // namespace whttpctl

int main(int argc, char** argv) {
    whttpctl::CurlGlobal curl;
    return whttpctl::run(argc, argv);
}
