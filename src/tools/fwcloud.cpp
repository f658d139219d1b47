// fwcloud: the stand-in cloud firmware service of the virtual router.
//
//   WHTTPD_ROOT=DIR fwcloud [--address A] [--port N] [--host H:P]
//
// Serves the firmware check ("/check?") and the pre-signed image downloads
// over HTTPS; its answers are set with `wcfgctl knob cloud.…`.  It prints
// the server URL to store in Device.X_OLVEX_PeriodicOnlineFWUpgrade.ServerURL.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/fwcloud/fw_cloud.h"
#include "platform/http/fwcloud_server.h"
#include "platform/platform.h"

namespace {

const char* const kUsage =
    "usage: fwcloud [--address ADDR] [--port PORT] [--host HOST:PORT]\n"
    "  ADDR defaults to 127.0.0.1, PORT to 18443 (0: any free port); HOST:PORT\n"
    "  is how download URLs name this service (default ADDR:PORT).\n";

}  // namespace

int main(int argc, char** argv) {
    std::string address = "127.0.0.1", host;
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
        else {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    platformInit();
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
    return fwcloud::serve(address, port, fwcloud::handle, ready);
}
