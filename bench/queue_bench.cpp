// SPDX-License-Identifier: ISC
// The message queue beside the least that such a queue has to do, GLib's asynchronous queue with
// copied payloads, a kernel message queue and a pipe: 64-byte messages through one thread, and from
// two producers to two consumers. Names are WORK/WHO; compare rows of one WORK within one run.

#include <bv/queue.h>
#include <bv/status.h>

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>
#ifdef BV_PEER_GLIB
#include <glib.h>
#endif

namespace {

constexpr uint32_t kSize = 64;
constexpr uint32_t kMessages = 100000; // of each producer in one iteration
constexpr uint32_t kStop = UINT32_MAX;

struct Message {
    uint32_t number;
    uint8_t rest[kSize - 4];
};

// Each of these is a queue: send() waits for room where room is limited, receive() waits for a
// message. All wait in the way that they offer; ours offers none, so its consumers poll and give
// the processor away in between, as the services do.
class Bv {
public:
    Bv() { bv_queue_init(&queue_, UINT32_MAX); }
    ~Bv() { bv_queue_free(&queue_); }
    void send(const Message &message) { bv_queue_send(queue_, &message, kSize); }
    void receive(Message &message)
    {
        while (bv_queue_recv(queue_, &message, kSize) != BV_OK)
            sched_yield();
    }

private:
    bv_queue *queue_ = nullptr;
};

// The floor: a copy of each message in memory of its own, in a ring that one lock guards. Nothing
// is checked, listed or refused. For one thread.
class Ring {
public:
    void send(const Message &message)
    {
        void *copy = malloc(kSize);
        memcpy(copy, &message, kSize);
        pthread_mutex_lock(&lock_);
        copies_[sent_++ % kPlaces] = copy;
        pthread_mutex_unlock(&lock_);
    }
    void receive(Message &message)
    {
        pthread_mutex_lock(&lock_);
        void *copy = copies_[received_++ % kPlaces];
        pthread_mutex_unlock(&lock_);
        memcpy(&message, copy, kSize);
        free(copy);
    }

private:
    static constexpr unsigned kPlaces = 16;
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    unsigned sent_ = 0, received_ = 0;
    void *copies_[kPlaces];
};

#ifdef BV_PEER_GLIB
class GLib {
public:
    GLib() : queue_(g_async_queue_new()) {}
    ~GLib() { g_async_queue_unref(queue_); }
    void send(const Message &message) { g_async_queue_push(queue_, g_memdup2(&message, kSize)); }
    void receive(Message &message) { take(message, g_async_queue_pop(queue_)); }

protected:
    static void take(Message &message, void *copy)
    {
        memcpy(&message, copy, kSize);
        g_free(copy);
    }
    GAsyncQueue *queue_;
};

// The same with consumers that poll, as ours have to.
class GLibPolled : public GLib {
public:
    void receive(Message &message)
    {
        void *copy;
        while ((copy = g_async_queue_try_pop(queue_)) == nullptr)
            sched_yield();
        take(message, copy);
    }
};
#endif

class Kernel {
public:
    Kernel()
    {
        mq_attr attr = {};
        attr.mq_maxmsg = 10;
        attr.mq_msgsize = kSize;
        queue_ = mq_open("/bench", O_RDWR | O_CREAT | O_EXCL, 0600, &attr);
        mq_unlink("/bench");
        if (queue_ == static_cast<mqd_t>(-1)) {
            perror("mq_open");
            abort();
        }
    }
    ~Kernel() { mq_close(queue_); }
    void send(const Message &message) { mq_send(queue_, bytes(message), kSize, 0); }
    void receive(Message &message)
    {
        mq_receive(queue_, const_cast<char *>(bytes(message)), kSize, nullptr);
    }

private:
    static const char *bytes(const Message &message)
    {
        return reinterpret_cast<const char *>(&message);
    }
    mqd_t queue_;
};

class Pipe {
public:
    Pipe()
    {
        if (pipe(ends_) != 0)
            abort();
    }
    ~Pipe()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    void send(const Message &message)
    {
        if (write(ends_[1], &message, kSize) != kSize)
            abort();
    }
    void receive(Message &message)
    {
        if (read(ends_[0], &message, kSize) != kSize)
            abort();
    }

private:
    int ends_[2];
};

template <typename Queue>
void one_thread(benchmark::State &state)
{
    Queue queue;
    Message message = {}, received = {};
    for (auto _ : state) {
        message.number++;
        queue.send(message);
        queue.receive(received);
        if (received.number != message.number)
            abort();
    }
}

// The same while another thread exists, although it does nothing: the C library's locks are cheaper
// in a process that never had one.
template <typename Queue>
void one_of_two_threads(benchmark::State &state)
{
    static std::thread other([] {
        for (;;)
            pause();
    });
    one_thread<Queue>(state);
}

template <typename Queue>
void produce(Queue &queue)
{
    Message message = {};
    for (message.number = 1; message.number <= kMessages; message.number++)
        queue.send(message);
}

template <typename Queue>
void consume(Queue &queue, uint64_t &sum)
{
    Message message;
    for (queue.receive(message); message.number != kStop; queue.receive(message))
        sum += message.number;
}

// One iteration sends all messages of both producers; what arrived must add up.
template <typename Queue>
void two_and_two(benchmark::State &state)
{
    for (auto _ : state) {
        Queue queue;
        uint64_t sums[2] = {};
        const auto start = std::chrono::steady_clock::now();
        std::thread consumers[] = {std::thread([&] { consume(queue, sums[0]); }),
                                   std::thread([&] { consume(queue, sums[1]); })};
        std::thread producers[] = {std::thread([&] { produce(queue); }),
                                   std::thread([&] { produce(queue); })};
        for (std::thread &thread : producers)
            thread.join();
        for (int i = 0; i < 2; i++)
            queue.send(Message{kStop, {}});
        for (std::thread &thread : consumers)
            thread.join();
        const auto took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(std::chrono::duration<double>(took).count());
        if (sums[0] + sums[1] != uint64_t{kMessages} * (kMessages + 1))
            abort();
    }
    state.SetItemsProcessed(state.iterations() * 2 * kMessages);
}

template <typename Queue>
void add_one_thread(const std::string &who)
{
    benchmark::RegisterBenchmark(("queue-1/" + who).c_str(), one_thread<Queue>);
    benchmark::RegisterBenchmark(("queue-1of2/" + who).c_str(), one_of_two_threads<Queue>);
}

template <typename Queue>
void add(const std::string &who)
{
    add_one_thread<Queue>(who);
    benchmark::RegisterBenchmark(("queue-2x2/" + who).c_str(), two_and_two<Queue>)->UseManualTime();
}

} // namespace

int main(int argc, char **argv)
{
    add<Bv>("bv");
    add_one_thread<Ring>("ring");
#ifdef BV_PEER_GLIB
    add<GLib>("GAsyncQueue");
    add<GLibPolled>("GAsyncQueue-polled");
#endif
    add<Kernel>("mq");
    add<Pipe>("pipe");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    fflush(stdout);
    _exit(0); // the idle thread sleeps on
}
