// SPDX-License-Identifier: ISC
// Descriptors that the library keeps: out of the programs that a service starts, and never in the
// place of its standard input, output or error.

#include "os/descriptor.h"

#include "support/process.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

int open_null()
{
    return open("/dev/null", O_WRONLY);
}

bool is_marked(int fd)
{
    return fcntl(fd, F_GETFD) == FD_CLOEXEC;
}

} // namespace

TEST(Descriptor, KeepsItsNumberAboveStandardError)
{
    const int fd = open_null();
    ASSERT_GT(fd, STDERR_FILENO);
    EXPECT_FALSE(is_marked(fd));
    EXPECT_EQ(bv::keep_descriptor(fd), fd);
    EXPECT_TRUE(is_marked(fd));
    close(fd);
}

TEST(Descriptor, AvoidsTheNumbersOfTheStandardStreams)
{
    WithoutStdin closed;
    const int low = open_null();
    ASSERT_EQ(low, STDIN_FILENO);
    const int fd = bv::keep_descriptor(low);
    EXPECT_GT(fd, STDERR_FILENO);
    EXPECT_TRUE(is_marked(fd));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "the low one stayed open";
    close(fd);
}

TEST(Descriptor, IsNotOpenedWhereOnlyThoseAreFree)
{
    WithoutStdin closed;
    const int low = open_null();
    ASSERT_EQ(low, STDIN_FILENO);
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit three = {3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &three), 0);

    const int fd = bv::keep_descriptor(low);
    const int error = errno;
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(fd, -1);
    EXPECT_NE(error, 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "the low one stayed open";
}

TEST(Descriptor, FailureOfTheCallIsKept)
{
    errno = EMFILE;
    EXPECT_EQ(bv::keep_descriptor(-1), -1);
    EXPECT_EQ(errno, EMFILE);
}
