// netvane-admind on macOS: launchd starts it as root with its two Mach
// services (packaging/com.tarnwick.Netvane.admin.plist).
//
// Start-up, in order: the AdminDaemon with the pairing store loaded from
// disk, the team's code-signing requirements, the application listener, the
// control listener, one log line; then the main thread belongs to the
// dispatch main loop for good. There is no shutdown path and no signal
// handling.
#import <Foundation/Foundation.h>

#include <dispatch/dispatch.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/darwin/admin_xpc_protocols.h"
#include "daemon/admin_daemon.h"
#include "daemon/daemon_options.h"
#include "daemon/darwin/authorizer.h"
#include "daemon/darwin/xpc_sessions.h"
#include "daemon/netcore_tunnel_owners.h"
#include "netcore/sysconfig/network_preferences.h"
#include "support/bundle_info.h"
#include "support/files.h"
#include "support/darwin/foundation_values.h"
#include "support/ipc/darwin/listener.h"
#include "support/log.h"

using namespace netvane;

namespace {

constexpr const char* kUsage =
    "usage: netvane-admind [--state-dir DIR] [--foreground]\n"
    "\n"
    "  --state-dir DIR  where pairings.plist lives (default /Library/Application Support/NetvaneAdmin)\n"
    "  --foreground     copy the log to stderr\n"
    "\n"
    "launchd starts the daemon as root; its Mach services are named after the\n"
    "team in the embedded Info.plist.\n";

// Kept for the life of the process: the listeners stop answering when they go.
Listener* gAppListener;
Listener* gControlListener;

int fail(const Logger& log, const Error& error) {
    log.error(error.message);
    std::fprintf(stderr, "netvane-admind: %s\n", error.message.c_str());
    return 1;
}

// launchd hands the job's Mach services to the process it starts, and to
// nothing else: started any other way, the listeners would check in to
// nothing and the daemon would say it listens while serving nobody. The jobs
// launchd starts are its children, and it is process 1.
bool startedByLaunchd() { return getppid() == 1; }

PeerIdentity peerOf(NSXPCConnection* connection) {
    return PeerIdentity{connection.processIdentifier, static_cast<std::uint32_t>(connection.effectiveUserIdentifier),
                        0};
}

}  // namespace

int main(int argc, char** argv) {
    auto parsed = parseDaemonOptions(std::span<const char* const>(argv + 1, static_cast<std::size_t>(argc - 1)),
                                     {PairingStore::kDefaultDirectory, ""});
    if (!parsed) {
        std::fprintf(stderr, "netvane-admind: %s\n%s", parsed.error().message.c_str(), kUsage);
        return 2;
    }
    const DaemonOptions options = std::move(*parsed);
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Logger::mirrorToStderr(options.foreground);
    const Logger log(std::string(AdminConstants::daemonIdentifier), "daemon");
    const std::string version = bundleString(mainBundleInfo(), "CFBundleShortVersionString", "0");
    if (!startedByLaunchd()) {
        const std::string label(AdminConstants::daemonLabel);
        return fail(log, Error{std::string(AdminConstants::daemonIdentifier), 0,
                               "not started by launchd, so its Mach services cannot be checked in; "
                               "start the job instead: sudo launchctl bootstrap system " +
                                   AdminConstants::daemonPlistPath() + " (or, when it is loaded, "
                                   "sudo launchctl kickstart -k system/" + label + ")"});
    }

    // IMPORTANT: we run as root and write into the state directory by name:
    // anyone else who could write in it, or in a directory above, could swap
    // what we write, or read, for something of theirs.
    if (auto made = createDirectories(options.stateDirectory, 0700); !made.ok()) return fail(log, made.error());
    if (auto trusted = checkTrustedDirectory(options.stateDirectory); !trusted) return fail(log, trusted.error());
    std::optional<PairingStore::Unreadable> unreadable;
    auto loaded = PairingStore::load(options.stateDirectory, &unreadable);
    if (!loaded) return fail(log, loaded.error());
    PairingStore store = std::move(*loaded);
    if (unreadable) log.error(unreadable->describe());
    if (auto cleared = store.removeLeftovers(); !cleared) log.error(cleared.error().message);

    @autoreleasepool {
        AdminDaemon::Backends backends;
        backends.authorizer = std::make_shared<AuthorizationServicesAuthorizer>();
        backends.tunnelOwners = std::make_shared<NetcoreTunnelOwners>();
        backends.preferences = systemNetworkPreferences();
        auto daemon = std::make_shared<AdminDaemon>(std::move(store), version, backends);

        const std::string& team = AdminConstants::teamID();
        NSString* appRequirement = toNSString(AdminConstants::appRequirement(team));
        NSString* adminAppRequirement = toNSString(AdminConstants::adminAppRequirement(team));

        gAppListener = [[Listener alloc] initWithService:toNSString(AdminConstants::appServiceName())
            requirement:appRequirement
            interface:adminAppInterface()
            makeSession:^id(NSXPCConnection* connection) {
                return [[XPCAppSession alloc] initWithDaemon:daemon peer:peerOf(connection)];
            }
            ended:^(id session) {
                [(XPCAppSession*)session ended];
            }];
        gControlListener = [[Listener alloc] initWithService:toNSString(AdminConstants::controlServiceName())
            requirement:adminAppRequirement
            interface:adminControlInterface()
            makeSession:^id(NSXPCConnection* connection) {
                return [[XPCControlSession alloc] initWithDaemon:daemon peer:peerOf(connection)];
            }
            ended:^(id) {
            }];
    }
    log.info("admin daemon " + version + " listening");
    dispatch_main();
}
