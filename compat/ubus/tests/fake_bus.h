// SPDX-License-Identifier: ISC
// A daemon played by the test, in the same thread: answers are sent before the call that waits for
// them, which works because sequence numbers are known beforehand.

#ifndef COMPAT_UBUS_TESTS_FAKE_BUS_H
#define COMPAT_UBUS_TESTS_FAKE_BUS_H

#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <libubox/usock.h>
#include <libubus.h>

#include "support/wire.h"

// Waits until something has come for the context, and handles it.
inline void handle_next(struct ubus_context *ctx)
{
    pollfd poll_fd = {ctx->sock.fd, POLLIN, 0};
    ASSERT_EQ(poll(&poll_fd, 1, 10000), 1);
    ubus_handle_event(ctx);
}

class FakeBus {
public:
    static constexpr const char *kPath = "/scratch/fake.sock";

    FakeBus()
    {
        unlink(kPath);
        listener_ = usock(USOCK_UNIX | USOCK_SERVER, kPath, nullptr);
    }
    ~FakeBus()
    {
        delete stream_;
        close(listener_);
    }
    FakeBus(const FakeBus &) = delete;
    FakeBus &operator=(const FakeBus &) = delete;

    // Connects the library, which is greeted with these bytes.
    struct ubus_context *greet(const std::vector<wire::Bytes> &pieces)
    {
        std::thread greeter([&] {
            delete stream_;
            stream_ = new wire::Stream(accept(listener_, nullptr, nullptr));
            for (const wire::Bytes &piece : pieces) {
                stream_->send(piece);
                usleep(2000);
            }
        });
        struct ubus_context *ctx = ubus_connect(kPath);
        greeter.join();
        return ctx;
    }
    // For a connection that another thread or process makes.
    void accept_and_greet()
    {
        delete stream_;
        stream_ = new wire::Stream(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
        stream_->send(wire::message(wire::kHello, 0, 0x12345678));
    }
    struct ubus_context *connect() { return greet({wire::message(wire::kHello, 0, 0x12345678)}); }

    wire::Stream &stream() { return *stream_; }
    bool send(const wire::Bytes &bytes) { return stream_->send(bytes); }
    wire::Message read() { return stream_->read(); }
    void hang_up() { stream_->hang_up(); }

    // The end of an answer.
    bool send_status(uint16_t seq, uint32_t peer, uint32_t status)
    {
        return send(wire::message(wire::kStatus, seq, peer,
                                  wire::attribute(wire::kAttrStatus, wire::word(status))));
    }

    // Publishes an object; its request has this number.
    int publish(struct ubus_context *ctx, struct ubus_object *object, uint16_t seq, uint32_t id)
    {
        send(wire::message(wire::kData, seq, 0,
                           wire::attribute(wire::kAttrObjectId, wire::word(id))));
        send_status(seq, 0, 0);
        int status = ubus_add_object(ctx, object);
        read();
        return status;
    }

private:
    int listener_;
    wire::Stream *stream_ = nullptr;
};

#endif
