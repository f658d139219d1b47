// Knobs of the stand-ins: how the virtual router's simulated services behave
// (a WPS session's outcome, whether the internet answers a ping, ...).  They
// live in "/etc/standin/knobs.json" below the device root, one member per
// knob; `wcfgctl knob NAME [VALUE]` reads and sets them, tests too.
#pragma once

#include <string>

namespace standin {

// The knob's value as text, or `fallback` when it is not set.
std::string knob(const char* name, const char* fallback);
long knobNumber(const char* name, long fallback);
// Sets a knob (an empty value removes it); false when the file cannot be
// written.
bool setKnob(const std::string& name, const std::string& value);

}  // namespace standin
