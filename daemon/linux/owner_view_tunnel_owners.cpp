#include "daemon/linux/owner_view_tunnel_owners.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "netcore/shim/nv_shim.h"
#include "netcore/sysconfig/tunnel_owners.h"
#include "support/bounded_call.h"
#include "support/plist/plist.h"
#include "support/unicode.h"
#include "support/unique_fd.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;

// The kernel's limit on a path.
constexpr std::size_t kPathBufferSize = 4096;
// No information dictionary comes near this; a larger file is not one.
constexpr std::size_t kMaxInfoPlistSize = 1 << 20;
// A local file of that size is found and read in microseconds; one on a
// stalled or hostile file system must not hold the scan for long...
constexpr std::chrono::milliseconds kBundleReadLimit{500};
// ...nor may all of them together, however many tunnels there are.
constexpr std::chrono::milliseconds kScanReadLimit{1500};

// A regular file at `path` as the process whose root is `root` sees it: no
// symlink on the way, and the type known before anything is opened for
// reading (a FIFO would block, a device open can have side effects). Kernels
// without openat2 (before 5.6) read no bundle at all.
std::optional<std::string> readInRoot(int root, const std::string& path) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const UniqueFd handle(static_cast<int>(::syscall(SYS_openat2, root, path.c_str(), &how, sizeof how)));
    struct stat info {};
    if (!handle || ::fstat(handle.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    // Reopened through the handle: the very inode checked above.
    const UniqueFd fd(::open(("/proc/self/fd/" + std::to_string(handle.get())).c_str(),
                             O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    std::string bytes(kMaxInfoPlistSize + 1, '\0');
    std::size_t used = 0;
    while (used < bytes.size()) {
        const ssize_t n = ::read(fd.get(), bytes.data() + used, bytes.size() - used);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    if (used > kMaxInfoPlistSize) return std::nullopt;
    bytes.resize(used);
    return bytes;
}

class OwnerBundles final : public BundleInformation {
public:
    OwnerBundles(std::shared_ptr<const UniqueFd> root, std::chrono::steady_clock::time_point deadline)
        : root_(std::move(root)), deadline_(deadline) {}

    std::optional<plist::Dictionary> infoDictionary(const std::string& bundlePath) const override {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
        if (!*root_ || left <= 0ms) return std::nullopt;
        auto done = callWithin<std::optional<plist::Dictionary>>(
            std::min(left, kBundleReadLimit), [root = root_, bundlePath] { return infoIn(*root, bundlePath); });
        return done ? std::move(*done) : std::nullopt;
    }

private:
    static std::optional<plist::Dictionary> infoIn(const UniqueFd& root, const std::string& bundlePath) {
        for (const char* inside : {"/Contents/Info.plist", "/Info.plist"}) {
            auto bytes = readInRoot(root.get(), bundlePath + inside);
            if (!bytes) continue;
            auto value = plist::decode(std::span(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()));
            if (!value || value->dictionary() == nullptr) return std::nullopt;
            return *value->dictionary();
        }
        return std::nullopt;
    }

    std::shared_ptr<const UniqueFd> root_;
    std::chrono::steady_clock::time_point deadline_;
};

}  // namespace

std::vector<TunnelOwnerEntry> OwnerViewTunnelOwners::scan() {
    std::vector<nv_utun_owner_t> records(TunnelOwners::kCapacity);
    const int count = nv_utun_owners(records.data(), TunnelOwners::kCapacity);
    records.resize(static_cast<std::size_t>(std::clamp(count, 0, TunnelOwners::kCapacity)));
    const auto deadline = std::chrono::steady_clock::now() + kScanReadLimit;
    TunnelOwnerMap owners;
    for (const nv_utun_owner_t& record : records) {
        // Executable and root through one /proc entry: both belong to this
        // very process, even if its pid is taken by another meanwhile.
        const UniqueFd process(::open(("/proc/" + std::to_string(record.pid)).c_str(),
                                      O_PATH | O_DIRECTORY | O_CLOEXEC));
        auto root = std::make_shared<const UniqueFd>(
            process ? ::openat(process.get(), "root", O_PATH | O_DIRECTORY | O_CLOEXEC) : -1);
        const auto executable = [&process](std::int32_t) -> std::string {
            std::array<char, kPathBufferSize> path{};
            if (!process || ::readlinkat(process.get(), "exe", path.data(), path.size() - 1) < 1) return "";
            return decodeCString(path);
        };
        for (auto& [name, owner] : TunnelOwners::fromRecords(std::span(&record, 1), executable,
                                                             OwnerBundles(std::move(root), deadline))) {
            owners.insert_or_assign(name, std::move(owner));  // the last record for a tunnel wins
        }
    }
    std::vector<TunnelOwnerEntry> entries;
    for (auto& [interface, owner] : owners) {
        entries.push_back(TunnelOwnerEntry{interface, owner.pid, std::move(owner.name), std::move(owner.path)});
    }
    return entries;
}

}  // namespace netvane
