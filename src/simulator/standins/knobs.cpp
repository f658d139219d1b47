// The stand-ins' knobs file: how the simulated services behave.
#include "simulator/standins/knobs.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "base/json_util.h"
#include "base/platform.h"

namespace standin {

namespace {

std::mutex gKnobMutex;

std::string knobFile() {
    return platformPath("/etc/standin/knobs.json");
}

}  // namespace

std::string knob(const char* name, const char* fallback) {
    std::lock_guard<std::mutex> lock(gKnobMutex);
    JsonPtr all(json_object_from_file(knobFile().c_str()));
    json_object* v = nullptr;
    if (!all || !json_object_object_get_ex(all.get(), name, &v))
        return fallback;
    return json_object_get_string(v);
}

long knobNumber(const char* name, long fallback) {
    std::string v = knob(name, "");
    char* end = nullptr;
    long n = strtol(v.c_str(), &end, 10);
    return v.empty() || *end ? fallback : n;
}

bool setKnob(const std::string& name, const std::string& value) {
    std::lock_guard<std::mutex> lock(gKnobMutex);
    std::string file = knobFile();
    JsonPtr all(json_object_from_file(file.c_str()));
    if (!all || !json_object_is_type(all.get(), json_type_object))
        all.reset(json_object_new_object());
    if (value.empty())
        json_object_object_del(all.get(), name.c_str());
    else
        json_object_object_add(all.get(), name.c_str(), json_object_new_string(value.c_str()));
    if (!platformMakeDirs(file.substr(0, file.rfind('/'))))
        return false;
    std::string tmp = file + ".tmp";
    if (json_object_to_file_ext(tmp.c_str(), all.get(), JSON_C_TO_STRING_PRETTY) != 0)
        return false;
    return rename(tmp.c_str(), file.c_str()) == 0;
}

}  // namespace standin
