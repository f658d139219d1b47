// Device actions (reboot, mesh reboot, mesh reset) and the online firmware
// upgrade (check, upgrade).
#include "api.h"
#include "commands.h"
#include "output.h"
#include "transport.h"

namespace whttpctl {

namespace {

// The device's own download of the image has its own bounds; this one only
// makes sure that the tool ends even when the device never answers.
constexpr long kUpgradeMs = 15 * 60 * 1000;

const char* kUpgradeObject = "Device.X_OLVEX_PeriodicOnlineFWUpgrade.";

// A device action: the device answers "Success" and then acts.  `--device`
// names one mesh member ("controller": this device only).
int action(Context& ctx, const std::string& uri) {
    std::string target = uri;
    if (ctx.line.has("--device")) {
        std::string id = ctx.line.option("--device");
        if (id.empty())
            return fail(kUsage, "--device needs a device name");
        target += "?device=" + ctx.http->escape(id);
    }
    Answer answer;
    if (int rc = sendCall(ctx, writeCall("POST", target, ""), answer))
        return rc;
    return report(ctx, answer);
}

// Asks the device to ask the cloud; on success shows what it found (the
// firmware upgrade object: NewFWAvailable, ReleaseDate, LastFWUpdateStatus).
int fotaCheck(Context& ctx) {
    Answer answer;
    if (int rc = sendCall(ctx, readCall("FOTA"), answer))
        return rc;
    if (int rc = judge(answer))
        return rc;
    Answer found;
    if (int rc = sendCall(ctx, readCall(std::string("TR181/Value/") + kUpgradeObject), found))
        return rc;
    return report(ctx, found);
}

// The device answers once its download has ended (and then unpacks, checks
// and writes the image on its own): the wait is the download, shown as a bar
// on a terminal.  Its answer renews no session key, so the other runs need
// not wait for it: the lock goes once the key is read.
int fotaUpgrade(Context& ctx) {
    Call call = writeCall("POST", "FOTA?action=online");
    call.totalMs = kUpgradeMs;
    call.progress = true;
    call.holdLock = false;
    Answer answer;
    if (int rc = sendCall(ctx, call, answer))
        return rc;
    return report(ctx, answer);
}

}  // namespace

int cmdReboot(Context& ctx) {
    return action(ctx, "Reboot");
}

int cmdMeshReboot(Context& ctx) {
    return action(ctx, "MeshReboot");
}

int cmdMeshReset(Context& ctx) {
    return action(ctx, "MeshResetAllSetting");
}

int cmdFota(Context& ctx) {
    const std::string& what = ctx.line.operands[0];
    if (what == "check")
        return fotaCheck(ctx);
    if (what == "upgrade")
        return fotaUpgrade(ctx);
    return fail(kUsage, "fota: check or upgrade, not " + what);
}

}  // namespace whttpctl
