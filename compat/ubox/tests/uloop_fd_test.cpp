/* SPDX-License-Identifier: ISC */
#include "loop_support.h"

#include "support/loopback.h"

#include <cerrno>
#include <memory>
#include <netinet/in.h>
#include <poll.h>

namespace {

using UloopFd = LoopTest;

// What a callback was told: events, eof, error, and whether it was still registered.
struct Seen {
    unsigned int events;
    bool eof, error, registered;

    bool operator==(const Seen &o) const
    {
        return events == o.events && eof == o.eof && error == o.error && registered == o.registered;
    }
};

std::ostream &operator<<(std::ostream &out, const Seen &s)
{
    return out << "{events " << s.events << ", eof " << s.eof << ", error " << s.error
               << ", registered " << s.registered << "}";
}

struct Recorder : Fd {
    std::vector<Seen> seen;

    explicit Recorder(int number) : Fd(number)
    {
        on = [this](Fd &self, unsigned int events) {
            seen.push_back({events, self.eof, self.error, self.registered});
            EXPECT_TRUE(self.registered || self.flags == 0);
        };
    }
    ~Recorder() { uloop_fd_delete(this); }

    // Several turns; those without an event return at once.
    void turn(int times = 3)
    {
        for (int i = 0; i < times; i++)
            uloop_run_timeout(0);
    }
};

// One row of the table of situations: reported each turn, or once and then unregistered. With
// ULOOP_ERROR_CB an error is reported each turn too.
void expect_row(const std::function<int()> &prepare, unsigned int flags, Seen expected)
{
    for (unsigned int extra : {0u, static_cast<unsigned int>(ULOOP_ERROR_CB)}) {
        SCOPED_TRACE(extra ? "with ULOOP_ERROR_CB" : "without ULOOP_ERROR_CB");
        Recorder fd(prepare());
        bool once = expected.error && !extra;

        ASSERT_EQ(uloop_fd_add(&fd, flags | extra), 0);
        pollfd ready = {fd.fd, POLLIN, 0};
        if (!(flags & ULOOP_WRITE))
            poll(&ready, 1, 2000);
        fd.turn();
        Seen told = {expected.events, expected.eof, expected.error, !once};
        EXPECT_EQ(fd.seen, std::vector<Seen>(once ? 1 : 3, told));
        EXPECT_EQ(fd.registered, !once);
        uloop_fd_delete(&fd);
        close(fd.fd);
    }
}

int release(int &fd)
{
    int number = fd;
    fd = -1;
    return number;
}

// Keeps the peers of one row open until the next.
std::unique_ptr<Ends> g_peer;

template <typename Kind>
Ends &fresh()
{
    g_peer = std::make_unique<Kind>();
    return *g_peer;
}

// The situations: each gives the descriptor to watch.

int unread_socket()
{
    Ends &pair = fresh<SocketPair>();
    send_byte(pair.b);
    return release(pair.a);
}

int idle_socket()
{
    return release(fresh<SocketPair>().a);
}

int socket_whose_peer_ended_sending()
{
    Ends &pair = fresh<SocketPair>();
    shutdown(pair.b, SHUT_WR);
    return release(pair.a);
}

int socket_whose_peer_closed()
{
    Ends &pair = fresh<SocketPair>();
    Ends::close_end(pair.b);
    return release(pair.a);
}

int pipe_whose_writer_closed()
{
    Ends &pipe = fresh<Pipe>();
    Ends::close_end(pipe.b);
    return release(pipe.a);
}

int pipe_whose_writer_left_a_byte()
{
    Ends &pipe = fresh<Pipe>();
    send_byte(pipe.b);
    Ends::close_end(pipe.b);
    return release(pipe.a);
}

int pipe_whose_reader_closed()
{
    Ends &pipe = fresh<Pipe>();
    Ends::close_end(pipe.a);
    return release(pipe.b);
}

TEST_F(UloopFd, InputIsReportedWhileItIsUnread)
{
    expect_row(unread_socket, ULOOP_READ, {ULOOP_READ, false, false, true});
}

TEST_F(UloopFd, OutputRoomIsReportedWhileThereIsSome)
{
    expect_row(idle_socket, ULOOP_WRITE, {ULOOP_WRITE, false, false, true});
    expect_row(unread_socket, ULOOP_READ | ULOOP_WRITE,
               {ULOOP_READ | ULOOP_WRITE, false, false, true});
}

TEST_F(UloopFd, EndOfThePeersSendingSideIsEofAndRepeats)
{
    expect_row(socket_whose_peer_ended_sending, ULOOP_READ, {ULOOP_READ, true, false, true});
}

TEST_F(UloopFd, ClosedSocketPeerIsAnError)
{
    expect_row(socket_whose_peer_closed, ULOOP_READ, {ULOOP_READ, true, true, false});
    expect_row(socket_whose_peer_closed, ULOOP_WRITE, {ULOOP_WRITE, false, true, false});
}

TEST_F(UloopFd, ClosedPipeWriterIsAnErrorWithoutEvents)
{
    expect_row(pipe_whose_writer_closed, ULOOP_READ, {0, false, true, false});
}

TEST_F(UloopFd, ClosedPipeWriterThatLeftDataIsAnErrorWithRead)
{
    expect_row(pipe_whose_writer_left_a_byte, ULOOP_READ, {ULOOP_READ, false, true, false});
}

TEST_F(UloopFd, ClosedPipeReaderIsAnErrorWithWrite)
{
    expect_row(pipe_whose_reader_closed, ULOOP_WRITE, {ULOOP_WRITE, false, true, false});
}

// An address on the loopback interface without a listener.
sockaddr_in unused_address(int type)
{
    sockaddr_in addr = loopback();
    socklen_t size = sizeof(addr);
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);

    bind(fd, generic(addr), sizeof(addr));
    getsockname(fd, generic(addr), &size);
    close(fd);
    return addr;
}

int connect_to_unused(int type)
{
    sockaddr_in addr = unused_address(type);
    int fd = socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);

    connect(fd, generic(addr), sizeof(addr));
    return fd;
}

TEST_F(UloopFd, RefusedConnectIsAnErrorWithEverything)
{
    expect_row([] { return connect_to_unused(SOCK_STREAM); }, ULOOP_READ | ULOOP_WRITE,
               {ULOOP_READ | ULOOP_WRITE, true, true, false});
}

TEST_F(UloopFd, UnreachableUdpPeerIsAnErrorWithoutEvents)
{
    expect_row(
        [] {
            int fd = connect_to_unused(SOCK_DGRAM);
            send_byte(fd);
            return fd;
        },
        ULOOP_READ, {0, false, true, false});
}

TEST_F(UloopFd, AddingAgainClearsEofAndError)
{
    SocketPair pair;
    Recorder fd(pair.a);

    ASSERT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    Ends::close_end(pair.b);
    fd.turn(1);
    EXPECT_TRUE(fd.eof && fd.error);
    EXPECT_EQ(uloop_fd_delete(&fd), 0);
    EXPECT_TRUE(fd.eof && fd.error);
    EXPECT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    EXPECT_FALSE(fd.eof || fd.error);
}

TEST_F(UloopFd, EachTurnCallsBackOnceInOrderOfReadiness)
{
    std::vector<std::unique_ptr<SocketPair>> pairs;
    std::vector<std::unique_ptr<Fd>> fds;
    std::vector<int> order;

    for (int i = 0; i < 12; i++) {
        pairs.push_back(std::make_unique<SocketPair>());
        fds.push_back(std::make_unique<Fd>(pairs.back()->a, [&order, i](Fd &self, unsigned int) {
            order.push_back(i);
            read_all(self.fd);
        }));
        ASSERT_EQ(uloop_fd_add(fds.back().get(), ULOOP_READ), 0);
    }
    for (int i = 11; i >= 0; i--)
        send_byte(pairs[static_cast<size_t>(i)]->b);

    for (size_t turn = 1; turn <= 12; turn++) {
        uloop_run_timeout(0);
        EXPECT_EQ(order.size(), turn);
    }
    EXPECT_EQ(order, (std::vector<int>{11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0}));
    for (auto &fd : fds)
        EXPECT_EQ(uloop_fd_delete(fd.get()), 0);
}

TEST_F(UloopFd, TimersComeBetweenTwoDescriptors)
{
    std::string order;
    SocketPair one, two;
    Watchdog watchdog;
    Timer timer([&](Timer &) { order += "t"; });
    auto on = [&](Fd &self, unsigned int) {
        order += "f";
        read_all(self.fd);
        if (order == "f")
            uloop_timeout_set(&timer, 0);
        else
            uloop_end();
    };
    Fd first(one.a, on), second(two.a, on);

    uloop_fd_add(&first, ULOOP_READ);
    uloop_fd_add(&second, ULOOP_READ);
    send_byte(one.b);
    send_byte(two.b);
    uloop_run();
    EXPECT_EQ(order, "ftf");
    uloop_fd_delete(&first);
    uloop_fd_delete(&second);
}

TEST_F(UloopFd, FetchedEventIsDeliveredThoughItsCauseIsGone)
{
    int calls = 0;
    SocketPair one, two;
    auto on = [&](Fd &, unsigned int) {
        calls++;
        read_all(one.a);
        read_all(two.a);
    };
    Fd first(one.a, on), second(two.a, on);

    uloop_fd_add(&first, ULOOP_READ);
    uloop_fd_add(&second, ULOOP_READ);
    send_byte(one.b);
    send_byte(two.b);
    uloop_run_timeout(0);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 2);
    uloop_fd_delete(&first);
    uloop_fd_delete(&second);
}

class UloopFdDeletes : public LoopTest, public testing::WithParamInterface<unsigned int> {};

TEST_P(UloopFdDeletes, DeletingTheOthersDropsTheirEvents)
{
    int calls = 0;
    std::vector<std::unique_ptr<SocketPair>> pairs;
    std::vector<std::unique_ptr<Fd>> fds;

    for (int i = 0; i < 6; i++) {
        pairs.push_back(std::make_unique<SocketPair>());
        fds.push_back(std::make_unique<Fd>(pairs.back()->a, [&](Fd &self, unsigned int) {
            calls++;
            read_all(self.fd);
            for (auto &fd : fds) {
                if (fd.get() != &self) {
                    EXPECT_EQ(uloop_fd_delete(fd.get()), 0);
                    fd.reset(); // the memory may go at once
                }
            }
        }));
        uloop_fd_add(fds.back().get(), GetParam());
        send_byte(pairs.back()->b);
    }
    for (int i = 0; i < 6; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
    uloop_fd_delete(fds[0].get());
}

TEST_P(UloopFdDeletes, DeletingAndAddingAgainDropsTheFetchedEvent)
{
    std::string order;
    SocketPair one, two, three;
    Fd second(two.a, [&](Fd &, unsigned int) { order += "2"; });
    Fd third(three.a, [&](Fd &self, unsigned int) {
        order += "3";
        read_all(self.fd);
    });
    Fd first(one.a, [&](Fd &self, unsigned int) {
        order += "1";
        read_all(self.fd);
        read_all(two.a);
        uloop_fd_delete(&second);
        uloop_fd_add(&second, GetParam());
    });

    for (Fd *fd : {&first, &second, &third})
        uloop_fd_add(fd, GetParam());
    for (Ends *ends :
         {static_cast<Ends *>(&one), static_cast<Ends *>(&two), static_cast<Ends *>(&three)})
        send_byte(ends->b);
    for (int i = 0; i < 4; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(order, "13");
    for (Fd *fd : {&first, &second, &third})
        uloop_fd_delete(fd);
}

// A record whose callback may delete it: the function object is copied before the call.
Fd *mortal_fd(int number, std::function<void(Fd &, unsigned int)> call)
{
    Fd *fd = new Fd(number, std::move(call));
    fd->cb = [](uloop_fd *u, unsigned int events) {
        std::function<void(Fd &, unsigned int)> on = static_cast<Fd *>(u)->on;
        on(*static_cast<Fd *>(u), events);
    };
    return fd;
}

TEST_P(UloopFdDeletes, CallbackMayDeleteCloseAndFreeItself)
{
    int calls = 0;
    SocketPair pair;
    Fd *fd = mortal_fd(pair.a, [&](Fd &self, unsigned int) {
        calls++;
        EXPECT_EQ(uloop_fd_delete(&self), 0);
        Ends::close_end(pair.a);
        delete &self;
    });
    uloop_fd_add(fd, GetParam());
    send_byte(pair.b);
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
}

TEST_P(UloopFdDeletes, CallbackToldOfAHangUpMayFreeItself)
{
    int calls = 0;
    SocketPair pair;
    Fd *fd = mortal_fd(pair.a, [&](Fd &self, unsigned int) {
        calls++;
        EXPECT_FALSE(self.registered);
        delete &self;
    });
    uloop_fd_add(fd, GetParam());
    Ends::close_end(pair.b);
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
}

INSTANTIATE_TEST_SUITE_P(LevelAndEdge, UloopFdDeletes,
                         testing::Values(ULOOP_READ, ULOOP_READ | ULOOP_EDGE_TRIGGER));

TEST_F(UloopFd, EdgeTriggeredMeansOneCallbackPerChange)
{
    SocketPair pair;
    Recorder fd(pair.a);

    uloop_fd_add(&fd, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    send_byte(pair.b);
    fd.turn();
    EXPECT_EQ(fd.seen.size(), 1u);
    send_byte(pair.b);
    fd.turn();
    EXPECT_EQ(fd.seen.size(), 2u);
    uloop_fd_add(&fd, ULOOP_READ | ULOOP_EDGE_TRIGGER); // still ready: reported again
    fd.turn();
    EXPECT_EQ(fd.seen.size(), 3u);
}

TEST_F(UloopFd, LevelTriggeredDescriptorIsEnteredAgainByANestedRun)
{
    int depth = 0, deepest = 0;
    SocketPair pair;
    Fd fd(pair.a, [&](Fd &self, unsigned int) {
        deepest = std::max(deepest, ++depth);
        if (depth < 3)
            uloop_run_timeout(0);
        else
            read_all(self.fd);
        depth--;
    });

    uloop_fd_add(&fd, ULOOP_READ);
    send_byte(pair.b);
    uloop_run_timeout(0);
    EXPECT_EQ(deepest, 3);
    uloop_fd_delete(&fd);
}

TEST_F(UloopFd, EdgeTriggeredCallbackRunsOnceMoreInsteadOfNesting)
{
    int depth = 0;
    std::string order;
    SocketPair pair;
    Fd fd(pair.a, [&](Fd &self, unsigned int events) {
        EXPECT_EQ(depth++, 0);
        EXPECT_EQ(events, static_cast<unsigned int>(ULOOP_READ));
        order += "(" + read_all(self.fd);
        if (order == "(x") {
            send_byte(pair.b);
            uloop_run_timeout(0);
        }
        order += ")";
        depth--;
    });

    uloop_fd_add(&fd, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    send_byte(pair.b);
    uloop_run_timeout(0);
    EXPECT_EQ(order, "(x)(x)");
    uloop_fd_delete(&fd);
}

TEST_F(UloopFd, DeletedEdgeTriggeredDescriptorIsNotCalledAgain)
{
    int calls = 0;
    SocketPair pair;
    Fd fd(pair.a, [&](Fd &self, unsigned int) {
        calls++;
        send_byte(pair.b);
        uloop_run_timeout(0);
        uloop_fd_delete(&self);
    });

    uloop_fd_add(&fd, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    send_byte(pair.b);
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
}

TEST_F(UloopFd, HangUpDuringAnEdgeTriggeredCallbackIsReportedAfterwards)
{
    SocketPair pair;
    Recorder fd(pair.a);
    auto record = fd.on;

    fd.on = [&](Fd &self, unsigned int events) {
        record(self, events);
        if (fd.seen.size() == 1) {
            Ends::close_end(pair.b);
            uloop_run_timeout(0);
        }
    };
    uloop_fd_add(&fd, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    send_byte(pair.b);
    fd.turn();
    EXPECT_EQ(fd.seen, (std::vector<Seen>{{ULOOP_READ, false, false, true},
                                          {ULOOP_READ, true, true, false}}));
}

TEST_F(UloopFd, DescriptorBecomesNonBlockingUnlessAskedOtherwise)
{
    SocketPair plain, blocking, before;
    Fd a(plain.a), b(blocking.a), c(before.a);

    uloop_fd_add(&a, ULOOP_READ);
    EXPECT_TRUE(is_nonblocking(plain.a));
    uloop_fd_delete(&a);
    EXPECT_TRUE(is_nonblocking(plain.a));

    uloop_fd_add(&b, ULOOP_READ | ULOOP_BLOCKING);
    EXPECT_FALSE(is_nonblocking(blocking.a));
    EXPECT_EQ(b.flags, 9);
    uloop_fd_add(&b, ULOOP_READ); // registered already: the mode stays
    EXPECT_FALSE(is_nonblocking(blocking.a));
    uloop_fd_delete(&b);

    fcntl(before.a, F_SETFL, fcntl(before.a, F_GETFL) | O_NONBLOCK);
    uloop_fd_add(&c, ULOOP_READ | ULOOP_BLOCKING);
    EXPECT_TRUE(is_nonblocking(before.a));
    uloop_fd_delete(&c);
}

TEST_F(UloopFd, AddingWithoutAnythingToWaitForDeletes)
{
    SocketPair pair;
    Fd fd(pair.a);

    EXPECT_EQ(uloop_fd_add(&fd, 0), 0);
    EXPECT_FALSE(is_nonblocking(pair.a));
    uloop_fd_add(&fd, ULOOP_READ);
    EXPECT_TRUE(fd.registered);
    EXPECT_EQ(uloop_fd_add(&fd, ULOOP_EDGE_TRIGGER | ULOOP_BLOCKING), 0);
    EXPECT_FALSE(fd.registered);
    EXPECT_EQ(fd.flags, 0);
}

TEST_F(UloopFd, AddingAgainReplacesWhatIsWaitedFor)
{
    SocketPair pair;
    Recorder fd(pair.a);

    uloop_fd_add(&fd, ULOOP_READ);
    uloop_fd_add(&fd, ULOOP_WRITE | 0xff00);
    EXPECT_EQ(fd.flags, ULOOP_WRITE);
    send_byte(pair.b);
    fd.turn(1);
    EXPECT_EQ(fd.seen, (std::vector<Seen>{{ULOOP_WRITE, false, false, true}}));
}

void expect_refused(uloop_fd *fd, int error)
{
    uloop_fd before = *fd;

    errno = 0;
    EXPECT_EQ(uloop_fd_add(fd, ULOOP_READ), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(fd->registered, before.registered);
    EXPECT_EQ(fd->flags, before.flags);
    EXPECT_EQ(fd->eof, before.eof);
    EXPECT_EQ(fd->error, before.error);
}

TEST_F(UloopFd, RefusedAddLeavesTheRecordAlone)
{
    SocketPair pair;
    Fd first(pair.a), again(pair.a), none(-1), file(open("/scratch/file", O_CREAT | O_RDWR, 0600));

    none.error = true;
    expect_refused(&none, EBADF);
    expect_refused(&file, EPERM);
    close(file.fd);

    ASSERT_EQ(uloop_fd_add(&first, ULOOP_READ), 0);
    expect_refused(&again, EEXIST);

    Fd twin(dup(pair.a));
    EXPECT_EQ(uloop_fd_add(&twin, ULOOP_READ), 0);
    EXPECT_EQ(uloop_fd_delete(&twin), 0);
    close(twin.fd);
    EXPECT_EQ(uloop_fd_delete(&first), 0);
}

TEST_F(UloopFd, ReopenedDescriptorIsRefusedUntilItsRecordIsDeleted)
{
    SocketPair pair, other;
    Fd fd(pair.a);

    ASSERT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    ASSERT_EQ(dup3(other.a, pair.a, O_CLOEXEC), pair.a);
    expect_refused(&fd, ENOENT);
    EXPECT_EQ(uloop_fd_delete(&fd), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(uloop_fd_add(&fd, ULOOP_READ), 0);
    uloop_fd_delete(&fd);
}

TEST_F(UloopFd, DeletingAClosedDescriptorFailsButClearsTheRecord)
{
    SocketPair pair;
    Fd fd(pair.a);

    uloop_fd_add(&fd, ULOOP_READ);
    Ends::close_end(pair.a);
    EXPECT_EQ(uloop_fd_delete(&fd), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(fd.registered);
    EXPECT_EQ(fd.flags, 0);
    EXPECT_EQ(uloop_fd_delete(&fd), 0);
}

TEST_F(UloopFd, RecordWithoutCallbackIsSkipped)
{
    int calls = 0;
    SocketPair silent, other;
    uloop_fd none = {};
    Fd fd(other.a, [&](Fd &self, unsigned int) {
        calls++;
        read_all(self.fd);
    });

    none.fd = silent.a;
    uloop_fd_add(&none, ULOOP_READ);
    uloop_fd_add(&fd, ULOOP_READ);
    send_byte(silent.b);
    send_byte(other.b);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
    uloop_fd_delete(&none);
    uloop_fd_delete(&fd);
}

std::vector<std::pair<int, unsigned int>> g_told;

TEST(UloopFdSetCb, IsToldOfEachRegistrationAndRemoval)
{
    SocketPair pair;
    Fd fd(pair.a);

    uloop_fd_set_cb = [](uloop_fd *u, unsigned int flags) { g_told.push_back({u->fd, flags}); };
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(g_told.size(), 1u); // the loop's own wake-up
    g_told.clear();

    uloop_fd_add(&fd, ULOOP_READ);
    uloop_fd_add(&fd, ULOOP_READ | ULOOP_WRITE);
    uloop_fd_delete(&fd);
    uloop_fd_delete(&fd);
    fd.fd = -1;
    uloop_fd_add(&fd, ULOOP_READ);
    EXPECT_EQ(g_told, (std::vector<std::pair<int, unsigned int>>{
                          {pair.a, ULOOP_READ}, {pair.a, ULOOP_READ | ULOOP_WRITE}, {pair.a, 0}}));
    uloop_fd_set_cb = nullptr;
    uloop_done();
}

} // namespace
