// Attaches the stand-in services to the store and the bus: the platform as
// the virtual router and the tests run it.
#include "platform/bus/wcfg_msg.h"
#include "platform/standins/apply_hooks.h"
#include "platform/standins/standin.h"
#include "platform/store/hooks.h"

namespace standin {

void install() {
    wcfg::StoreHooks hooks;
    hooks.applyHookFor = applyHookFor;
    hooks.refreshHookFor = refreshHookFor;
    hooks.changed = wcfg::notifyDataModelChanged;
    hooks.request = handleRequest;
    wcfg::storeSetHooks(hooks);
    wcfg_msg_setServerStartHook(startServices);
    wcfg_msg_setStandIn(WCFG_EID_WIFI, wifiServiceReply);
}

}  // namespace standin
