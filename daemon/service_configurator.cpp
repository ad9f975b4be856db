#include "daemon/service_configurator.h"

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/admin_error.h"

namespace netvane::ServiceConfigurator {
namespace {

// Holds the preferences lock from a successful lock() until scope exit.
class PreferencesLock {
public:
    explicit PreferencesLock(NetworkPreferencesSession& session) : session_(session), taken_(session.lock()) {}
    ~PreferencesLock() {
        if (taken_) session_.unlock();
    }
    PreferencesLock(const PreferencesLock&) = delete;
    PreferencesLock& operator=(const PreferencesLock&) = delete;

    const Status& taken() const { return taken_; }

private:
    NetworkPreferencesSession& session_;
    Status taken_;
};

Error refused(const Error& cause, std::string* reason) {
    if (reason) *reason = cause.message;
    return toError(AdminError::configurationFailed);
}

}  // namespace

Status setEnabled(NetworkPreferences* preferences, const std::string& serviceID, bool enabled, std::string* reason) {
    if (!preferences) return refused(Error{"", 0, "no network preferences on this platform"}, reason);
    auto session = preferences->open(std::string(AdminConstants::daemonIdentifier));
    if (!session) return refused(session.error(), reason);

    const PreferencesLock lock(**session);
    if (!lock.taken()) return refused(lock.taken().error(), reason);
    // A name that cannot be a service is not looked up at all.
    if (!isPlausibleServiceID(serviceID)) return toError(AdminError::unknownService);
    const Result<bool> found = (*session)->hasService(serviceID);
    if (!found) return refused(found.error(), reason);
    if (!*found || isHidden(**session, serviceID)) return toError(AdminError::unknownService);
    // Each step runs only when the one before it succeeded.
    if (auto set = (*session)->setServiceEnabled(serviceID, enabled); !set) return refused(set.error(), reason);
    if (auto committed = (*session)->commit(); !committed) return refused(committed.error(), reason);
    if (auto applied = (*session)->apply(); !applied) return refused(applied.error(), reason);
    return {};
}

}  // namespace netvane::ServiceConfigurator
