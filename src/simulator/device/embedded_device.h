// The embedded device: the configuration service's SQLite store, its change
// journal, account editor and message bus, in this process, as the device
// interface (device.h) gives them to the daemon.
#pragma once

#include "device/device.h"

namespace embedded {

// The embedded device's parts (they live as long as the program).  Its
// command runner gives shell command lines a stand-in "kill" where the device
// root holds one, so that no real process is signalled.
device::Device device();

// Installs the embedded device with no stand-in attached: the store tells
// other processes of its changes on the bus, device requests are refused.
void install();

}  // namespace embedded
