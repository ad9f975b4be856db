// Any input: reading a history file never crashes, and neither does summing
// what reads back over any period (totals that cannot be summed are refused
// when read). Whatever reads back is written the same whether its buckets are
// packed on the way out or into the document first, and reading and writing
// that again changes no byte. Bytes, not values, are compared: a bucket may
// hold NaN.
#include <cstdlib>
#include <limits>

#include "netcore/history/history_store.h"
#include "support/plist/plist.h"

namespace {

netvane::plist::Data written(const netvane::HistorySet& histories) {
    netvane::plist::Data bytes;
    const netvane::Status status = netvane::HistoryStore::write(histories, [&](std::span<const std::uint8_t> piece) {
        bytes.insert(bytes.end(), piece.begin(), piece.end());
        return netvane::Status{};
    });
    if (!status.ok()) std::abort();
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane;
    auto document = plist::decode(std::span(data, size));
    if (!document) return 0;
    auto histories = HistoryStore::decode(*document);
    if (!histories) return 0;

    for (const auto& [name, history] : *histories) {
        for (const double period : {std::numeric_limits<double>::infinity(), 3600.0}) {
            for (const double now : {0.0, 1e9}) (void)history.aggregate(period, Date{now});
        }
    }

    const plist::Data streamed = written(*histories);
    auto whole = plist::encodeBinary(HistoryStore::encode(*histories));
    if (!whole || *whole != streamed) std::abort();

    auto reread = plist::decode(streamed);
    if (!reread) std::abort();
    auto again = HistoryStore::decode(*reread);
    if (!again || written(*again) != streamed) std::abort();
    return 0;
}
