// Tunnel owners named from the owner's own view of the file system. The owner
// here lives in a mount namespace of its own, where the path of a root-only
// bundle of the daemon's view holds a bundle of its own: the daemon must show
// the owner's name, and must not read the root-only file on the owner's word.
#include "daemon/linux/owner_view_tunnel_owners.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "daemon/netcore_tunnel_owners.h"
#include "support/files.h"
#include "support/plist/plist.h"
#include "tests/temporary_directory.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kTunnel = "nvownview0";

void writeInfoPlist(const std::string& contents, const std::string& name, mode_t mode) {
    const auto bytes = plist::encodeBinary(plist::Dictionary{{"CFBundleName", name}}).value();
    if (!writeFileAtomically(contents + "/Info.plist", bytes, mode).ok()) ::_exit(90);
}

// In the child: a namespace of its own, its bundle over the path, a tunnel,
// then the bundle's executable holding the tunnel. Never returns.
[[noreturn]] void becomeOwner(const std::string& bundle) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) ::_exit(91);
    if (::mount("tmpfs", bundle.c_str(), "tmpfs", 0, "mode=0755") != 0) ::_exit(92);
    fs::create_directories(bundle + "/Contents/MacOS");
    writeInfoPlist(bundle + "/Contents", "TheOwnersOwnName", 0644);
    const std::string program = bundle + "/Contents/MacOS/vpn";
    fs::copy_file("/bin/sleep", program);
    ::chmod(program.c_str(), 0755);
    const int tun = ::open("/dev/net/tun", O_RDWR);  // inherited across exec on purpose
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(request.ifr_name, kTunnel, IFNAMSIZ - 1);
    if (tun < 0 || ::ioctl(tun, TUNSETIFF, &request) != 0) ::_exit(93);
    ::execl(program.c_str(), "vpn", "60", static_cast<char*>(nullptr));
    ::_exit(94);
}

std::optional<TunnelOwnerEntry> ownerOf(TunnelOwnerSource& source) {
    for (TunnelOwnerEntry& entry : source.scan()) {
        if (entry.interface == kTunnel) return entry;
    }
    return std::nullopt;
}

TEST(OwnerViewTunnelOwners, TheOwnersViewNamesTheTunnelAndARootOnlyFileStaysUnread) {
    if (::geteuid() != 0) GTEST_SKIP() << "mount namespaces and tunnels need root";
    if (::access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun here";
    testing::TemporaryDirectory temp{"netvane-owner-view"};
    const std::string bundle = temp.path() + "/Secret.app";
    fs::create_directories(bundle + "/Contents");
    ::chmod(bundle.c_str(), 0700);
    writeInfoPlist(bundle + "/Contents", "RootOnlySecret", 0600);

    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) becomeOwner(bundle);
    const std::string exe = "/proc/" + std::to_string(owner) + "/exe";
    bool started = false;
    for (int i = 0; i < 500 && !started; ++i) {
        std::array<char, 4096> link{};
        started = ::readlink(exe.c_str(), link.data(), link.size() - 1) > 0 &&
                  std::string(link.data()).ends_with("/Contents/MacOS/vpn");
        if (!started) std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(started) << "the owner did not start";

    OwnerViewTunnelOwners source;
    const auto seen = ownerOf(source);
    NetcoreTunnelOwners daemonsView;
    const auto control = ownerOf(daemonsView);
    ::kill(owner, SIGKILL);
    ::waitpid(owner, nullptr, 0);

    ASSERT_TRUE(seen) << "the tunnel's owner was not found";
    EXPECT_EQ(seen->pid, owner);
    EXPECT_EQ(seen->path, bundle + "/Contents/MacOS/vpn");
    EXPECT_EQ(seen->name, "TheOwnersOwnName");
    // The same scan in the daemon's own view reads the root-only file: what
    // this test guards against.
    ASSERT_TRUE(control);
    EXPECT_EQ(control->name, "RootOnlySecret");
}

}  // namespace
}  // namespace netvane
