// The installed device of this process (device.h).
#include "device/device.h"

#include <cstdio>
#include <cstdlib>

namespace device {
namespace {

Device gDevice;
bool gInstalled = false;

}  // namespace

void install(const Device& d) {
    gDevice = d;
    if (!gDevice.commands)
        gDevice.commands = &posixCommands();
    gInstalled = true;
}

const Device& current() {
    if (!gInstalled) {
        fprintf(stderr, "no device installed: the program must call installDevice() first\n");
        abort();
    }
    return gDevice;
}

}  // namespace device
