// On Linux the daemon's services are sockets in its runtime directory, and
// the pair right belongs to the calling process: the daemon asks the
// system's authority about the connected peer itself.
#include "commands/admin_transport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <vector>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/linux/socket_channel.h"
#include "support/crypto.h"
#include "support/process.h"

namespace netvane::cli::AdminTransport {

extern const std::string_view optionsSynopsis = "[--runtime-dir DIR] ";
extern const std::string_view whereNote = "The runtime directory defaults to /run/netvane-admin.";

bool takeOption(const Args& args, std::size_t& i, Endpoint& endpoint) {
    if (args[i] != "--runtime-dir" || i + 1 >= args.size()) return false;
    endpoint.location = std::string(args[++i]);
    return true;
}

Result<AdminAppClient> connectApp(const Endpoint& endpoint) {
    return connectAppClient(endpoint.location.empty() ? kDefaultRuntimeDirectory : endpoint.location,
                            endpoint.deadline);
}

Result<AdminControlClient> connectControl(const Endpoint& endpoint) {
    return connectControlClient(endpoint.location.empty() ? kDefaultRuntimeDirectory : endpoint.location,
                                endpoint.deadline);
}

namespace {

// The 32 bytes mean nothing here, where the right is the calling process's.
class ProcessRight final : public PairRight {
public:
    ProcessRight() { (void)secureRandomBytes(bytes_); }
    std::span<const std::uint8_t> externalForm() const override { return bytes_; }

private:
    std::array<std::uint8_t, 32> bytes_{};
};

}  // namespace

// The authority may prompt on a terminal; the daemon's own check decides.
Result<std::unique_ptr<PairRight>> obtainPairRight() {
    const std::string subject =
        std::to_string(getpid()) + "," + std::to_string(processStartTime(getpid())) + "," + std::to_string(getuid());
    const std::string action(AdminConstants::pairRight);
    const pid_t child = fork();
    if (child == 0) {
        std::vector<const char*> argv = {"pkcheck", "--action-id", action.c_str(), "--process", subject.c_str(),
                                         "--allow-user-interaction"};
        if (isatty(STDIN_FILENO)) argv.push_back("--enable-internal-agent");
        argv.push_back(nullptr);
        execvp("pkcheck", const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "netvane: the right %s was not obtained (pkcheck exit %d); asking the daemon anyway\n",
                     action.c_str(), WEXITSTATUS(status));
    }
    return std::unique_ptr<PairRight>(std::make_unique<ProcessRight>());
}

}  // namespace netvane::cli::AdminTransport
