// macOS, until the system-configuration backend is built: the three
// configuration seams answer that the configuration cannot be reached, so the
// interface readings work and every configuration field stays empty. The
// backend's own files replace this one (netcore/CMakeLists.txt).
#include <cerrno>

#include "netcore/sysconfig/dynamic_store.h"
#include "netcore/sysconfig/network_interface_list.h"
#include "netcore/sysconfig/network_preferences.h"

namespace netvane {
namespace {

class UnavailablePreferences final : public NetworkPreferences {
public:
    Result<std::unique_ptr<NetworkPreferencesSession>> open(const std::string& /*clientName*/) override {
        return Error{kPosixErrorDomain, ENOTSUP,
                     "The network preferences cannot be reached: this build has no macOS configuration backend."};
    }
};

class UnavailableStores final : public DynamicStoreFactory {
public:
    std::unique_ptr<DynamicStore> create(const std::string& /*name*/, DynamicStore::Callback /*callback*/) override {
        return nullptr;
    }
};

class UnavailableInterfaces final : public NetworkInterfaceList {
public:
    std::optional<std::vector<NetworkInterface>> copyAll() override { return std::nullopt; }
};

}  // namespace

std::shared_ptr<NetworkPreferences> systemNetworkPreferences() { return std::make_shared<UnavailablePreferences>(); }

DynamicStoreFactory& systemDynamicStores() {
    static UnavailableStores stores;
    return stores;
}

NetworkInterfaceList& systemNetworkInterfaces() {
    static UnavailableInterfaces interfaces;
    return interfaces;
}

}  // namespace netvane
