// SPDX-License-Identifier: ISC
// A bus daemon that plays a script: it takes one connection after the other on the default socket
// and says exactly what a test tells it to, lies included.
#ifndef BV_TESTS_BUS_SCRIPTED_BUS_H
#define BV_TESTS_BUS_SCRIPTED_BUS_H

#include "support/wire.h"

#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

constexpr uint32_t kScriptedObject = 0x5ea6c73d;
constexpr uint32_t kScriptedType = 0x176ca308;
constexpr uint32_t kScriptedCaller = 0xeb48ce6f;

// Bytes as hex digits, blanks and newlines between them; a difference is shown as digits.
void expect_bytes(const wire::Bytes &actual, const std::string &digits);

// The fields of a message with some bytes overwritten or cut off.
wire::Bytes damaged(std::mt19937 &random, wire::Bytes fields);

// What an owner sent for one call.
struct Answer {
    bool has_data = false;
    wire::Bytes data;               // payload of the data message: the three fields
    std::vector<uint32_t> statuses; // in the order in which they came
    std::vector<wire::Message> messages;
};

// The daemon's end of one connection.
class Peer {
public:
    explicit Peer(int fd) : fd_(fd) {}

    int fd() const { return fd_; }
    void hello();
    wire::Message receive() { return wire::receive_message(fd_); }
    void send(const wire::Message &message) { wire::send_message(fd_, message); }
    void send_status(const wire::Message &to, uint32_t status);

    // For a caller: answers its look-up with the scripted object; returns the look-up.
    wire::Message answer_lookup();
    // For a caller: one data message of an object, as the daemon forwards it.
    void send_reply(const wire::Message &to, const wire::Bytes &fields);

    // For an owner: says hello, accepts its object and returns what it published.
    wire::Message accept_object();
    // For an owner: calls the method and collects everything up to its status.
    Answer call(const wire::Bytes &fields);
    // For an owner: fails when it sent more than its answers. What it says to a call of a method
    // that it does not have comes after everything else.
    void expect_nothing_more();

private:
    int fd_;
    uint16_t sequence_ = 0;
};

class ScriptedBus {
public:
    using Script = std::function<void(Peer &)>;

    // Listens at once and plays one script for each connection, in order. A connection is closed
    // when its script returns.
    explicit ScriptedBus(std::vector<Script> scripts);
    explicit ScriptedBus(Script script) : ScriptedBus(std::vector<Script>{std::move(script)}) {}
    ~ScriptedBus();
    ScriptedBus(const ScriptedBus &) = delete;
    ScriptedBus &operator=(const ScriptedBus &) = delete;

    // Waits until all scripts were played.
    void join();

private:
    void play(const Script &script) const;

    int listener_;
    std::vector<Script> scripts_;
    std::thread thread_;
};

#endif
