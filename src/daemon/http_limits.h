// The limits the daemon gives its HTTPS server: sized for a home router,
// adjustable for tests and for devices with more room through
// WHTTPD_HTTP_LIMITS ("name=value,..."; names as in kLimitNames).
#pragma once

#include <string>

#include "http/cg_http.h"
#include "events/event_hub.h"

// The HTTPS server's limits and those of its event streams.
struct WhttpdLimits {
    CgHttpLimits http;
    WHttpEventLimits events;
};

// The router's defaults with the environment's changes applied; also raises
// the process's descriptor limit to what the connection ceiling needs, or
// lowers the ceiling to what the system allows.
WhttpdLimits whttpdLimits();
// Applies "name=value,..." to `limits`; false (and `error` says which) when a
// name is unknown or a value is not a positive whole number.
bool whttpdApplyLimitText(const char* text, WhttpdLimits& limits, std::string& error);
