// The store's registry of what the layers above it attach (hooks.h).
#include "simulator/store/hooks.h"

namespace wcfg {

namespace {
StoreHooks gHooks;
}

void storeSetHooks(const StoreHooks& hooks) {
    gHooks = hooks;
}

const StoreHooks& storeHooks() {
    return gHooks;
}

ApplyHook applyHookOf(const wdm::Object& o) {
    return gHooks.applyHookFor ? gHooks.applyHookFor(o) : nullptr;
}

RefreshHook refreshHookOf(const wdm::Object& o) {
    return gHooks.refreshHookFor ? gHooks.refreshHookFor(o) : nullptr;
}

int sendRequest(uint32_t type, const char* payload) {
    return gHooks.request ? gHooks.request(type, payload) : WCFG_REQUEST_REJECT;
}

}  // namespace wcfg
