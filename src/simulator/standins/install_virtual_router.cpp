// The device of the virtual router: the embedded device with the stand-ins
// of the router's services attached.
#include "device/device.h"
#include "simulator/standins/standin.h"

void installDevice() {
    standin::install();
}
