// On macOS the daemon's services are privileged Mach services found by name,
// and the pair right is obtained here, interactively, with Authorization
// Services; the daemon receives the authorization's external form.
//
// Not checkable by building alone: whether the system's policy database
// grants the right (the rule is the installer's), and how it prompts.
#include "commands/admin_transport.h"

#include <Security/Security.h>

#include <cstdio>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/darwin/xpc_channel.h"
#include "support/bundle_info.h"
#include "support/darwin/authorization.h"
#include "support/darwin/foundation_values.h"

namespace netvane::cli::AdminTransport {

extern const std::string_view optionsSynopsis = "";
extern const std::string_view whereNote =
    "The daemon is reached through its privileged Mach services, named after the team.\n"
    "  Each role has its program: netvane plays app, netvane-control plays control.";

namespace {

// The daemon admits a role only from a program signed with the role's
// identifier, and it refuses any other without a word: the connection just
// goes. Saying which program plays the role beats "cannot reach".
Status checkPlays(std::string_view identifier, const char* role, const char* program) {
    const std::string own = bundleString(mainBundleInfo(), "CFBundleIdentifier", "");
    if (own == identifier) return {};
    return Error{ipc::kIpcErrorDomain, ipc::kUnreachable,
                 "the " + std::string(role) + " role is played by " + program + ": the daemon admits only a program "
                 "signed as " + std::string(identifier) + ", and this one is " + (own.empty() ? "unnamed" : own)};
}

Status checkPlaysControl() { return checkPlays(AdminConstants::adminAppBundleID, "control", "netvane-control"); }

}  // namespace

bool takeOption(const Args&, std::size_t&, Endpoint&) { return false; }

Result<AdminAppClient> connectApp(const Endpoint&) {
    if (auto plays = checkPlays(AdminConstants::appBundleID, "app", "netvane"); !plays) return plays.error();
    return connectAppClient();
}

Result<AdminControlClient> connectControl(const Endpoint&) {
    if (auto plays = checkPlaysControl(); !plays) return plays.error();
    return connectControlClient();
}

namespace {

// Held until the daemon is done with its external form.
class Authorization final : public PairRight {
public:
    std::span<const std::uint8_t> externalForm() const override {
        return std::span(reinterpret_cast<const std::uint8_t*>(form.bytes), sizeof form.bytes);
    }

    UniqueAuthorization reference;
    AuthorizationExternalForm form{};
};

}  // namespace

Result<std::unique_ptr<PairRight>> obtainPairRight() {
    // Only the control role asks for the right: no password for a program
    // that the daemon will not let ask.
    if (auto plays = checkPlaysControl(); !plays) return plays.error();
    auto authorization = std::make_unique<Authorization>();
    AuthorizationRef reference = nullptr;
    OSStatus status =
        AuthorizationCreate(nullptr, kAuthorizationEmptyEnvironment, kAuthorizationFlagDefaults, &reference);
    authorization->reference.reset(reference);
    if (status != errAuthorizationSuccess || reference == nullptr) return osStatusError(status, "AuthorizationCreate");

    const std::string right(AdminConstants::pairRight);
    AuthorizationItem item = {right.c_str(), 0, nullptr, 0};
    AuthorizationRights rights = {1, &item};
    // Pre-authorized, so that the right travels with the external form.
    const AuthorizationFlags flags =
        kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;
    status = AuthorizationCopyRights(reference, &rights, kAuthorizationEmptyEnvironment, flags, nullptr);
    if (status != errAuthorizationSuccess) {
        std::fprintf(stderr, "netvane: the right %s was not obtained (%s); asking the daemon anyway\n", right.c_str(),
                     osStatusError(status, "AuthorizationCopyRights").message.c_str());
    }
    status = AuthorizationMakeExternalForm(reference, &authorization->form);
    if (status != errAuthorizationSuccess) return osStatusError(status, "AuthorizationMakeExternalForm");
    return std::unique_ptr<PairRight>(std::move(authorization));
}

}  // namespace netvane::cli::AdminTransport
