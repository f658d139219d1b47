// The unit tests run the platform as the virtual router does: the stand-in
// services attached to the store and the bus before any test starts.
#include "platform/standins/standin.h"

namespace {
[[maybe_unused]] const bool kInstalled = (standin::install(), true);
}
