// Output of whttpctl: JSON documents on standard output, one-line errors on
// standard error.
#pragma once

#include <json-c/json.h>

#include <string>

namespace whttpctl {

// Prints a document on standard output: indented, or on one line when
// `compact`.  Slashes stay unescaped so that URIs read as they are.
void printJson(json_object* doc, bool compact);

// Prints "whttpctl: MESSAGE" on standard error and returns `status`.
int fail(int status, const std::string& message);

}  // namespace whttpctl
