// NetworkManager as the configuration layer of Linux: what its profiles and
// active connections mean in the words of network services.
//
// The mapping, the same in every direction (what we read is what we write):
// - a connection profile is a service; its UUID is the service ID, its "id"
//   the service's name;
// - the services of the current set are the profiles saved to disk; profiles
//   NetworkManager keeps only in memory (unsaved, generated, volatile or
//   external) are transient services;
// - a service is enabled when its profile may connect automatically
//   ("connection.autoconnect"); commit saves the profile to disk, apply
//   activates an enabled profile that is not active and deactivates a
//   disabled one that is;
// - the service order ranks by "connection.autoconnect-priority", highest
//   first, profiles of equal priority in NetworkManager's own order;
// - a service is hidden when the profile's user data has kHiddenKey = "true"
//   ("false" reads as not hidden; any other text is kept as text);
// - the interface a service runs on is the profile's "connection.
//   interface-name", layered on the parent interface its type names (a VLAN's
//   "vlan.parent", for example; a parent given as a profile UUID stands for
//   that profile's interface).
//
// Pure functions over values read from the bus, plus the loads themselves.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/network_interface_list.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane::nm {

inline constexpr const char* kService = "org.freedesktop.NetworkManager";
inline constexpr const char* kObjectManagerPath = "/org/freedesktop";
inline constexpr const char* kManagerPath = "/org/freedesktop/NetworkManager";
inline constexpr const char* kSettingsPath = "/org/freedesktop/NetworkManager/Settings";
inline constexpr const char* kManagerInterface = "org.freedesktop.NetworkManager";
inline constexpr const char* kSettingsInterface = "org.freedesktop.NetworkManager.Settings";
inline constexpr const char* kProfileInterface = "org.freedesktop.NetworkManager.Settings.Connection";
inline constexpr const char* kActiveInterface = "org.freedesktop.NetworkManager.Connection.Active";
inline constexpr const char* kDeviceInterface = "org.freedesktop.NetworkManager.Device";

// The profile user-data entry that carries the hidden flag.
inline constexpr const char* kHiddenKey = "com.tarnwick.Netvane.HiddenConfiguration";

// Settings.Connection "Flags": a profile with any of these is not saved.
inline constexpr std::uint32_t kUnsaved = 0x1, kGenerated = 0x2, kVolatile = 0x4, kExternal = 0x8;
inline constexpr std::uint32_t kTransientFlags = kUnsaved | kGenerated | kVolatile | kExternal;
// Connection.Active "State" of a connection that is up.
inline constexpr std::uint32_t kActivated = 2;

struct Profile {
    std::string path;  // the settings object
    std::string uuid;
    std::string id;
    std::string type;
    std::optional<std::string> interfaceName;
    std::optional<std::string> parent;  // interface name or profile UUID
    bool autoconnect = true;
    std::int64_t priority = 0;
    std::optional<std::string> hidden;  // the user-data text
    std::uint32_t flags = 0;

    bool saved() const { return (flags & kTransientFlags) == 0; }
    bool operator==(const Profile&) const = default;
};

struct ActiveConnection {
    std::string path;
    std::string uuid;
    std::string profilePath;
    std::uint32_t state = 0;
    std::optional<std::string> interfaceName;  // where its addresses live
    bool ipv4 = false;
    bool ipv6 = false;

    bool activated() const { return state == kActivated; }

    bool operator==(const ActiveConnection&) const = default;
};

struct State {
    std::vector<Profile> profiles;          // NetworkManager's order
    std::vector<ActiveConnection> active;   // in any state

    const Profile* profile(std::string_view uuid) const;
};

// Whether a text is a UUID in the 8-4-4-4-12 hex spelling.
bool isUUID(std::string_view text);

// A profile from its settings (GetSettings) and its flags; nothing without a UUID.
std::optional<Profile> profileFrom(const std::string& path, const plist::Value& settings, std::uint32_t flags);
// The whole state from the object manager's answer and each profile's settings by path.
State stateFrom(const plist::Value& managedObjects, const std::map<std::string, plist::Value>& settings);

// The configuration framework's interface-type word for a profile type.
std::optional<std::string> interfaceTypeFor(std::string_view profileType);
// The interface a profile runs on, with the interfaces it is layered on.
NetworkInterface interfaceOf(const Profile& profile, const std::vector<Profile>& all);
// The service entity: {"UserDefinedName", "__INACTIVE__" when disabled,
// "Interface": {"DeviceName" when bound, "Type", "UserDefinedName",
// "HiddenConfiguration" when set}}.
plist::Dictionary serviceEntity(const Profile& profile);
// The saved profiles' UUIDs in service order.
std::vector<std::string> serviceOrder(const std::vector<Profile>& profiles);

// Everything at once: the object manager's answer and every profile's
// settings, requested together.
Result<State> load(sd_bus* bus);
// One profile by UUID, with its settings reply kept for rewriting.
struct LoadedProfile {
    Profile profile;
    bus::Message settings;  // the GetSettings reply, positioned at its start
};
Result<std::optional<LoadedProfile>> loadProfile(sd_bus* bus, const std::string& uuid);
// Whether NetworkManager holds its name on the bus now.
Result<bool> isRunning(sd_bus* bus);

}  // namespace netvane::nm
