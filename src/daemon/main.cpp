// zarvent: no arguments, no environment; runs until it is killed.
#include "daemon/daemon.h"
#include "platform/platform_linux.h"

int main()
{
    zarvent::LinuxPlatform platform;
    zarvent::Daemon daemon(platform);
    daemon.run();
}
