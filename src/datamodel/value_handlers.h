// REST handlers of the data model: TR181/Value/ (GET, PUT, POST, DELETE),
// TR181/SupportedDM/ and APPUICustomization.
#pragma once

#include <json-c/json.h>

#include <cstdint>

#include "http/cg_http.h"

int wHttpTR181ValueHandle(CgHttpRequest* request, uint8_t chunked, int spare);
int wHttpTR181ValueGetHandle(CgHttpRequest* request, uint8_t chunked);
int wHttpTR181ValueSetHandle(CgHttpRequest* request, uint8_t chunked);
int wHttpTR181ValueAddHandle(CgHttpRequest* request, uint8_t chunked);
int wHttpTR181ValueDelHandle(CgHttpRequest* request, uint8_t chunked);

int wHttpTR181SupportedDMHandle(CgHttpRequest* request, uint8_t chunked, int spare);
int wHttpAPPUICustomization(CgHttpRequest* request, uint8_t chunked, int spare);
