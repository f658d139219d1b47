// Device actions: reboot, mesh reboot and mesh reset (POST or PUT with the
// session key, which the URI table checks; answered "Success" before the
// device acts).  The query's
// "device" names one mesh agent, "controller" this device; without it the
// whole mesh.
#pragma once

#include <cstdint>

#include "http/cg_http.h"

int wHttpRebootHandle(CgHttpRequest* request, uint8_t chunked, int spare);
int wHttpMeshRebootHandle(CgHttpRequest* request, uint8_t chunked, int spare);
int wHttpMeshResetAllSettingHandle(CgHttpRequest* request, uint8_t chunked, int spare);
