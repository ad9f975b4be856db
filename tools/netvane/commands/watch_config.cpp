// netvane watch-config: every batch of changed configuration keys as the
// change watcher delivers it, one line each, until N batches or Ctrl-C.
#include <chrono>
#include <condition_variable>
#include <optional>
#include <string>

#include "command.h"
#include "io.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "support/json.h"
#include "support/mutex.h"
#include "support/unicode.h"

namespace netvane::cli {
namespace {

int run(const Arguments& arguments);

const Command command{
    "watch-config",
    "netvane watch-config [--count N] [--json]",
    "each batch of changed network configuration keys, as it happens",
    {},
    {Option::ranged("--count", ValueKind::count, "N", "stop after N batches; without it, until stopped", 1, 1e9),
     Option::flag("--json", "each batch as a JSON array of strings on a line")},
    "Keys name what changed: State:/Network/Interface (the interface list), "
    "State:/Network/Interface/NAME/Link|IPv4|IPv6, State:/Network/Global/IPv4|IPv6 (a primary moved), "
    "State:/Network/Service/UUID/IPv4|IPv6 (a connection came or went) and Setup:/Network/Service/UUID "
    "(a profile changed). It ends after N batches, on Ctrl-C, SIGTERM, SIGHUP and the other ending signals, "
    "or quietly when the reader of its output goes away.\n"
    "Exit status 0; 1 when the configuration cannot be watched or the output fails.",
    run,
};

std::string line(const std::vector<std::string>& keys, bool json) {
    if (json) {
        plist::Array list(keys.begin(), keys.end());
        return toJSON(plist::Value(std::move(list)), false);
    }
    std::string text;
    for (const std::string& key : keys) {
        if (!text.empty()) text += ' ';
        text += terminalText(key);
    }
    return text;
}

int run(const Arguments& arguments) {
    const bool json = arguments.flag("--json");
    const std::optional<std::uint64_t> count = arguments.count("--count");
    stopOnEndingSignals();

    // The watcher's queue prints; the main thread only waits. Output is
    // touched under the lock alone.
    struct Printed {
        Mutex mutex;
        std::condition_variable another;
        std::uint64_t batches NV_GUARDED_BY(mutex) = 0;
        bool outputEnded NV_GUARDED_BY(mutex) = false;
    } printed;
    auto queue = std::make_shared<SerialQueue>("watch-config");
    NetworkChangeWatcher watcher(queue, [&](const std::vector<std::string>& keys) {
        MutexLock lock(printed.mutex);
        if (printed.outputEnded || (count && printed.batches >= *count)) return;
        print(line(keys, json) + "\n");
        printed.outputEnded = !flushOutput();
        ++printed.batches;
        printed.another.notify_all();
    });
    if (!watcher.watching()) return failure("cannot watch the network configuration");
    MutexLock lock(printed.mutex);
    // Woken by each batch; the signal flag is looked at a few times a second.
    while (!interrupted() && !printed.outputEnded && !(count && printed.batches >= *count)) {
        (void)lock.waitUntil(printed.another, std::chrono::steady_clock::now() + std::chrono::milliseconds(200));
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
