// Writes a history file with known traffic for the chart's end-to-end test:
// chart_history_fixture OUT NOW, NOW in seconds since the reference date.
// eth0 is recorded every 10 s over the six hours before NOW: 50 KB/s in and
// 5 KB/s out for three hours, then 2 MB/s in and 200 KB/s out for two hours
// with a pause of 20 minutes after the first, then 300 KB/s in and 1 MB/s out.
// Raw samples are kept for 30 minutes and minutes for two hours, so the chart
// draws from all three tiers. "once" holds a single reading.
#include <cstdio>
#include <cstdlib>

#include "netcore/history/history_store.h"

int main(int argc, char** argv) {
    using namespace netvane;
    if (argc != 3) {
        std::fprintf(stderr, "usage: chart_history_fixture OUT NOW\n");
        return 2;
    }
    const double now = std::strtod(argv[2], nullptr);
    const double start = now - 6 * 3600;
    const RateHistory::Retention retention{1800, 7200, 90 * 86400};
    HistorySet histories{{"eth0", RateHistory(retention)}, {"once", RateHistory(retention)}};
    for (double end = start + 10; end <= now; end += 10) {
        const double offset = end - start;
        if (offset > 4 * 3600 && offset <= 4 * 3600 + 1200) continue;
        std::uint64_t in = 500000, out = 50000;
        if (offset > 5 * 3600) {
            in = 3000000, out = 10000000;
        } else if (offset > 3 * 3600) {
            in = 20000000, out = 2000000;
        }
        histories["eth0"].add(RateSample{Date{end}, 10, in, out});
        histories["eth0"].prune(Date{end});
    }
    histories["once"].add(RateSample{Date{now - 4000}, 1, 1234, 0});
    Status saved = HistoryStore(argv[1]).save(histories);
    if (!saved) {
        std::fprintf(stderr, "chart_history_fixture: %s\n", saved.error().message.c_str());
        return 1;
    }
    return 0;
}
