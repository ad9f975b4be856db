#include "daemon/service_configurator.h"

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/admin_error.h"

namespace netvane::ServiceConfigurator {
namespace {

// Holds the preferences lock from a successful lock() until scope exit.
class PreferencesLock {
public:
    explicit PreferencesLock(NetworkPreferencesSession& session) : session_(session), held_(session.lock()) {}
    ~PreferencesLock() {
        if (held_) session_.unlock();
    }
    PreferencesLock(const PreferencesLock&) = delete;
    PreferencesLock& operator=(const PreferencesLock&) = delete;

    bool held() const { return held_; }

private:
    NetworkPreferencesSession& session_;
    bool held_;
};

bool isHidden(NetworkPreferencesSession& session, const std::string& serviceID) {
    const auto value = session.pathValue("/NetworkServices/" + serviceID + "/Interface");
    if (!value || !value->dictionary()) return false;
    const plist::Value* hidden = value->find("HiddenConfiguration");
    return hidden && hidden->boolean().value_or(false);
}

}  // namespace

Status setEnabled(NetworkPreferences* preferences, const std::string& serviceID, bool enabled) {
    if (!preferences) return toError(AdminError::configurationFailed);
    const auto session = preferences->open(std::string(AdminConstants::daemonIdentifier));
    if (!session) return toError(AdminError::configurationFailed);

    const PreferencesLock lock(*session);
    if (!lock.held()) return toError(AdminError::configurationFailed);
    if (!session->hasService(serviceID) || isHidden(*session, serviceID)) {
        return toError(AdminError::unknownService);
    }
    // Short-circuit on purpose: a refused step skips the ones after it.
    if (!session->setServiceEnabled(serviceID, enabled) || !session->commit() || !session->apply()) {
        return toError(AdminError::configurationFailed);
    }
    return {};
}

}  // namespace netvane::ServiceConfigurator
