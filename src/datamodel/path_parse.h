// The data-model path of a value request, cut from its URI, and its body.
#pragma once

#include <json-c/json.h>

#include "http/cg_http.h"

// Cuts the TR-181 object path ("Device....", ending in ".") or the
// "MultiObjects" marker out of the request URI into `path` (256 bytes,
// zeroed by the caller).  `firstLevelOnly`, when given, becomes 1 unless the
// query has first_level_only=false.  0, or -18 when the URI names no object.
int wHttpParseTR181Path(CgHttpRequest* request, char* path, int* firstLevelOnly);
// The path extraction on a URI text (the query value as the request has it).
int wHttpParseTR181PathText(const char* uri, const char* firstLevelOnlyValue, char* path,
                            int* firstLevelOnly);
// Parses the body: 0 with the value in `*out` (the caller's), or -8.
int wHttpParseTR181Object(CgHttpRequest* request, json_object** out);
// The body check on texts: `contentLength` is the header's value or nullptr.
int wHttpParseTR181ObjectText(const char* contentLength, const char* body, json_object** out);
