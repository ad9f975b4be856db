// The configurable interfaces of macOS, as the configuration framework lists
// them, each with the interfaces it is layered on.
#include "netcore/sysconfig/darwin/system_configuration.h"
#include "netcore/sysconfig/network_interface_list.h"

namespace netvane {
namespace {

class SystemInterfaceList final : public NetworkInterfaceList {
public:
    std::optional<std::vector<NetworkInterface>> copyAll() override {
        @autoreleasepool {
            id all = CFBridgingRelease(SCNetworkInterfaceCopyAll());
            if (![all isKindOfClass:[NSArray class]]) return std::nullopt;
            std::vector<NetworkInterface> interfaces;
            interfaces.reserve([(NSArray*)all count]);
            for (id element in (NSArray*)all) {
                if (CFGetTypeID((__bridge CFTypeRef)element) != SCNetworkInterfaceGetTypeID()) continue;
                interfaces.push_back(sc::describe((__bridge SCNetworkInterfaceRef)element));
            }
            return interfaces;
        }
    }
};

}  // namespace

NetworkInterfaceList& systemNetworkInterfaces() {
    static SystemInterfaceList list;
    return list;
}

}  // namespace netvane
