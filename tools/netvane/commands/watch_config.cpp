// netvane watch-config: every batch of changed configuration keys as the
// change watcher delivers it, one line each, until N batches or Ctrl-C.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "command.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "support/json.h"
#include "support/mutex.h"

namespace netvane::cli {
namespace {

int run(const Args& args);

const Command command("watch-config", "netvane watch-config [--count N] [--json]",
                      "each batch of changed network configuration keys, as it happens (Ctrl-C stops)", run);

std::string line(const std::vector<std::string>& keys, bool json) {
    if (json) {
        plist::Array list(keys.begin(), keys.end());
        return toJSON(plist::Value(std::move(list)), false);
    }
    std::string text;
    for (const std::string& key : keys) text += (text.empty() ? "" : " ") + key;
    return text;
}

int run(const Args& args) {
    bool json = false;
    std::optional<std::uint64_t> count;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            json = true;
        } else if (args[i] == "--count") {
            count = i + 1 < args.size() ? parsePositiveCount(args[++i]) : std::nullopt;
            if (!count) return usageError(command, "--count needs a positive whole number of batches");
        } else {
            return usageError(command, "unknown argument '" + std::string(args[i]) + "'");
        }
    }

    stopOnInterrupt();

    struct Printed {
        Mutex mutex;
        std::condition_variable another;
        std::uint64_t batches NV_GUARDED_BY(mutex) = 0;
    } printed;
    auto queue = std::make_shared<SerialQueue>("watch-config");
    NetworkChangeWatcher watcher(queue, [&](const std::vector<std::string>& keys) {
        MutexLock lock(printed.mutex);
        if (count && printed.batches >= *count) return;
        const std::string text = line(keys, json);
        std::fprintf(stdout, "%s\n", text.c_str());
        std::fflush(stdout);
        ++printed.batches;
        printed.another.notify_all();
    });
    if (!watcher.watching()) return failure("cannot watch the network configuration");
    MutexLock lock(printed.mutex);
    // Woken by each batch; the signal flag is looked at a few times a second.
    while (!interrupted() && !(count && printed.batches >= *count)) {
        (void)lock.waitUntil(printed.another, std::chrono::steady_clock::now() + std::chrono::milliseconds(200));
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
