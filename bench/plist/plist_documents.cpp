#include "plist_documents.h"

#include <cstring>

namespace netvane::bench {

plist::Value pairingFile(std::size_t pairings) {
    plist::Array array;
    for (std::size_t i = 0; i < pairings; ++i) {
        plist::Data digest(32);
        for (std::size_t b = 0; b < digest.size(); ++b) digest[b] = static_cast<std::uint8_t>(i * 7 + b);
        array.emplace_back(plist::Dictionary{{"digest", std::move(digest)},
                                             {"uid", 500 + static_cast<int>(i % 50)},
                                             {"created", Date{7e8 + static_cast<double>(i)}}});
    }
    return array;
}

plist::Value frameTree(std::size_t objects) {
    // Each frame is a dictionary with 4 values and 4 keys: ~9 objects.
    plist::Array frames;
    for (std::size_t i = 0; i * 9 < objects; ++i) {
        frames.emplace_back(plist::Dictionary{
            {"selector", "statusWithToken:reply:"},
            {"seq", static_cast<long long>(i)},
            {"token", "tok-" + std::to_string(i)},
            {"paired", i % 2 == 0},
        });
    }
    return frames;
}

plist::Value blobDocument(std::size_t interfaces, std::size_t totalBytes) {
    const std::size_t blobs = interfaces * 3;
    const std::size_t each = totalBytes / blobs / 64 * 64;
    plist::Dictionary byInterface;
    for (std::size_t i = 0; i < interfaces; ++i) {
        plist::Dictionary tiers;
        for (const char* tier : {"raw", "minute", "hour"}) {
            plist::Data data(each);
            // Distinct contents: a real history never repeats a tier, and equal
            // blobs would let a deduplicating writer skip most of the work.
            const std::size_t blob = i * 3 + tiers.size();
            for (std::size_t b = 0; b + 8 <= each; b += 8) std::memcpy(&data[b], &blob, sizeof blob);
            data[each - 1] = static_cast<std::uint8_t>(blob);
            tiers.append(tier, std::move(data));
        }
        byInterface.append("veth" + std::to_string(i), std::move(tiers));
    }
    return plist::Dictionary{{"version", 1}, {"interfaces", std::move(byInterface)}};
}

std::vector<NamedDocument> allDocuments() {
    return {
        {"pairings_1", pairingFile(1)},
        {"pairings_100", pairingFile(100)},
        {"pairings_10000", pairingFile(10000)},
        {"frames_100000", frameTree(100000)},
        {"blobs_50MB", blobDocument(100, 50 << 20)},
    };
}

}  // namespace netvane::bench
