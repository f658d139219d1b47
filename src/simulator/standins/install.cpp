// Attaches the stand-in services to the embedded device's store and bus: the
// platform as the virtual router and the tests run it.
#include "device/device.h"
#include "simulator/bus/wcfg_msg.h"
#include "simulator/device/embedded_device.h"
#include "simulator/standins/apply_hooks.h"
#include "simulator/standins/standin.h"
#include "simulator/store/hooks.h"

namespace standin {

void install() {
    embedded::install();
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
