// SPDX-License-Identifier: ISC
// The caller's half: finding owners, typed access, waiting and watching.

#include "bus/scripted_bus.h"
#include "service/sample.h"
#include "support/wire.h"

#include <cstring>
#include <fstream>

namespace {

Lan get_lan(const Caller &caller, uint32_t instance = 1)
{
    Lan lan = {};
    EXPECT_EQ(bv_service_get(caller, "lan.json", &lan, sizeof(lan), instance), 0)
        << bv_service_words(caller);
    return lan;
}

TEST(ServiceClient, StructuresAreReadAndWrittenThroughTheirTexts)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller caller;
    Lan lan = get_lan(caller);
    EXPECT_EQ(memcmp(lan.ipaddr, "\xc0\xa8\x01\x01", 4), 0);
    EXPECT_EQ(lan.mtu, 1500);
    EXPECT_STREQ(lan.hostname, "gateway");
    EXPECT_EQ(memcmp(lan.mac, "\x02\0\0\0\0\x01", 6), 0);
    EXPECT_EQ(lan.offset, -1);

    const Lan wanted = {{10, 0, 0, 255}, 65535, "a name of 15 by", {1, 2, 3, 4, 5, 0xff}, -128};
    for (uint32_t instance : {1u, 7u}) { // the second one is added
        EXPECT_EQ(bv_service_set(caller, "lan.json", &wanted, sizeof(wanted), instance), 0);
        lan = get_lan(caller, instance);
        EXPECT_EQ(memcmp(&lan, &wanted, sizeof(lan)), 0);
    }
}

TEST(ServiceClient, RefusalsHaveTheirStatusAndWords)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller caller;
    Lan lan = get_lan(caller), untouched = lan;
    EXPECT_EQ(bv_service_get(caller, "wan.json", &lan, sizeof(lan), 1), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_service_get(caller, "lan.json", &lan, sizeof(lan), 9), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_service_get(caller, "lan.json", &lan, sizeof(lan) - 1, 1), BV_ERR_INVALID);
    EXPECT_STREQ(bv_service_words(caller),
                 "lan.json has 29 bytes in sample, and 28 here: one of the two programs is older");
    Secret secret = {};
    EXPECT_EQ(bv_service_get(caller, "secret.json", &secret, sizeof(secret), 1),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(memcmp(&lan, &untouched, sizeof(lan)), 0);

    strcpy(lan.hostname, "a\"b");
    EXPECT_EQ(bv_service_set(caller, "lan.json", &lan, sizeof(lan), 1), BV_ERR_INVALID);
    EXPECT_STREQ(bv_service_words(caller),
                 "lan.json.hostname: a double quote does not survive a rewrite of the data file");
    EXPECT_EQ(bv_service_set(caller, "wan.json", &lan, sizeof(lan), 1), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_service_set(caller, "lan.json", &lan, sizeof(lan) - 1, 1), BV_ERR_INVALID);
    strcpy(lan.hostname, "refused");
    EXPECT_EQ(bv_service_set(caller, "lan.json", &lan, sizeof(lan), 1),
              static_cast<int32_t>(kRefusal));
    EXPECT_STRNE(bv_service_words(caller), "");
    EXPECT_STREQ(get_lan(caller).hostname, "gateway");
    EXPECT_STREQ(bv_service_words(caller), ""); // of the last call
    EXPECT_EQ(bv_service_get(nullptr, "lan.json", &lan, sizeof(lan), 1), BV_ERR_NULL);
    EXPECT_EQ(bv_service_open("a b", 0), nullptr);
    EXPECT_STREQ(bv_service_text(10), bv_bus_status_text(10));
    EXPECT_STREQ(bv_service_text(-1), bv_status_text(-1));
    EXPECT_STREQ(bv_service_text(BV_ERR_NO_FAMILY), bv_status_text(BV_ERR_NO_FAMILY));
}

TEST(ServiceClient, RefusedChangeIsNotSentAgainWhateverTheCode)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller caller;
    Lan lan = get_lan(caller);
    strcpy(lan.hostname, kEmptyHost);
    EXPECT_EQ(bv_service_set(caller, "lan.json", &lan, sizeof(lan), 1), BV_ERR_EMPTY);
    EXPECT_EQ(sample.seen->checks, 1);
}

// A bus on which `play` answers a client that is connected.
ScriptedBus bus_for_client(ScriptedBus::Script play)
{
    return ScriptedBus({[](Peer &peer) { peer.hello(); }, // it looks whether the bus is alive
                        [play](Peer &peer) {
                            peer.hello();
                            play(peer);
                        }});
}

// What NAME.config replies to a change.
void reply_with(Peer &peer, const wire::Message &request, uint32_t status)
{
    peer.send_reply(request, wire::join({wire::field(5, "status", wire::word(status)),
                                         wire::field(5, "generation", wire::word(0)),
                                         wire::field(5, "total", wire::word(0))}));
    peer.send_status(request, 0);
}

TEST(ServiceClient, RequestThatDidNotReachTheOwnerIsSentAgainOnce)
{
    for (uint32_t status : {2u, 3u, 4u}) { // another object, or none, has the number by now
        for (uint32_t second : {0u, status}) {
            ScriptedBus bus = bus_for_client([status, second](Peer &peer) {
                peer.answer_lookup();
                peer.send_status(peer.receive(), status);
                peer.answer_lookup();
                const wire::Message again = peer.receive();
                if (second == 0)
                    reply_with(peer, again, 0);
                else
                    peer.send_status(again, second);
            });
            const Caller caller;
            EXPECT_EQ(bv_service_request(caller, "reset", nullptr, nullptr),
                      static_cast<int32_t>(second));
            bus.join();
        }
    }
}

TEST(ServiceClient, ChangeThatTheOwnerRefusesAsTheBusWouldIsNotSentAgain)
{
    for (uint32_t status : {2u, 3u, 4u, 10u}) {
        ScriptedBus bus = bus_for_client([status](Peer &peer) {
            peer.answer_lookup();
            reply_with(peer, peer.receive(), status);
            EXPECT_EQ(peer.receive().type, wire::kNothing);
        });
        {
            const Caller caller("sample", 100);
            EXPECT_EQ(bv_service_request(caller, "reset", nullptr, nullptr),
                      static_cast<int32_t>(status));
        }
        bus.join();
    }
}

TEST(ServiceClient, AnswerThatBecameEmptyIsNotTakenFromAnEarlierPart)
{
    ScriptedBus bus = bus_for_client([](Peer &peer) {
        peer.answer_lookup();
        const wire::Message first = peer.receive();
        const std::string image = "\"" + std::string(2 * sizeof(Lan), '0') + "\"";
        peer.send_reply(first, wire::join({wire::field(5, "status", wire::word(0)),
                                           wire::field(5, "generation", wire::word(1)),
                                           wire::field(5, "total", wire::word(1000)),
                                           wire::field(3, "data", wire::text(image.c_str()))}));
        peer.send_status(first, 0);
        reply_with(peer, peer.receive(), 0); // of another generation: it starts again
        peer.answer_lookup();
        reply_with(peer, peer.receive(), 0);
    });
    const Caller caller;
    Lan lan = {};
    EXPECT_EQ(bv_service_get(caller, "lan.json", &lan, sizeof(lan), 1), UBUS_STATUS_PARSE_ERROR);
    bus.join();
}

TEST(ServiceClient, LookUpThatFindsNoObjectIsNoOwner)
{
    ScriptedBus bus = bus_for_client([](Peer &peer) { peer.send_status(peer.receive(), 0); });
    EXPECT_EQ(bv_service_request(Caller(), "reset", nullptr, nullptr), UBUS_STATUS_NOT_FOUND);
    bus.join();
}

TEST(ServiceClient, OwnerOfAFamilyIsFoundAmongTheServices)
{
    BusDaemon daemon;
    Sample first("b-service"), second("b");
    static const bv_service_family only_secret[] = {
        {"secret.json", sizeof(Secret), BV_SERVICE_USER, 0, nullptr, nullptr}};
    second.service.families = only_secret;
    second.service.n_families = 1;
    first.service.n_families = 1;
    first.start();
    second.start();

    wire::Client stranger; // its object has a name like ours, and other methods
    EXPECT_NE(stranger.publish("stranger.config"), 0u);

    const Caller anyone(nullptr);
    EXPECT_STREQ(get_lan(anyone).hostname, "gateway");
    Secret secret = {};
    EXPECT_EQ(bv_service_get(anyone, "secret.json", &secret, sizeof(secret), 1), 0);
    EXPECT_STREQ(secret.key, "none");
    EXPECT_EQ(anyone.ask("get", R"({"secret.json":[]})"),
              R"({"secret.json":[{"inst":"1","para":{"key":"none"}}]})");
    EXPECT_EQ(bv_service_get(anyone, "wan.json", &secret, sizeof(secret), 1), BV_ERR_NO_FAMILY);
    EXPECT_EQ(anyone.ask("image", R"({"family":"secret.json","inst":"1","size":8})"),
              R"("6e6f6e6500000000")");
    EXPECT_EQ(anyone.ask("status").substr(0, 2), "4:"); // of whom?
    EXPECT_EQ(anyone.ask("commit", R"("factory")").substr(0, 2), "4:");
    EXPECT_EQ(anyone.ask("debug", R"({"module":"dns"})").substr(0, 2), "4:");

    std::string names;
    EXPECT_EQ(bv_service_list(
                  anyone,
                  [](const char *name, void *priv) {
                      *static_cast<std::string *>(priv) += std::string(name) + " ";
                  },
                  &names),
              0);
    EXPECT_EQ(names, "b-service b "); // in the order of their objects' names
}

TEST(ServiceClient, LongAnswersAreWholeAlsoWhileTheyChange)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller caller;
    std::string list;
    for (int number = 2; number < 2000; number++)
        list += (number == 2 ? "" : ",") + (R"({"inst":")" + std::to_string(number)) + R"("})";
    ASSERT_EQ(caller.ask("add", (R"({"lan.json":[)" + list + "]}").c_str()), "");
    Service changer([] {
        const Caller other;
        for (int i = 0;; i++)
            other.ask("set", (R"({"lan.json":[{"inst":"1999","para":{"mtu":")" +
                              std::to_string(1000 + i % 1000) + R"("}}]})")
                                 .c_str());
        return 0;
    });
    for (int i = 0; i < 8; i++) {
        const std::string answer = caller.ask("get");
        if (answer.substr(0, 2) == "7:") // changed again and again
            continue;
        json_object *parsed = bv_json_tokener_parse(answer.c_str());
        ASSERT_NE(parsed, nullptr) << answer.substr(0, 80);
        EXPECT_EQ(bv_json_object_array_length(bv_json_object_object_get(parsed, "lan.json")),
                  1999u);
        bv_json_object_put(parsed);
    }
    changer.signal(SIGKILL);
    changer.wait();
    EXPECT_EQ(caller.ask("get").substr(0, 1), "{");
}

TEST(ServiceClient, CallsWaitForTheBusAndTheOwnerIfTold)
{
    const Caller impatient, patient("sample", 20000), anyone(nullptr, 20000);
    Lan lan;
    EXPECT_EQ(bv_service_get(impatient, "lan.json", &lan, sizeof(lan), 1),
              UBUS_STATUS_CONNECTION_FAILED);
    Service later([] {
        usleep(150000);
        BusDaemon daemon;
        usleep(150000);
        Sample sample;
        sample.start();
        pause();
        return 0;
    });
    EXPECT_STREQ(get_lan(patient).hostname, "gateway");
    EXPECT_STREQ(get_lan(anyone).hostname, "gateway");
}

TEST(ServiceClient, SilentBusIsNoConnection)
{
    SilentBus bus;
    const Caller caller;
    Lan lan;
    EXPECT_EQ(bv_service_get(caller, "lan.json", &lan, sizeof(lan), 1),
              UBUS_STATUS_CONNECTION_FAILED);
}

TEST(ServiceClient, CallsGoOnAfterARestartOfTheOwnerAndOfTheBus)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller caller("sample", 20000);
    get_lan(caller);
    sample.signal(SIGKILL);
    sample.wait();
    sample.launch();
    get_lan(caller);
    daemon.kill();
    daemon.start();
    Lan lan = get_lan(caller);
    daemon.stop();
    daemon.start();
    EXPECT_EQ(bv_service_set(caller, "lan.json", &lan, sizeof(lan), 1), 0);
    const Caller impatient;
    EXPECT_EQ(impatient.ask("functions").substr(0, 1), "[");
    sample.signal(SIGTERM);
    sample.wait();
    EXPECT_EQ(impatient.ask("functions").substr(0, 2), "4:");
    daemon.kill();
    EXPECT_EQ(impatient.ask("functions").substr(0, 3), "a: ");
}

TEST(ServiceClient, ClientLeavesInterruptsToTheProgram)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    Service caller([] {
        const Caller watcher;
        bv_service_watch(
            watcher, nullptr, [](const char *, const char *, void *) {}, nullptr, 0);
        return 0;
    });
    usleep(100000);
    caller.signal(SIGINT);
    EXPECT_EQ(caller.wait(), -SIGINT);
}

TEST(ServiceClient, InterruptWhileItConnectsIsNotLost)
{
    ScriptedBus bus({[](Peer &peer) { peer.hello(); }, // it looks whether the bus is alive
                     [](Peer &peer) {
                         ucred client = {};
                         socklen_t size = sizeof(client);
                         getsockopt(peer.fd(), SOL_SOCKET, SO_PEERCRED, &client, &size);
                         ASSERT_GT(client.pid, 0);
                         kill(client.pid, SIGINT);
                     }});
    EXPECT_EQ(run_in_child([] {
                  const Caller caller;
                  caller.ask("functions");
                  return 0;
              }),
              -SIGINT);
    bus.join();
}

TEST(ServiceClient, ChildrenOfTheProgramStayItsOwn)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    get_lan(Caller());
    struct sigaction action;
    sigaction(SIGCHLD, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

// ---- watching ----

struct Watcher {
    const Caller &caller;
    std::string seen;
    int calls = 0;
    int end_after;
    std::function<void(int)> step = [](int) {};
};

void on_change(const char *service, const char *family, void *priv)
{
    auto &watcher = *static_cast<Watcher *>(priv);
    watcher.seen += std::string(service) + "/" + family + " ";
    watcher.step(++watcher.calls);
    if (watcher.calls == watcher.end_after)
        bv_service_unwatch(watcher.caller);
}

TEST(ServiceClient, WatchTellsOfEachChangeAndOfARestart)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller caller("sample", 20000);
    Watcher watcher = {caller, "", 0, 5};
    watcher.step = [&](int call) {
        const Caller other("sample", 20000);
        get_lan(caller); // also by the client that watches
        if (call == 2)
            other.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"77"}}]})");
        if (call == 3) {
            sample.signal(SIGKILL);
            sample.wait();
            sample.launch();
        }
    };
    EXPECT_EQ(bv_service_watch(caller, nullptr, on_change, &watcher, 0), BV_OK);
    EXPECT_EQ(watcher.seen, "sample/lan.json sample/secret.json sample/lan.json "
                            "sample/lan.json sample/secret.json ");
}

TEST(ServiceClient, WatchOfOneFamilyFindsItAndEndsInTime)
{
    BusDaemon daemon;
    Sample sample;
    sample.start();
    const Caller anyone(nullptr);
    Watcher watcher = {anyone, "", 0, -1};
    EXPECT_EQ(bv_service_watch(anyone, "secret.json", on_change, &watcher, 50), BV_OK);
    EXPECT_EQ(watcher.seen, "sample/secret.json ");
    EXPECT_EQ(bv_service_watch(anyone, "wan.json", on_change, &watcher, 0), BV_ERR_NO_FAMILY);
    sample.signal(SIGTERM);
    sample.wait();
    const Caller caller;
    EXPECT_EQ(bv_service_watch(caller, nullptr, on_change, &watcher, 0), UBUS_STATUS_NOT_FOUND);
}

// An object like a service's that counts without telling anybody.
int count_silently(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                   blob_attr *)
{
    static int reads = 0;
    const std::string answer = R"({"lan.json":"1.)" + std::to_string(reads++) + R"("})";
    blob_buf reply = {};
    bv_blobmsg_buf_init(&reply);
    bv_blobmsg_add_u32(&reply, "status", 0);
    bv_blobmsg_add_u32(&reply, "generation", 0);
    bv_blobmsg_add_u32(&reply, "total", static_cast<uint32_t>(answer.size()));
    bv_blobmsg_add_string(&reply, "data", answer.c_str());
    bv_ubus_send_reply(bus, request, reply.head);
    bv_blob_buf_free(&reply);
    return 0;
}

TEST(ServiceClient, WatchSeesChangesWhoseEventsAreLost)
{
    BusDaemon daemon;
    Service silent([] {
        static const ubus_method methods[] = {{"read", count_silently, 0, 0, nullptr, 0},
                                              {"write", count_silently, 0, 0, nullptr, 0}};
        static ubus_object_type type = {"silent", 0, methods, 2};
        static ubus_object object = {};
        object.name = "silent.config";
        object.type = &type;
        object.methods = methods;
        object.n_methods = 2;
        ubus_context *bus = bv_ubus_connect(nullptr);
        bv_ubus_add_object(bus, &object);
        bv_uloop_fd_add(&bus->sock, ULOOP_READ | ULOOP_BLOCKING);
        return bv_uloop_run();
    });
    const Caller caller("silent", 20000);
    Watcher watcher = {caller, "", 0, 2};
    EXPECT_EQ(bv_service_watch(caller, "lan.json", on_change, &watcher, 0), BV_OK);
    EXPECT_EQ(watcher.seen, "silent/lan.json silent/lan.json ");
}

} // namespace
