// SPDX-License-Identifier: ISC
// A service for tests: two families, one of them hidden, and a function. It runs in a process of
// its own; what its callbacks saw is in memory that is shared with the test.
#ifndef BV_TESTS_SERVICE_SAMPLE_H
#define BV_TESTS_SERVICE_SAMPLE_H

#include <bv/bv.h>
#include <bv/service.h>

#include "support/bus.h"
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

struct __attribute__((__packed__)) Lan {
    uint8_t ipaddr[4];
    uint16_t mtu;
    char hostname[16];
    uint8_t mac[6];
    int8_t offset;
};

struct __attribute__((__packed__)) Secret {
    char key[8];
};

// A check refuses this host name, with this code.
constexpr char kRefusedHost[] = "refused";
constexpr uint32_t kRefusal = 0x77;
// And this one with the code that tells a reader to start again.
constexpr char kEmptyHost[] = "empty";

struct Seen {
    int started;
    int ended;
    int checks;
    int changes;
};

// A bus that takes connections and never says a word.
class SilentBus {
public:
    SilentBus();
    ~SilentBus();
    SilentBus(const SilentBus &) = delete;

private:
    int listener_;
};

class Sample {
public:
    // Templates as the families need them; no service yet.
    explicit Sample(const char *name = "sample");

    // Runs it, and waits until it is on the bus.
    void start();
    // Runs it; the bus may be missing.
    void launch();
    void signal(int number) const { process_->signal(number); }
    int wait() { return process_->wait(); }

    bv_service service = {};
    Seen *seen = share_with_children<Seen>();
    int start_result = 0;

private:
    std::unique_ptr<Service> process_;
};

// A client of `service`, closed at the end of the scope.
class Caller {
public:
    explicit Caller(const char *service = "sample", uint32_t wait_ms = 0)
        : client_(bv_service_open(service, wait_ms))
    {
    }
    ~Caller() { bv_service_close(client_); }
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;
    operator bv_service_client *() const { return client_; }

    // The answer as text; "status: words" of a refusal.
    std::string ask(const char *op, const char *data = nullptr) const
    {
        char *answer = nullptr;
        const int32_t status = bv_service_request(client_, op, data, &answer);
        char code[16];
        snprintf(code, sizeof(code), "%x: ", static_cast<unsigned>(status));
        std::string result = status != 0         ? std::string(code) + bv_service_words(client_)
                             : answer != nullptr ? answer
                                                 : "";
        free(answer);
        return result;
    }

private:
    bv_service_client *client_;
};

#endif
