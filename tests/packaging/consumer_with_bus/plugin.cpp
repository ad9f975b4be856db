// A plugin built from the installed archive: it reads the network
// configuration, which opens the system bus through NetCore.
#include "netcore/sysconfig/system_configuration_reader.h"

extern "C" int pluginInterfaceCount() {
    return static_cast<int>(netvane::SystemConfigurationReader::read().interfaces.size());
}
