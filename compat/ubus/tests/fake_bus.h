// A daemon played by the test, in the same thread: answers are sent before the call that waits for
// them, which works because sequence numbers are known beforehand.

#ifndef TESTS_COMPAT_UBUS_FAKE_BUS_H
#define TESTS_COMPAT_UBUS_FAKE_BUS_H

#include <thread>

#include <libubus.h>

#include "wire.h"

class FakeBus {
public:
    static constexpr const char *kPath = "/scratch/fake.sock";

    FakeBus()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kPath);
        unlink(kPath);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        listen(listener_, 5);
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
    // For a connection from another thread or process.
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
                                  wire::attr(wire::kAttrStatus, wire::u32(status))));
    }

    // Publishes an object as the request with this number.
    int publish(struct ubus_context *ctx, struct ubus_object *object, uint16_t seq, uint32_t id)
    {
        send(wire::message(wire::kData, seq, 0, wire::attr(wire::kAttrId, wire::u32(id))));
        send_status(seq, 0, 0);
        int status = ubus_add_object(ctx, object);
        read();
        return status;
    }

private:
    int listener_ = -1;
    wire::Stream *stream_ = nullptr;
};

#endif
