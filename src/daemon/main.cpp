// zarvent: no arguments, no environment; runs until SIGTERM or SIGINT asks it
// to stop, then ends its threads, closes what it holds and exits with 0.
#include "daemon/daemon.h"
#include "platform/platform_linux.h"

int main()
{
    zarvent::LinuxPlatform platform;
    zarvent::Daemon daemon(platform);
    daemon.run();
}
