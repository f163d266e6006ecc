// SPDX-License-Identifier: ISC
// The recorded exchanges, replayed against the daemon.

#include <map>
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "vectors.h"

namespace {

using vectors::Item;

class Replay {
public:
    void play(const Item &item)
    {
        if (item.kind == Item::kFromBus)
            expect(item);
        else if (item.kind == Item::kToBus)
            EXPECT_TRUE(clients_.at(item.peer)->send(vectors::bytes_of(item, ids_)));
        else
            leave(item.peer);
    }

    int compared() const { return compared_; }
    const std::map<std::string, wire::Bytes> &ids() const { return ids_; }

private:
    void expect(const Item &item)
    {
        wire::Message got;
        if (item.type == "HELLO") {
            clients_[item.peer] = std::make_unique<wire::Client>();
            got = clients_.at(item.peer)->hello();
        } else {
            got = clients_.at(item.peer)->read();
        }
        bind(item, got.bytes());
        EXPECT_EQ(to_hex(got.bytes()), to_hex(vectors::bytes_of(item, ids_)));
        compared_++;
    }

    // A name takes the bytes found at its first appearance.
    void bind(const Item &item, const wire::Bytes &bytes)
    {
        size_t at = 0;
        for (const std::string &token : item.tokens) {
            if (!vectors::is_name(token)) {
                at++;
                continue;
            }
            if (at + 4 <= bytes.size() && ids_.count(vectors::name_of(token)) == 0)
                ids_[vectors::name_of(token)] =
                    wire::Bytes(bytes.begin() + long(at), bytes.begin() + long(at) + 4);
            at += 4;
        }
    }

    // The client hangs up; nothing may have come that is not in the record.
    void leave(const std::string &name)
    {
        EXPECT_TRUE(clients_.at(name)->is_in_step()) << "more messages than recorded";
        clients_.erase(name);
    }

    std::map<std::string, std::unique_ptr<wire::Client>> clients_;
    std::map<std::string, wire::Bytes> ids_;
    int compared_ = 0;
};

TEST(DaemonVectors, EveryRecordedExchangeComesOutByteForByte)
{
    BusDaemon daemon;
    Replay replay;

    for (const Item &item : vectors::read().items) {
        SCOPED_TRACE(item.group + ": " + item.peer + " " + item.type);
        replay.play(item);
        if (HasFatalFailure())
            return;
    }
    EXPECT_EQ(replay.compared(), 108);
}

TEST(DaemonVectors, IdsAreUniqueAndNeverConfuseAClient)
{
    BusDaemon daemon;
    Replay replay;
    for (const Item &item : vectors::read().items)
        replay.play(item);

    std::map<char, std::set<uint32_t>> seen;
    for (const auto &[name, bytes] : replay.ids()) {
        uint32_t id = wire::get_word(bytes.data());
        EXPECT_GE(id, 1024u) << name;
        EXPECT_NE(id, 0x01000000u) << name;
        EXPECT_TRUE(seen[name[0]].insert(id).second) << name;
    }
}

} // namespace
