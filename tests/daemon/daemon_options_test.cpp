#include "daemon/daemon_options.h"

#include <gtest/gtest.h>

#include <vector>

namespace netvane {
namespace {

const DaemonOptionDefaults kLinux{"/var/lib/x", "/run/x"};
const DaemonOptionDefaults kWithoutRuntime{"/Library/X", ""};

Result<DaemonOptions> parse(std::vector<const char*> args, const DaemonOptionDefaults& defaults = kLinux) {
    return parseDaemonOptions(args, defaults);
}

TEST(DaemonOptions, DefaultsBothSpellingsAndHelp) {
    EXPECT_EQ(parse({}).value(), (DaemonOptions{"/var/lib/x", "/run/x", false, false}));
    EXPECT_EQ(parse({"--state-dir", "/s", "--runtime-dir=/r", "--foreground"}).value(),
              (DaemonOptions{"/s", "/r", true, false}));
    EXPECT_EQ(parse({"--state-dir=/s"}, kWithoutRuntime).value(), (DaemonOptions{"/s", "", false, false}));
    EXPECT_TRUE(parse({"-h"}).value().help);
    EXPECT_TRUE(parse({"--foreground", "--help"}).value().help);
}

TEST(DaemonOptions, EachMistakeIsNamed) {
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"--state-dir"}, "--state-dir needs a directory"},
        {{"--state-dir="}, "--state-dir needs a directory, not an empty text"},
        {{"--state-dir", "/a", "--state-dir", "/b"}, "--state-dir is given twice"},
        {{"--foreground", "--foreground"}, "--foreground is given twice"},
        {{"--foreground=yes"}, "unknown option: --foreground=yes"},
        {{"--verbose"}, "unknown option: --verbose"},
        {{"extra"}, "unexpected operand: extra"},
    };
    for (const auto& [args, message] : cases) {
        auto parsed = parse(args);
        ASSERT_FALSE(parsed.ok()) << message;
        EXPECT_EQ(parsed.error().message, message);
    }
    EXPECT_EQ(parse({"--runtime-dir", "/r"}, kWithoutRuntime).error().message, "unknown option: --runtime-dir")
        << "a platform without sockets has no such option";
}

}  // namespace
}  // namespace netvane
