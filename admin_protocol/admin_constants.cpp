#include "admin_protocol/admin_constants.h"

#include "support/bundle_info.h"

namespace netvane::AdminConstants {

std::string teamIDFromInfo(const plist::Dictionary& info) { return bundleString(info, "NVTeamID", kFallbackTeamID); }

std::string appGroupFor(std::string_view team) { return std::string(team) + ".com.tarnwick.Netvane"; }

const std::string& daemonPlistPath() {
    static const std::string path = "/Library/LaunchDaemons/" + std::string(daemonLabel) + ".plist";
    return path;
}

const std::string& teamID() {
    static const std::string team = teamIDFromInfo(mainBundleInfo());
    return team;
}

const std::string& appGroup() {
    static const std::string group = appGroupFor(teamID());
    return group;
}

const std::string& appServiceName() {
    static const std::string name = appGroup() + ".admin";
    return name;
}

const std::string& controlServiceName() {
    static const std::string name = appGroup() + ".admin-control";
    return name;
}

std::string appRequirement(std::string_view team) {
    std::string text =
        "(anchor apple generic and certificate leaf[field.1.2.840.113635.100.6.1.9] or anchor apple generic and "
        "certificate 1[field.1.2.840.113635.100.6.2.6] and certificate leaf[field.1.2.840.113635.100.6.1.13] and "
        "certificate leaf[subject.OU] = \"";
    text += team;
    text += "\") and identifier \"";
    text += appBundleID;
    text += "\"";
    return text;
}

std::string adminAppRequirement(std::string_view team) {
    std::string text =
        "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] and certificate "
        "leaf[field.1.2.840.113635.100.6.1.13] and certificate leaf[subject.OU] = \"";
    text += team;
    text += "\" and identifier \"";
    text += adminAppBundleID;
    text += "\"";
    return text;
}

}  // namespace netvane::AdminConstants
