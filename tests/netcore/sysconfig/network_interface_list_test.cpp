#include "netcore/sysconfig/network_interface_list.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace netvane {
namespace {

NetworkInterface named(std::string name) {
    NetworkInterface interface;
    interface.bsdName = std::move(name);
    return interface;
}

// A stand-in for the system's interface objects: each node names the one it
// is layered on ("" at the bottom).
struct Graph {
    std::map<std::string, std::string> below;

    NetworkInterface chainFrom(const std::string& top) const {
        return describeInterfaceChain(
            below.find(top)->first.c_str(),
            [](const char* name) { return named(name); },
            [this](const char* name) -> const char* {
                const std::string& next = below.at(name);
                return next.empty() ? nullptr : below.find(next)->first.c_str();
            });
    }
};

std::size_t depthOf(const NetworkInterface& interface) {
    std::size_t depth = 1;
    for (const NetworkInterface* layer = &interface; !layer->underlying.empty(); layer = &layer->underlying.front()) {
        EXPECT_EQ(layer->underlying.size(), 1u);
        ++depth;
    }
    return depth;
}

TEST(InterfaceChain, FollowsEveryLayerToTheBottomInOrder) {
    const Graph graph{{{"ppp0", "modem"}, {"modem", "serial"}, {"serial", ""}}};
    const NetworkInterface chain = graph.chainFrom("ppp0");
    ASSERT_EQ(depthOf(chain), 3u);
    EXPECT_EQ(chain.bsdName, "ppp0");
    EXPECT_EQ(chain.underlying[0].bsdName, "modem");
    EXPECT_EQ(chain.underlying[0].underlying[0].bsdName, "serial");

    const NetworkInterface alone = graph.chainFrom("serial");
    EXPECT_EQ(alone, named("serial"));
}

TEST(InterfaceChain, CircularOrEndlessChainIsCutAtTheLayerLimit) {
    const Graph circle{{{"a", "b"}, {"b", "a"}}};
    const NetworkInterface chain = circle.chainFrom("a");
    EXPECT_EQ(depthOf(chain), kMaxInterfaceLayers);

    const Graph self{{{"loop", "loop"}}};
    EXPECT_EQ(depthOf(self.chainFrom("loop")), kMaxInterfaceLayers);
}

TEST(InterfaceChain, LayersBelowTheTopComeOnlyFromTheChain) {
    // A describer that reports layers of its own must not add a second
    // branch: each interface is layered on exactly one other, or none.
    const NetworkInterface bottom = describeInterfaceChain(
        0, [](int n) {
            NetworkInterface layer = named(std::to_string(n));
            layer.underlying.emplace_back();
            return layer;
        },
        [](int) { return 0; });
    EXPECT_EQ(bottom, named("0"));

    const NetworkInterface chain = describeInterfaceChain(
        2, [](int n) {
            NetworkInterface layer = named(std::to_string(n));
            layer.underlying.emplace_back();
            return layer;
        },
        [](int n) { return n - 1; });
    ASSERT_EQ(depthOf(chain), 2u);
    EXPECT_EQ(chain.underlying[0].bsdName, "1");
    EXPECT_TRUE(chain.underlying[0].underlying.empty());
}

}  // namespace
}  // namespace netvane
