// Network preferences over the system's own preferences session: its lock,
// the current network set and its services, commit and apply.
//
// Each session is one preferences session. Its lock is the system's, which
// every writer of the network preferences takes, and lock() waits for it as
// long as the system makes it wait: only privileged writers can hold it.
#include "netcore/sysconfig/darwin/system_configuration.h"
#include "netcore/sysconfig/network_preferences.h"
#include "support/darwin/foundation_values.h"

namespace netvane {
namespace {

class SystemPreferencesSession final : public NetworkPreferencesSession {
public:
    explicit SystemPreferencesSession(id preferences) : preferences_(preferences) {}

    Status lock() override {
        if (!SCPreferencesLock(prefs(), true)) return sc::lastError("lock the network preferences");
        return {};
    }

    void unlock() override { (void)SCPreferencesUnlock(prefs()); }

    Result<bool> hasService(const std::string& serviceID) override {
        @autoreleasepool {
            return copyService(serviceID) != nil;
        }
    }

    std::optional<plist::Value> pathValue(const std::string& path) override {
        @autoreleasepool {
            // Owned by the session; copied out before the pool drains.
            CFDictionaryRef value = SCPreferencesPathGetValue(prefs(), (__bridge CFStringRef)toNSString(path));
            return fromFoundation((__bridge NSDictionary*)value);
        }
    }

    std::optional<std::vector<PreferencesService>> currentSetServices() override {
        @autoreleasepool {
            id set = currentSet();
            if (set == nil) return std::nullopt;
            id services = CFBridgingRelease(SCNetworkSetCopyServices((__bridge SCNetworkSetRef)set));
            if (![services isKindOfClass:[NSArray class]]) return std::nullopt;
            std::vector<PreferencesService> described;
            described.reserve([(NSArray*)services count]);
            for (id element in (NSArray*)services) {
                if (CFGetTypeID((__bridge CFTypeRef)element) != SCNetworkServiceGetTypeID()) continue;
                described.push_back(describeService((__bridge SCNetworkServiceRef)element));
            }
            return described;
        }
    }

    std::optional<std::vector<std::string>> currentSetServiceOrder() override {
        @autoreleasepool {
            id set = currentSet();
            if (set == nil) return std::nullopt;
            // Owned by the set.
            id order = (__bridge id)SCNetworkSetGetServiceOrder((__bridge SCNetworkSetRef)set);
            if (![order isKindOfClass:[NSArray class]]) return std::nullopt;
            std::vector<std::string> ids;
            for (id element in (NSArray*)order) {
                if (auto text = sc::string((__bridge CFTypeRef)element)) ids.push_back(std::move(*text));
            }
            return ids;
        }
    }

    Status setServiceEnabled(const std::string& serviceID, bool enabled) override {
        @autoreleasepool {
            id service = copyService(serviceID);
            if (service == nil) return sc::lastError("find network service " + serviceID);
            if (!SCNetworkServiceSetEnabled((__bridge SCNetworkServiceRef)service, enabled)) {
                return sc::lastError("set network service " + serviceID + (enabled ? " enabled" : " disabled"));
            }
            return {};
        }
    }

    Status commit() override {
        if (!SCPreferencesCommitChanges(prefs())) return sc::lastError("commit the network preferences");
        return {};
    }

    Status apply() override {
        if (!SCPreferencesApplyChanges(prefs())) return sc::lastError("apply the network preferences");
        return {};
    }

private:
    SCPreferencesRef prefs() const { return (__bridge SCPreferencesRef)preferences_; }

    id copyService(const std::string& serviceID) const {
        return CFBridgingRelease(SCNetworkServiceCopy(prefs(), (__bridge CFStringRef)toNSString(serviceID)));
    }

    id currentSet() const { return CFBridgingRelease(SCNetworkSetCopyCurrent(prefs())); }

    static PreferencesService describeService(SCNetworkServiceRef service) {
        PreferencesService described;
        described.serviceID = sc::string(SCNetworkServiceGetServiceID(service));
        described.name = sc::string(SCNetworkServiceGetName(service));
        described.enabled = SCNetworkServiceGetEnabled(service);
        if (SCNetworkInterfaceRef interface = SCNetworkServiceGetInterface(service)) {
            described.interface = sc::describe(interface);
        }
        return described;
    }

    id preferences_;
};

class SystemPreferences final : public NetworkPreferences {
public:
    Result<std::unique_ptr<NetworkPreferencesSession>> open(const std::string& clientName) override {
        @autoreleasepool {
            // No preferences ID: the system's default network preferences.
            id preferences = CFBridgingRelease(
                SCPreferencesCreate(kCFAllocatorDefault, (__bridge CFStringRef)toNSString(clientName), nullptr));
            if (preferences == nil) return sc::lastError("open the network preferences");
            return std::unique_ptr<NetworkPreferencesSession>(std::make_unique<SystemPreferencesSession>(preferences));
        }
    }
};

}  // namespace

std::shared_ptr<NetworkPreferences> systemNetworkPreferences() { return std::make_shared<SystemPreferences>(); }

}  // namespace netvane
