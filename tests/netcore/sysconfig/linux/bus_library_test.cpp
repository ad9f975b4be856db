#include "netcore/sysconfig/linux/bus_library.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

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
    ASSERT_GE(sd().sd_bus_new(&raw), 0);
    Bus bus(raw);
    ASSERT_GE(sd().sd_bus_set_address(bus.get(), "unix:path=/nonexistent/netvane-bus"), 0);
    const int started = sd().sd_bus_start(bus.get());
    EXPECT_LT(started, 0);
    EXPECT_NE(started, -ELIBACC);

    sd_bus_error error = SD_BUS_ERROR_NULL;
    EXPECT_FALSE(sd().sd_bus_error_is_set(&error));
    sd().sd_bus_error_free(&error);
}

// Where the dynamic loader finds the library, from its cache, without
// loading it into this process.
std::string libraryPath() {
    FILE* cache = ::popen("ldconfig -p 2>/dev/null", "r");
    if (!cache) return "";
    std::string found;
    char line[1024];
    const std::string prefix = std::string(kBusLibraryName) + " (";
    while (std::fgets(line, sizeof line, cache)) {
        const std::string text(line);
        const auto arrow = text.find("=> ");
        if (found.empty() && text.find(prefix) != std::string::npos && arrow != std::string::npos) {
            found = text.substr(arrow + 3, text.find_last_not_of("\n") - arrow - 2);
        }
    }
    ::pclose(cache);
    char real[PATH_MAX];
    return !found.empty() && ::realpath(found.c_str(), real) ? real : "";
}

// In a mount namespace of its own, the library's file holds nothing; the
// process must report why it has no bus and crash nowhere.
[[noreturn]] void runWithoutTheLibrary(const std::string& path) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("/dev/null", path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        std::fprintf(stderr, "cannot hide %s: %s\n", path.c_str(), std::strerror(errno));
        ::_exit(2);
    }
    // An address of its own: without the usual socket, no library is needed
    // to know there is no bus.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/netvane-bus", 1);
    auto opened = openSystemBus();
    if (opened) ::_exit(3);
    std::fprintf(stderr, "%s\n", opened.error().message.c_str());
    sd_bus* raw = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const bool quiet = sd().sd_bus_open_system(&raw) == -ELIBACC && raw == nullptr &&
                       sd().sd_bus_message_unref(nullptr) == nullptr && sd().sd_bus_slot_unref(nullptr) == nullptr &&
                       sd().sd_bus_flush_close_unref(nullptr) == nullptr && !sd().sd_bus_error_is_set(&error) &&
                       busLibraryFailure() == opened.error().message.substr(opened.error().message.find("cannot load"));
    sd().sd_bus_error_free(&error);
    ::_exit(quiet ? 0 : 4);
}

TEST(BusLibraryDeathTest, WithoutTheLibraryOpeningABusFailsWithTheLoadersReason) {
    if (::geteuid() != 0) GTEST_SKIP() << "hiding the library needs a mount namespace of our own";
    const std::string path = libraryPath();
    ASSERT_FALSE(path.empty()) << "the loader's cache does not list " << kBusLibraryName;
    // A fresh process: this one has the library loaded already.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runWithoutTheLibrary(path), testing::ExitedWithCode(0),
                "create a bus connection: cannot load libsystemd\\.so\\.0: ");
}

bool libraryIsLoaded() {
    FILE* maps = std::fopen("/proc/self/maps", "r");
    if (!maps) return true;
    bool found = false;
    char line[1024];
    while (std::fgets(line, sizeof line, maps)) found = found || std::strstr(line, kBusLibraryName) != nullptr;
    std::fclose(maps);
    return found;
}

// With no system bus socket, asking for the system bus answers at once, and
// the library stays unloaded.
[[noreturn]] void openWithoutASystemBus() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        (::mkdir("/run/dbus", 0755) != 0 && errno != EEXIST) ||
        ::mount("tmpfs", "/run/dbus", "tmpfs", 0, nullptr) != 0) {
        std::fprintf(stderr, "cannot hide the system bus: %s\n", std::strerror(errno));
        ::_exit(2);
    }
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (libraryIsLoaded()) ::_exit(3);
    auto opened = openSystemBus();
    if (opened) ::_exit(4);
    std::fprintf(stderr, "%s\n", opened.error().message.c_str());
    ::_exit(opened.error().code == ENOENT && !libraryIsLoaded() ? 0 : 5);
}

TEST(BusLibraryDeathTest, WithoutASystemBusTheLibraryIsNotLoaded) {
    if (::geteuid() != 0) GTEST_SKIP() << "hiding the system bus needs a mount namespace of our own";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(openWithoutASystemBus(), testing::ExitedWithCode(0), "connect to the system bus: No such file");
}

}  // namespace
}  // namespace netvane::bus
