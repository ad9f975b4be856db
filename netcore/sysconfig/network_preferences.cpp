#include "netcore/sysconfig/network_preferences.h"

namespace netvane {

// Service IDs are UUIDs on every store we know; the bound leaves room for
// other spellings without letting a request carry a paragraph.
constexpr std::size_t kMaxServiceIDLength = 64;

bool isPlausibleServiceID(std::string_view serviceID) {
    if (serviceID.empty() || serviceID.size() > kMaxServiceIDLength) return false;
    for (char c : serviceID) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
        if (!plain) return false;
    }
    return true;
}

std::string interfaceEntityPath(const std::string& serviceID) {
    return "/NetworkServices/" + serviceID + "/Interface";
}

bool isHidden(NetworkPreferencesSession& session, const std::string& serviceID) {
    const auto value = session.pathValue(interfaceEntityPath(serviceID));
    if (!value || !value->dictionary()) return false;
    const plist::Value* hidden = value->find("HiddenConfiguration");
    return hidden && hidden->boolean().value_or(false);
}

}  // namespace netvane
