// The command runner's calls (commands.h) and the POSIX runner a device
// uses unless it brings its own.
#include "device/commands.h"

#include "base/platform.h"
#include "device/device.h"

namespace device {
namespace {

class PosixCommands : public Commands {
  public:
    int shell(int flags, const char* cmd) override { return platformShell(flags, cmd); }
    int exec(int flags, const char* const argv[], long long maxFileBytes) override {
        return platformExec(flags, argv, maxFileBytes);
    }
};

}  // namespace

Commands& posixCommands() {
    static PosixCommands runner;
    return runner;
}

}  // namespace device

int wos_exec(int flags, const char* const argv[]) {
    return device::current().commands->exec(flags, argv, 0);
}

int wos_exec_limited(int flags, const char* const argv[], long long maxFileBytes) {
    return device::current().commands->exec(flags, argv, maxFileBytes);
}

int wos_formsys(int flags, const char* cmd) {
    return device::current().commands->shell(flags, cmd);
}
