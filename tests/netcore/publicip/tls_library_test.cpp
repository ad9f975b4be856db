#include "netcore/publicip/linux/tls_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "netcore/publicip/linux/byte_stream.h"

namespace netvane {
namespace {

using ::testing::HasSubstr;

TEST(TLSLibrary, LoadsOnceForTheWholeProcess) {
    auto first = tlsLibrary();
    ASSERT_TRUE(first) << first.error().message;
    auto again = tlsLibrary();
    ASSERT_TRUE(again);
    EXPECT_EQ(*first, *again);
    // The library answers: a fresh context can be made and freed.
    const TLSLibrary& t = **first;
    SSL_CTX* context = t.SSL_CTX_new(t.TLS_client_method());
    ASSERT_NE(context, nullptr);
    t.SSL_CTX_free(context);
}

TEST(TLSLibrary, AMissingLibraryIsAnErrorThatNamesIt) {
    auto loaded = loadTLSLibrary("libnetvane-absent-tls.so.3");
    ASSERT_FALSE(loaded);
    EXPECT_EQ(loaded.error().domain, kTLSErrorDomain);
    EXPECT_THAT(loaded.error().message, HasSubstr("cannot load libnetvane-absent-tls.so.3"));
}

TEST(TLSLibrary, ALibraryWithoutTheFunctionsIsRefused) {
    auto loaded = loadTLSLibrary("libc.so.6");
    ASSERT_FALSE(loaded);
    EXPECT_THAT(loaded.error().message, HasSubstr("libc.so.6 has no BIO_clear_flags"));
}

}  // namespace
}  // namespace netvane
