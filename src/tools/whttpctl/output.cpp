#include "output.h"

#include <cstdio>

namespace whttpctl {

void printJson(json_object* doc, bool compact) {
    int flags =
        JSON_C_TO_STRING_NOSLASHESCAPE |
        (compact ? JSON_C_TO_STRING_PLAIN : JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED);
    printf("%s\n", json_object_to_json_string_ext(doc, flags));
    fflush(stdout);
}

int fail(int status, const std::string& message) {
    // Control characters from a device's answer must not reach the terminal
    // as escape sequences, nor split the error over several lines.
    std::string line;
    for (unsigned char c : message)
        line += (c < 0x20 || c == 0x7f) ? '?' : static_cast<char>(c);
    fprintf(stderr, "whttpctl: %s\n", line.c_str());
    return status;
}

}  // namespace whttpctl
