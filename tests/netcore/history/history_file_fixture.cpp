// Writes a known history file for the interop test: history_file_fixture OUT.
// en0 gets ten 30-second samples from 1000 s on (sample i moves 1000*(i+1)
// bytes in and i out; the last one 2^53 in); lo0 never moves a byte.
#include <cstdio>

#include "netcore/history/history_store.h"

int main(int argc, char** argv) {
    using namespace netvane;
    if (argc != 2) {
        std::fprintf(stderr, "usage: history_file_fixture OUT\n");
        return 2;
    }
    const RateHistory::Retention retention{3600, 7 * 86400, 365 * 86400};
    HistorySet histories{{"en0", RateHistory(retention)}, {"lo0", RateHistory(retention)}};
    for (std::uint64_t i = 0; i < 10; ++i) {
        std::uint64_t in = i == 9 ? std::uint64_t{1} << 53 : 1000 * (i + 1);
        histories["en0"].add(RateSample{Date{1000.0 + 30.0 * static_cast<double>(i)}, 30, in, i});
        histories["lo0"].add(RateSample{Date{1000.0 + 30.0 * static_cast<double>(i)}, 30, 0, 0});
    }
    Status saved = HistoryStore(argv[1]).save(histories);
    if (!saved) {
        std::fprintf(stderr, "history_file_fixture: %s\n", saved.error().message.c_str());
        return 1;
    }
    return 0;
}
