// Output of whttpctl: JSON documents on standard output, one-line errors on
// standard error.
#pragma once

#include <json-c/json.h>

#include <string>

namespace whttpctl {

// `json` (valid UTF-8) with the characters that a terminal would act on
// written as \uXXXX escapes: still the same JSON document.
std::string terminalSafeJson(const std::string& json);
// `text` on one line, each control, reordering character or byte that is no
// UTF-8 replaced by '?'.
std::string terminalSafeLine(const std::string& text);

// Prints a document on standard output: indented, or on one line when
// `compact`.  Slashes stay unescaped so that URIs read as they are.
void printJson(json_object* doc, bool compact);

// Prints "whttpctl: MESSAGE" on standard error and returns `status`.
int fail(int status, const std::string& message);

}  // namespace whttpctl
