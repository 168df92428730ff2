// zarvent: no arguments; runs until SIGTERM or SIGINT asks it to stop, then
// ends its threads, closes what it holds and exits with 0 (1 when another
// instance already runs). Under systemd it reads NOTIFY_SOCKET and
// WATCHDOG_USEC.
#include "daemon/daemon.h"
#include "platform/platform_linux.h"

int main()
{
    zarvent::LinuxPlatform platform;
    zarvent::Daemon daemon(platform);
    return daemon.run();
}
