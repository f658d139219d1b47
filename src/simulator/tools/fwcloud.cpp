// fwcloud: the stand-in cloud firmware service of the virtual router.
//
//   WHTTPD_ROOT=DIR fwcloud [--address A] [--port N] [--host H:P] [--cert-name N]...
//
// Serves the firmware check ("/check?") and the pre-signed image downloads
// over HTTPS; its answers are set with `wcfgctl knob cloud.…`.  It prints
// the server URL to store in Device.X_OLVEX_PeriodicOnlineFWUpgrade.ServerURL.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simulator/fwcloud/fw_cloud.h"
#include "simulator/fwcloud/fwcloud_server.h"
#include "base/platform.h"
#include "simulator/standins/standin.h"

namespace {

const char* const kUsage =
    "usage: fwcloud [--address ADDR] [--port PORT] [--host HOST:PORT] [--cert-name NAME]...\n"
    "  ADDR defaults to 127.0.0.1, PORT to 18443 (0: any free port); HOST:PORT\n"
    "  is how download URLs name this service (default ADDR:PORT).  The\n"
    "  certificate names localhost, 127.0.0.1, ::1, ADDR and HOST, or only the\n"
    "  names given with --cert-name.\n";

// The host part of HOST:PORT ("[v6]:PORT" too).
std::string hostPart(const std::string& hostPort) {
    if (!hostPort.empty() && hostPort[0] == '[')
        return hostPort.substr(1, hostPort.find(']') - 1);
    return hostPort.substr(0, hostPort.rfind(':'));
}

// The names the certificate gives when none were asked for: loopback, the
// listening address unless it is a wildcard, and the host of the URLs.
std::vector<std::string> defaultNames(const std::string& address, const std::string& host) {
    std::vector<std::string> names{"localhost", "127.0.0.1", "::1"};
    for (std::string n : {address, hostPart(host)}) {
        bool known = false;
        for (const std::string& have : names)
            known |= have == n;
        if (!n.empty() && n != "0.0.0.0" && n != "::" && !known)
            names.push_back(n);
    }
    return names;
}

}  // namespace

int main(int argc, char** argv) {
    std::string address = "127.0.0.1", host;
    std::vector<std::string> names;
    int port = 18443;
    for (int i = 1; i < argc; ++i) {
        std::string opt = argv[i];
        if (i + 1 >= argc) {
            fputs(kUsage, stderr);
            return 2;
        }
        if (opt == "--address")
            address = argv[++i];
        else if (opt == "--port")
            port = atoi(argv[++i]);
        else if (opt == "--host")
            host = argv[++i];
        else if (opt == "--cert-name")
            names.push_back(argv[++i]);
        else {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    platformInit();
    standin::install();
    if (names.empty())
        names = defaultNames(address, host);
    auto ready = [&](int bound) {
        std::string name = host.empty() ? address + ":" + std::to_string(bound) : host;
        std::string err;
        if (!fwcloud::init(name, err)) {
            fprintf(stderr, "fwcloud: %s\n", err.c_str());
            exit(1);
        }
        printf("fwcloud: serving https://%s/check?\n", name.c_str());
        fflush(stdout);
    };
    return fwcloud::serve(address, port, names, fwcloud::handle, ready);
}
