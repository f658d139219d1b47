// The device of a daemon built without the simulator and without a device
// library of its own: the embedded device, no stand-in attached.
#include "device/device.h"
#include "simulator/device/embedded_device.h"

void installDevice() {
    embedded::install();
}
