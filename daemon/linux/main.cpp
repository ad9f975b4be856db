// netvane-admind: the privileged admin helper daemon.
//
// Start-up, in order: the AdminDaemon with the pairing store loaded from disk,
// the team's code-signing requirements, the application listener, the control
// listener, one log line; then the main thread parks for good. There is no
// shutdown path and no signal handling: the service manager stops us.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/linux/socket_channel.h"
#include "daemon/admin_daemon.h"
#include "daemon/daemon_options.h"
#include "daemon/linux/listener.h"
#include "daemon/linux/authorizer.h"
#include "daemon/linux/owner_view_tunnel_owners.h"
#include "netcore/sysconfig/network_preferences.h"
#include "support/bundle_info.h"
#include "support/files.h"
#include "support/ipc/socket_activation.h"
#include "support/log.h"

using namespace netvane;

namespace {

constexpr const char* kUsage =
    "usage: netvane-admind [--state-dir DIR] [--runtime-dir DIR] [--foreground]\n"
    "\n"
    "  --state-dir DIR    where pairings.plist lives (default /var/lib/netvane-admin)\n"
    "  --runtime-dir DIR  where the service sockets are created (default /run/netvane-admin)\n"
    "  --foreground       stay attached to the terminal and copy the log to stderr\n"
    "\n"
    "Sockets handed over by the service manager, named after the services, are\n"
    "used instead of creating them.\n";

int usage(const char* problem) {
    std::fprintf(stderr, "netvane-admind: %s\n%s", problem, kUsage);
    return 2;
}

[[noreturn]] void fail(const Logger& log, const std::string& message) {
    log.error(message);
    std::fprintf(stderr, "netvane-admind: %s\n", message.c_str());
    std::exit(1);
}

// A socket the service manager handed us under the service's name, else a new one.
UniqueFd listenerFor(const std::string& service, const DaemonOptions& options,
                     std::vector<std::pair<std::string, UniqueFd>>& inherited, const Logger& log) {
    for (auto& [name, fd] : inherited) {
        if (name != service || !fd) continue;
        if (auto checked = ipc::checkListeningUnixStream(fd.get()); !checked) {
            fail(log, "socket handed over for " + service + ": " + checked.error().message);
        }
        return std::move(fd);
    }
    const std::string path = options.runtimeDirectory + "/" + service;
    auto fd = ipc::listenOnPath(path);
    if (!fd) fail(log, fd.error().message);
    return std::move(*fd);
}

}  // namespace

int main(int argc, char** argv) {
    auto parsed = parseDaemonOptions(std::span<const char* const>(argv + 1, static_cast<std::size_t>(argc - 1)),
                                     {PairingStore::kDefaultDirectory, kDefaultRuntimeDirectory});
    if (!parsed) return usage(parsed.error().message.c_str());
    DaemonOptions options = std::move(*parsed);
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    // Daemonizing moves us to "/": relative paths must be resolved before.
    std::error_code ignored;
    options.stateDirectory = std::filesystem::absolute(options.stateDirectory, ignored).string();
    options.runtimeDirectory = std::filesystem::absolute(options.runtimeDirectory, ignored).string();
    auto inherited = ipc::takeInheritedListeners();
    if (!options.foreground && ::daemon(0, 0) != 0) {
        std::perror("netvane-admind: daemon");
        return 1;
    }
    Logger::mirrorToStderr(options.foreground);
    const Logger log(std::string(AdminConstants::daemonIdentifier), "daemon");
    const std::string version = bundleString(mainBundleInfo(), "CFBundleShortVersionString", "0");

    // IMPORTANT: we run as root and write into these directories by name:
    // anyone else who could write in them, or in a directory above, could
    // swap what we write, or read, for something of theirs.
    if (auto made = createDirectories(options.stateDirectory, 0700); !made.ok()) fail(log, made.error().message);
    if (auto made = createDirectories(options.runtimeDirectory, 0755); !made.ok()) fail(log, made.error().message);
    for (const std::string& directory : {options.stateDirectory, options.runtimeDirectory}) {
        if (auto trusted = checkTrustedDirectory(directory); !trusted) fail(log, trusted.error().message);
    }
    std::optional<PairingStore::Unreadable> unreadable;
    auto loaded = PairingStore::load(options.stateDirectory, &unreadable);
    if (!loaded) fail(log, loaded.error().message);
    PairingStore store = std::move(*loaded);
    if (unreadable) log.error(unreadable->describe());
    if (auto cleared = store.removeLeftovers(); !cleared) log.error(cleared.error().message);

    AdminDaemon::Backends backends;
    backends.authorizer = std::make_shared<PolkitAuthorizer>();
    backends.tunnelOwners = std::make_shared<OwnerViewTunnelOwners>();
    // Reached afresh for every change, so a NetworkManager that starts after us is found.
    backends.preferences = systemNetworkPreferences();
    auto daemon = std::make_shared<AdminDaemon>(std::move(store), version, backends);

    const std::string& team = AdminConstants::teamID();
    std::string appRequirement = AdminConstants::appRequirement(team);
    std::string adminAppRequirement = AdminConstants::adminAppRequirement(team);

    auto appListener = makeAppListener(listenerFor(AdminConstants::appServiceName(), options, inherited, log),
                                       std::move(appRequirement), daemon);
    auto controlListener =
        makeControlListener(listenerFor(AdminConstants::controlServiceName(), options, inherited, log),
                            std::move(adminAppRequirement), daemon);

    log.info("code-signing requirements are not enforced on Linux; peers are identified by uid and process");
    log.info("admin daemon " + version + " listening");
    for (;;) ::pause();
}
