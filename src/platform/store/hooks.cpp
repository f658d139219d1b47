// The store's registry of what the layers above it attach (hooks.h).
#include "platform/store/hooks.h"

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

}  // namespace wcfg

int wcfgFeReqSend(uint32_t type, const char* payload) {
    const wcfg::StoreHooks& h = wcfg::storeHooks();
    return h.request ? h.request(type, payload) : WCFG_REQUEST_REJECT;
}
