#include "supervision/factory.h"

#include "hardware/board_map.h"
#include "hardware/gpio.h"
#include "hardware/runner.h"
#include "platform/platform.h"

namespace zarvent {

bool FactoryDefault::restoreOnPress()
{
    // Only a line that reads 0 is a press. A line that cannot be read is not:
    // taken as pressed, it would overwrite the configuration and its backups
    // every pass.
    if (gpio_.readLevel(pin::kFactoryButton) != 0)
        return false;
    gpio_.echoLevel(pin::kFactoryIndicator, 1);
    for (const char *line :
         {"ifconfig eth0 192.168.2.100 netmask 255.255.255.0", "cd /etc",
          "mv -f /etc/ntp.conf /etc/ntp.conf.bak", "cp /usr/bin/Zarvent/defcnfg /etc/ntp.conf",
          "mv -f /etc/resolv.conf /etc/resolv.conf.bak",
          "cp /usr/bin/Zarvent/resolv.conf /etc/resolv.conf", "cd /etc/network",
          "mv -f /etc/network/interfaces /etc/network/interfaces.bak",
          "cp /usr/bin/Zarvent/interfaces /etc/network/interfaces"})
        runner_.run(line, PipeMode::Read);
    platform_.sleepSeconds(1);
    gpio_.echoLevel(pin::kFactoryIndicator, 0);
    return true;
}

} // namespace zarvent
