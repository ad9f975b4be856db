#include "netcore/sysconfig/linux/bus_library.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "netcore/sysconfig/linux/bus.h"

namespace netvane::bus {
namespace {

TEST(BusLibrary, AMissingLibraryIsAnErrorThatSaysWhy) {
    auto loaded = loadBusLibrary("libnetvane-absent-bus.so.0");
    ASSERT_FALSE(loaded);
    EXPECT_EQ(loaded.error().domain, kBusErrorDomain);
    EXPECT_EQ(loaded.error().code, ELIBACC);
    EXPECT_EQ(loaded.error().message.rfind("cannot load libnetvane-absent-bus.so.0: ", 0), 0u) << loaded.error().message;
    // The loader's own reason follows, not just our words.
    EXPECT_NE(loaded.error().message.find("cannot open shared object file"), std::string::npos)
        << loaded.error().message;
}

TEST(BusLibrary, ALibraryWithoutTheBusFunctionsIsRefusedAsAWhole) {
    auto loaded = loadBusLibrary("libc.so.6");
    ASSERT_FALSE(loaded);
    EXPECT_EQ(loaded.error().code, ELIBACC);
    EXPECT_NE(loaded.error().message.find("cannot load libc.so.6: it lacks sd_bus_"), std::string::npos)
        << loaded.error().message;
}

TEST(BusLibrary, TheSystemsLibraryLoadsWithEveryFunction) {
    auto loaded = loadBusLibrary(kBusLibraryName);
    ASSERT_TRUE(loaded) << loaded.error().message;
    EXPECT_NE(loaded->get(), nullptr);
    EXPECT_EQ(busLibraryFailure(), "");
}

TEST(BusLibrary, ResultsDescribeTheirErrnoOnceTheLibraryIsLoaded) {
    EXPECT_EQ(describeBusResult(-ENOENT), std::strerror(ENOENT));
    EXPECT_EQ(describeBusResult(-ELIBACC), std::strerror(ELIBACC));
    EXPECT_EQ(errorFrom(-ECONNREFUSED, "connect").message, std::string("connect: ") + std::strerror(ECONNREFUSED));
}

TEST(BusLibrary, ForwardedFunctionsReachTheLibrary) {
    // Conversations on a real bus go through the integration tests; here,
    // the library's own answer arrives, not the loader's.
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_new(&raw), 0);
    Bus bus(raw);
    ASSERT_GE(sd_bus_set_address(bus.get(), "unix:path=/nonexistent/netvane-bus"), 0);
    const int started = sd_bus_start(bus.get());
    EXPECT_LT(started, 0);
    EXPECT_NE(started, -ELIBACC);

    sd_bus_error error = SD_BUS_ERROR_NULL;
    EXPECT_FALSE(sd_bus_error_is_set(&error));
    sd_bus_error_free(&error);
}

}  // namespace
}  // namespace netvane::bus
