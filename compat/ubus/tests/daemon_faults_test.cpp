// SPDX-License-Identifier: ISC
// The daemon's own code in a child of the test, where system calls fail on demand.

#include <cstring>
#include <memory>

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>

#include "support/child.h"
#include "support/faults.h"
#include "support/process.h"
#include "support/wire.h"

extern "C" {
#include <libubox/uloop.h>

void objects_init(void);
bool clients_listen(const char *path);
}

using namespace wire;

namespace {

constexpr const char *kPath = "/scratch/bus.sock";

// What is to fail, shared with the child. Counts go down with each failure.
struct Faults {
    std::atomic<bool> account;
    std::atomic<int> account_error; // 0: the account does not exist
    std::atomic<int> accepting;
    std::atomic<int> watching;
};
Faults *g_faults = share_with_children<Faults>();

bool strikes(std::atomic<int> &count)
{
    return count > 0 && count-- > 0;
}

class DaemonFaults : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(eventually([] { return Stream().dial(kPath); }));
    }

    Service daemon{[] {
        objects_init();
        if (uloop_init() == 0 && clients_listen(kPath))
            uloop_run();
        return 0;
    }};
};

} // namespace

extern "C" passwd *getpwuid(uid_t uid)
{
    if (g_faults->account) {
        errno = g_faults->account_error;
        return nullptr;
    }
    return next_function<passwd *(uid_t)>("getpwuid")(uid);
}

extern "C" int accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
    if (strikes(g_faults->accepting)) {
        errno = EMFILE;
        return -1;
    }
    return next_function<int(int, sockaddr *, socklen_t *, int)>("accept4")(fd, address, length,
                                                                            flags);
}

extern "C" int uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
    if (g_faults->accepting == 0 && strikes(g_faults->watching)) {
        errno = ENOMEM;
        return -1;
    }
    return next_function<int(struct uloop_fd *, unsigned int)>("uloop_fd_add")(sock, flags);
}

// Owners decide by the names: a client without them would pass for one without an account.
TEST_F(DaemonFaults, ClientWhoseAccountCannotBeLookedUpIsRefused)
{
    g_faults->account = true;
    for (int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
        g_faults->account_error = error;
        Stream client;
        ASSERT_TRUE(client.dial(kPath));
        EXPECT_TRUE(client.read().empty()) << error;
        EXPECT_TRUE(client.ends(0)) << error;
    }
    for (int error : {0, ENOENT}) { // no such account: that is an answer
        g_faults->account_error = error;
        Client client(kPath);
        EXPECT_TRUE(client.is_in_step()) << error;
    }
    g_faults->account = false;
    Client client(kPath);
    EXPECT_TRUE(client.is_in_step());
}

TEST_F(DaemonFaults, AcceptingGoesOnHoweverOftenItFails)
{
    g_faults->watching = 3; // on the way back
    g_faults->accepting = 2;
    Client client(kPath);
    EXPECT_TRUE(client.is_in_step());
    EXPECT_EQ(g_faults->watching, 0);
}
