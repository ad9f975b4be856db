// The floors and measurements of the Linux reader (bench/README.md):
// - TunnelScanFloor: the least any scan of the tunnel owners' kind does,
//   listing every process's descriptors and reading each one's link, and
//   nothing else;
// - LinkDumpFull / LinkDumpCompact: the full link dump, against the compact
//   IPv6 link dump and the statistics dump that stand in for it.
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "netcore/shim/linux/nv_linux_netlink.h"

namespace {

bool allDigits(const char* name) {
    if (*name == '\0') return false;
    for (; *name; ++name) {
        if (*name < '0' || *name > '9') return false;
    }
    return true;
}

// Every descriptor of one process, its link read; how many were read.
std::size_t readLinksOf(int proc, const char* pid) {
    const std::string path = std::string(pid) + "/fd";
    const int fds = ::openat(proc, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fds < 0) return 0;
    DIR* dir = ::fdopendir(fds);
    if (dir == nullptr) {
        ::close(fds);
        return 0;
    }
    std::size_t read = 0;
    char target[64];
    while (const dirent* entry = ::readdir(dir)) {
        if (allDigits(entry->d_name) && ::readlinkat(fds, entry->d_name, target, sizeof target) > 0) ++read;
    }
    ::closedir(dir);
    return read;
}

void TunnelScanFloor(benchmark::State& state) {
    std::size_t links = 0;
    for (auto _ : state) {
        links = 0;
        const int proc = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* dir = ::fdopendir(::dup(proc));
        while (const dirent* entry = dir ? ::readdir(dir) : nullptr) {
            if (allDigits(entry->d_name)) links += readLinksOf(proc, entry->d_name);
        }
        if (dir) ::closedir(dir);
        ::close(proc);
        benchmark::DoNotOptimize(links);
    }
    state.counters["links"] = static_cast<double>(links);
}
BENCHMARK(TunnelScanFloor)->Unit(benchmark::kMillisecond);

// One dump of `type` with the family header given; the messages it brought.
template <class Header>
std::size_t dumpOnce(nv_nl_socket_t* socket, std::uint16_t request, std::uint16_t reply, const Header& header) {
    nv_nl_request_t message;
    std::memcpy(nv_nl_request(&message, request, 0, sizeof header), &header, sizeof header);
    std::size_t messages = 0;
    nv_nl_dump_t dump{};
    dump.type = reply;
    dump.visit = [](const nlmsghdr*, void* count) { ++*static_cast<std::size_t*>(count); };
    dump.context = &messages;
    dump.attempts = 1;
    return nv_nl_dump(socket, &message, &dump) ? messages : 0;
}

void LinkDumpFull(benchmark::State& state) {
    const netvane::NetlinkSocket socket(nv_nl_open(NETLINK_ROUTE));
    ifinfomsg links{};
    std::size_t messages = 0;
    for (auto _ : state) messages = dumpOnce(socket.get(), RTM_GETLINK, RTM_NEWLINK, links);
    state.counters["links"] = static_cast<double>(messages);
}
BENCHMARK(LinkDumpFull)->Unit(benchmark::kMicrosecond);

void LinkDumpCompact(benchmark::State& state) {
    const netvane::NetlinkSocket socket(nv_nl_open(NETLINK_ROUTE));
    ifinfomsg links{};
    links.ifi_family = AF_INET6;
    if_stats_msg stats{};
    stats.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
    std::size_t messages = 0;
    for (auto _ : state) {
        messages = dumpOnce(socket.get(), RTM_GETLINK, RTM_NEWLINK, links);
        messages += dumpOnce(socket.get(), RTM_GETSTATS, RTM_NEWSTATS, stats);
    }
    state.counters["messages"] = static_cast<double>(messages);
}
BENCHMARK(LinkDumpCompact)->Unit(benchmark::kMicrosecond);

}  // namespace
