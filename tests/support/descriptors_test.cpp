#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/descriptors.h"

namespace netvane {
namespace {

bool closeOnExec(int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }
bool nonBlocking(int fd) { return (::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

TEST(Descriptors, SocketsAreCloseOnExec) {
    UniqueFd fd = openSocket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_TRUE(fd);
    EXPECT_TRUE(closeOnExec(fd.get()));
    EXPECT_FALSE(nonBlocking(fd.get()));
    EXPECT_FALSE(openSocket(-1, SOCK_DGRAM, 0));
}

TEST(Descriptors, PipeEndsAreCloseOnExecAndNonBlockingOnlyWhenAsked) {
    auto blocking = openPipe(false);
    ASSERT_TRUE(blocking);
    for (int fd : {blocking->readEnd.get(), blocking->writeEnd.get()}) {
        EXPECT_TRUE(closeOnExec(fd));
        EXPECT_FALSE(nonBlocking(fd));
    }
    auto polled = openPipe(true);
    ASSERT_TRUE(polled);
    for (int fd : {polled->readEnd.get(), polled->writeEnd.get()}) {
        EXPECT_TRUE(closeOnExec(fd));
        EXPECT_TRUE(nonBlocking(fd));
    }
    const char byte = 'x';
    ASSERT_EQ(::write(polled->writeEnd.get(), &byte, 1), 1);
    char read = 0;
    EXPECT_EQ(::read(polled->readEnd.get(), &read, 1), 1);
    EXPECT_EQ(read, 'x');
}

}  // namespace
}  // namespace netvane
