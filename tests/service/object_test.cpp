// SPDX-License-Identifier: ISC
// NAME.config: operations and answers as docs/formats.md lists them, and requests that are none.

#include "bus/scripted_bus.h"
#include "service/sample.h"

#include "support/faults.h"

#include <csignal>
#include <functional>
#include <unistd.h>

static bool g_no_random; // of the services that are started

BV_INTERPOSE(random_bytes, "RAND_bytes", int, (unsigned char *to, int count))
{
    if (!g_no_random)
        return BV_NEXT(random_bytes)(to, count);
    memset(to, 0, static_cast<size_t>(count));
    return 0;
}

namespace {

using Build = std::function<void(blob_buf *)>;

struct Reply {
    int bus_status = 0; // status of the call
    bool has_reply = false;
    uint32_t status = 0;
    uint32_t generation = 0;
    uint32_t total = 0;
    std::string data;
};

void take_answer(ubus_request *request, int, blob_attr *message)
{
    static const blobmsg_policy policy[] = {{"status", BLOBMSG_TYPE_INT32},
                                            {"generation", BLOBMSG_TYPE_INT32},
                                            {"total", BLOBMSG_TYPE_INT32},
                                            {"data", BLOBMSG_TYPE_STRING}};
    auto *answer = static_cast<Reply *>(request->priv);
    blob_attr *fields[4];
    EXPECT_EQ(bv_blobmsg_parse(policy, 4, fields, bv_blob_data(message),
                               static_cast<unsigned>(bv_blob_len(message))),
              0);
    ASSERT_FALSE(answer->has_reply);
    ASSERT_TRUE(fields[0] && fields[1] && fields[2]);
    answer->has_reply = true;
    answer->status = bv_blobmsg_get_u32(fields[0]);
    answer->generation = bv_blobmsg_get_u32(fields[1]);
    answer->total = bv_blobmsg_get_u32(fields[2]);
    answer->data = fields[3] != nullptr ? bv_blobmsg_get_string(fields[3]) : "";
}

// Sends any fields to a method of sample.config.
Reply send(const char *method, const Build &build)
{
    ubus_context *bus = bv_ubus_connect(nullptr);
    uint32_t id = 0;
    blob_buf message = {};
    Reply answer = {};
    bv_blobmsg_buf_init(&message);
    build(&message);
    EXPECT_EQ(bv_ubus_lookup_id(bus, "sample.config", &id), 0);
    answer.bus_status = bv_ubus_invoke(bus, id, method, message.head, take_answer, &answer, 10000);
    bv_blob_buf_free(&message);
    bv_ubus_free(bus);
    return answer;
}

Build request(const char *op, const char *data = nullptr, uint32_t offset = 0,
              uint32_t generation = 0)
{
    return [=](blob_buf *buffer) {
        bv_blobmsg_add_u32(buffer, "version", 1);
        bv_blobmsg_add_string(buffer, "op", op);
        if (data != nullptr)
            bv_blobmsg_add_string(buffer, "data", data);
        if (offset != 0) {
            bv_blobmsg_add_u32(buffer, "offset", offset);
            bv_blobmsg_add_u32(buffer, "generation", generation);
        }
    };
}

class ServiceObject : public ::testing::Test {
protected:
    void SetUp() override { sample.start(); }

    // Instances enough for an answer of several parts.
    void add_many()
    {
        std::string list;
        for (int number = 2; number < 900; number++)
            list += (number == 2 ? "" : ",") + (R"({"inst":")" + std::to_string(number)) +
                    R"(","para":{}})";
        // What was added would not fit in one reply.
        EXPECT_EQ(caller.ask("add", (R"({"lan.json":[)" + list + "]}").c_str()), "");
    }

    BusDaemon daemon;
    Sample sample;
    const Caller caller;
};

constexpr char kLan1[] =
    R"({"lan.json":[{"inst":"1","para":{"ipaddr":"192.168.1.1","mtu":"1500","hostname":"gateway",)"
    R"("mac":"02:00:00:00:00:01","offset":"-1"}}]})";

TEST_F(ServiceObject, FamiliesAreDescribedWithDefaultsUnlessHidden)
{
    std::string answer = caller.ask("families");
    const size_t count = answer.find(R"("count":")") + 9;
    const std::string start_number = answer.substr(count, answer.find(".0\"", count) - count);
    for (size_t at; (at = answer.find(start_number + ".0")) != std::string::npos;)
        answer.replace(at, start_number.size() + 2, "N.0");
    const std::string lan =
        R"("lan.json":{"size":29,"store":"user","hidden":false,"count":"N.0","instances":["1"],"para":[)"
        R"({"name":"ipaddr","type":"ip","len":4,"value":"192.168.1.1"},)"
        R"({"name":"mtu","type":"ushort","len":2,"value":"1500"},)"
        R"({"name":"hostname","type":"string","len":16,"value":"gateway"},)"
        R"({"name":"mac","type":"mac","len":6,"value":"02:00:00:00:00:01"},)"
        R"({"name":"offset","type":"char","len":1,"value":"-1"}]})";
    const std::string secret =
        R"("secret.json":{"size":8,"store":"private","hidden":true,"count":"N.0","instances":["1"],)"
        R"("para":[{"name":"key","type":"string","len":8}]})";
    EXPECT_EQ(answer, "{" + lan + "," + secret + "}");
    EXPECT_EQ(caller.ask("families", R"({"secret.json":[]})").find("lan.json"), std::string::npos);
    EXPECT_EQ(caller.ask("families", R"({"wan.json":[]})"),
              "1000000a: wan.json: the service does not have this family");
}

TEST_F(ServiceObject, InstancesAreReadAndHiddenValuesAreNot)
{
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["1"]})"), kLan1);
    EXPECT_EQ(caller.ask("get", R"({"lan.json":[]})"), kLan1);
    EXPECT_EQ(caller.ask("get", R"({"secret.json":["1"]})"),
              R"({"secret.json":[{"inst":"1","para":{}}]})");
    EXPECT_EQ(caller.ask("get").find("none"), std::string::npos);
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["2"]})"), "10000014: lan.json.2: no such instance");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["1","1"]})"),
              "10000010: an instance is named twice");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["1x"]})").substr(0, 9), "10000010:");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":[null]})").substr(0, 9), "10000010:");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":"1"})").substr(0, 9), "10000010:");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":null})").substr(0, 9), "10000010:");
    EXPECT_EQ(caller.ask("get", "[7]").substr(0, 9), "10000010:");
    EXPECT_EQ(caller.ask("get", "{").substr(0, 9), "10000010:");
}

TEST_F(ServiceObject, ImagesAreReadAndWrittenAsTheyAre)
{
    const std::string lan = R"({"family":"lan.json","inst":"1","size":29)";
    std::string image = caller.ask("image", (lan + "}").c_str());
    EXPECT_EQ(image, R"("c0a80101dc05)" // the machine's order
                     "67617465776179000000000000000000"
                     R"(020000000001ff")");
    const auto put = [&](const std::string &bytes) {
        return caller.ask("put", (lan + ",\"image\":" + bytes + "}").c_str());
    };
    image.replace(1, 2, "0a");
    EXPECT_EQ(put(image), "");
    EXPECT_NE(caller.ask("get").find("10.168.1.1"), std::string::npos);
    image[2] = 'A';
    for (const std::string &wrong : {image, std::string("\"0a\""), std::string("7"),
                                     std::string("null"), "\"" + std::string(58, '"') + "\""})
        EXPECT_EQ(put(wrong).substr(0, 9), "10000010:") << wrong;
    EXPECT_EQ(caller.ask("image", R"({"family":"lan.json","inst":"1"})").substr(0, 9), "10000010:");
    EXPECT_EQ(caller.ask("image", R"({"inst":"1","size":29})").substr(0, 9), "1000000a:");
    EXPECT_EQ(caller.ask("image", R"({"family":"secret.json","inst":"1","size":8})"),
              "6: sample hides the values of secret.json");
    EXPECT_EQ(caller.ask("image").substr(0, 9), "1000000a:");
    EXPECT_EQ(caller.ask("image", "[]").substr(0, 9), "1000000a:");
}

TEST_F(ServiceObject, CheckTellsWhatAnImportWouldAndChangesNothing)
{
    EXPECT_EQ(caller.ask("check", R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})"), "");
    EXPECT_EQ(caller.ask("check", R"({"lan.json":[{"inst":"1","para":{"mtu":"x"}}]})").substr(0, 9),
              "10000010:");
    EXPECT_EQ(caller.ask("check", R"({"lan.json":[{"inst":"2","para":{"hostname":"refused"}}]})"),
              "77: lan.json.2: the service refuses this");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":[]})"), kLan1);
    EXPECT_EQ(sample.seen->changes, 0);
}

TEST_F(ServiceObject, ChangesAreMadeCountedAndUndone)
{
    const auto count = [&] {
        const std::string counters = caller.ask("counters");
        const size_t dot = counters.find('.', counters.find(':'));
        return counters.substr(dot + 1, counters.find('"', dot) - dot - 1);
    };
    EXPECT_EQ(count(), "0");
    EXPECT_EQ(caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})"), "");
    EXPECT_EQ(count(), "1");
    EXPECT_EQ(sample.seen->changes, 1);
    EXPECT_NE(caller.ask("get").find(R"("mtu":"1400","hostname":"gateway")"), std::string::npos);

    EXPECT_EQ(caller.ask("add", R"({"lan.json":[{"inst":"","para":{"hostname":"two"}}]})"),
              R"({"lan.json":[{"inst":"2","para":{"ipaddr":"192.168.1.1","mtu":"1500",)"
              R"("hostname":"two","mac":"02:00:00:00:00:01","offset":"-1"}}]})");
    EXPECT_EQ(caller.ask("del", R"({"lan.json":["2","3"]})").substr(0, 9), "10000014:");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["2"]})").substr(0, 1), "{");
    EXPECT_EQ(caller.ask("del", R"({"lan.json":["2"]})"), "");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["2"]})").substr(0, 9), "10000014:");
    EXPECT_EQ(count(), "3");

    EXPECT_EQ(
        caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"70000"}}]})").substr(0, 9),
        "10000010:");
    EXPECT_EQ(caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"hostname":"refused"}}]})")
                  .substr(0, 3),
              "77:");
    EXPECT_EQ(count(), "3");
    EXPECT_EQ(caller.ask("erase").substr(0, 9), "10000010:");
}

TEST_F(ServiceObject, RevertAndResetTellOfEachInstanceThatDiffers)
{
    const char *lan = R"({"lan.json":[]})";
    caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})");
    EXPECT_EQ(caller.ask("commit"), "");
    const std::string saved = caller.ask("get", lan);
    for (const char *op : {"revert", "reset"}) {
        caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"1300"}}]})");
        caller.ask("add", R"({"lan.json":[{"inst":"2","para":{}}]})");
        sample.seen->changes = 0;
        EXPECT_EQ(caller.ask(op, lan), "");
        EXPECT_EQ(sample.seen->changes, 2) << op;
        EXPECT_EQ(caller.ask("get", lan), strcmp(op, "reset") == 0 ? kLan1 : saved);
        EXPECT_EQ(caller.ask(op, R"({"wan.json":[]})").substr(0, 9), "1000000a:");
    }
}

TEST_F(ServiceObject, AnswersHaveSeveralFamilies)
{
    std::string both = kLan1;
    both.replace(both.size() - 1, 1, R"(,"secret.json":[{"inst":"1","para":{}}]})");
    EXPECT_EQ(caller.ask("saved"), both);
    for (size_t at; (at = both.find(R"("inst":"1")")) != std::string::npos;)
        both.replace(at, 10, R"("inst":"2")");
    EXPECT_EQ(caller.ask("add", R"({"lan.json":[{"inst":""}],"secret.json":[{"inst":""}]})"), both);
}

TEST_F(ServiceObject, HiddenFamilyIsWrittenAndNotRead)
{
    Secret secret = {"abc"};
    EXPECT_EQ(bv_service_set(caller, "secret.json", &secret, sizeof(secret), 1), 0);
    EXPECT_EQ(bv_service_get(caller, "secret.json", &secret, sizeof(secret), 1),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(caller.ask("commit"), "");
    EXPECT_NE(read_file("/config/work/privdata.json").find(R"("abc")"), std::string::npos);
}

TEST_F(ServiceObject, FamiliesAreRevertedTogetherOrNotAtAll)
{
    ASSERT_EQ(caller.ask("commit"), "");
    ASSERT_EQ(caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}],)"
                                R"("secret.json":[{"inst":"1","para":{"key":"new"}}]})"),
              "");
    const std::string private_file = read_file("/config/work/privdata.json");
    write_file("/config/work/privdata.json", "{");
    EXPECT_EQ(caller.ask("revert").substr(9), " /config/work/privdata.json cannot be read");
    EXPECT_NE(caller.ask("get").find(R"("mtu":"1400")"), std::string::npos);
    EXPECT_EQ(sample.seen->changes, 2);

    write_file("/config/work/privdata.json", private_file);
    EXPECT_EQ(caller.ask("revert"), "");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["1"]})"), kLan1);
    EXPECT_EQ(sample.seen->changes, 4);

    ASSERT_EQ(
        caller.ask("add", R"({"lan.json":[{"inst":"2","para":{"mtu":"1400"}}]})").substr(0, 1),
        "{");
    EXPECT_EQ(caller.ask("reset"), "");
    EXPECT_EQ(caller.ask("get", R"({"lan.json":[]})"), kLan1);
    EXPECT_EQ(sample.seen->changes, 6);
    unlink("/config/work/userdata.json");
    unlink("/config/work/privdata.json");
}

TEST_F(ServiceObject, DebugSwitchesHaveNames)
{
    EXPECT_EQ(caller.ask("debug"), R"([{"module":"dhcp","level":"error","on":false},)"
                                   R"({"module":"dns","level":"error","on":false}])");
    EXPECT_EQ(caller.ask("debug", R"({"module":"dns","level":"error","on":true})"), "");
    EXPECT_EQ(caller.ask("debug"), R"([{"module":"dhcp","level":"error","on":false},)"
                                   R"({"module":"dns","level":"error","on":true}])");
    EXPECT_EQ(caller.ask("debug", R"({"module":"dns","level":"error","on":"no"})").substr(0, 9),
              "10000010:");
    EXPECT_EQ(caller.ask("debug", R"({"module":"usb","level":"error","on":true})"),
              "10000010: sample has no such debug module");
    EXPECT_EQ(caller.ask("debug", "[]").substr(0, 9), "10000010:");
}

TEST_F(ServiceObject, StatusCountsCallsAndRefusals)
{
    caller.ask("functions");
    caller.ask("families", R"({"wan.json":[]})");
    const std::string status = caller.ask("status");
    EXPECT_NE(status.find(R"("calls":"3","refused":"1","dropped":"0")"), std::string::npos)
        << status;
    EXPECT_EQ(caller.ask("functions"), R"(["rename_host","finish"])");
}

TEST_F(ServiceObject, EachChangeSendsAnEventWithTheCounter)
{
    wire::Client listener;
    const uint32_t object = listener.publish_unnamed();
    ASSERT_NE(object, 0u);
    ASSERT_EQ(listener.ask(wire::event_register(object, "sample.config.changed")), 0u);
    caller.ask("set", R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})");

    const wire::Message event = listener.read();
    EXPECT_EQ(event.type, wire::kInvoke);
    EXPECT_EQ(event.string(wire::kAttrMethod), "sample.config.changed");
    const std::string counters = caller.ask("counters");
    const size_t count = counters.find(R"("lan.json":")") + 12;
    const std::string now = counters.substr(count, counters.find('"', count) - count);
    EXPECT_EQ(now.substr(now.size() - 2), ".1");
    EXPECT_EQ(wire::to_hex(event.payload(wire::kAttrData)),
              wire::to_hex(wire::join({wire::field(3, "family", wire::text("lan.json")),
                                       wire::field(3, "count", wire::text(now))})));
}

// The instance says which block is refused after the change.
TEST_F(ServiceObject, ChangeIsMadeAlsoWhenItsEventFindsNoMemory)
{
    static const bv_service_family families[] = {
        {"lan.json", sizeof(Lan), BV_SERVICE_USER, 0, nullptr,
         [](const void *, const void *, uint32_t instance) {
             fault_realloc.fail_next(static_cast<int>(instance) - 10);
         }}};
    sample.signal(SIGTERM);
    sample.wait();
    sample.service.families = families;
    sample.service.n_families = 1;
    sample.start();
    const Lan lan = {};
    for (uint32_t instance : {11u, 12u})
        EXPECT_EQ(bv_service_set(caller, "lan.json", &lan, sizeof(lan), instance), 0);
    EXPECT_NE(caller.ask("status").find(R"("dropped":"2")"), std::string::npos);
}

TEST_F(ServiceObject, LongAnswersComeInPartsOfOneGeneration)
{
    add_many();
    const Reply first = send("read", request("get"));
    EXPECT_EQ(first.data.size(), 65536u);
    EXPECT_GT(first.total, 65536u);
    const Reply second = send("read", request("get", nullptr, 65536, first.generation));
    EXPECT_EQ(second.status, 0u);
    EXPECT_EQ(first.data + second.data, caller.ask("get"));

    // Another offset than any part's, the end, and what is behind it.
    EXPECT_EQ(send("read", request("get", nullptr, 1, first.generation)).data.size(), 65536u);
    EXPECT_EQ(send("read", request("get", nullptr, first.total, first.generation)).data, "");
    EXPECT_EQ(send("read", request("get", nullptr, first.total + 1, first.generation)).status,
              0x10000031u);

    caller.ask("set", R"({"lan.json":[{"inst":"800","para":{"mtu":"1400"}}]})");
    const Reply changed = send("read", request("get", nullptr, 65536, first.generation));
    EXPECT_EQ(changed.status, 0x10000031u);
    EXPECT_EQ(changed.data, "");
}

TEST_F(ServiceObject, RequestsWithoutTheirFieldsAreInvalid)
{
    const Build faulty[] = {[](blob_buf *) {},
                            [](blob_buf *b) { bv_blobmsg_add_string(b, "op", "get"); },
                            [](blob_buf *b) { bv_blobmsg_add_u32(b, "version", 1); },
                            [](blob_buf *b) {
                                bv_blobmsg_add_u32(b, "version", 2);
                                bv_blobmsg_add_string(b, "op", "get");
                            },
                            [](blob_buf *b) {
                                bv_blobmsg_add_string(b, "version", "1");
                                bv_blobmsg_add_string(b, "op", "get");
                            },
                            [](blob_buf *b) {
                                bv_blobmsg_add_u32(b, "version", 1);
                                bv_blobmsg_add_u32(b, "op", 1);
                            },
                            [](blob_buf *b) { bv_blob_put_raw(b, "\x03\xff\xff\xf0", 4); }};
    for (const Build &build : faulty) {
        for (const char *method : {"read", "write"}) {
            const Reply answer = send(method, build);
            EXPECT_EQ(answer.bus_status, UBUS_STATUS_INVALID_ARGUMENT);
            EXPECT_FALSE(answer.has_reply);
        }
    }
    EXPECT_EQ(send("write", request("get")).status, static_cast<uint32_t>(BV_ERR_INVALID));
    EXPECT_EQ(send("read", request("set")).status, static_cast<uint32_t>(BV_ERR_INVALID));
    const std::string deep(100000, '[');
    const std::string big(900000, ' ');
    for (const std::string &data : {deep, big, big + "{}", std::string("\x80\xff"), std::string()})
        EXPECT_EQ(send("write", request("set", data.c_str())).bus_status, 0);
    EXPECT_EQ(caller.ask("get", R"({"lan.json":["1"]})"), kLan1);
}

TEST_F(ServiceObject, StartsDifferAlsoWithoutRandomBytes)
{
    std::string counters[2];
    g_no_random = true;
    for (std::string &seen : counters) {
        sample.signal(SIGTERM);
        sample.wait();
        sample.start();
        seen = caller.ask("counters");
    }
    EXPECT_NE(counters[0], counters[1]);
}

// The bus tells who calls. This bus tells what it likes.
TEST(ServiceRights, OnlyRootAndTheNamedUsersWrite)
{
    static const char *const writers[] = {"nobody-else", "operator"};
    const auto call = [](Peer &peer, const char *method, const char *user) {
        const char *op = strcmp(method, "read") == 0 ? "functions" : "commit";
        const wire::Bytes fields = wire::join(
            {wire::field(5, "version", wire::word(1)), wire::field(3, "op", wire::text(op))});
        wire::Bytes attributes =
            wire::join({wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject)),
                        wire::attribute(wire::kAttrMethod, wire::text(method)),
                        wire::attribute(wire::kAttrData, fields)});
        if (user != nullptr)
            attributes = wire::join({attributes, wire::attribute(wire::kAttrUser, wire::text(user)),
                                     wire::attribute(wire::kAttrGroup, wire::text("root"))});
        peer.send({wire::kInvoke, 7, kScriptedCaller, attributes});
        wire::Message message;
        do
            message = peer.receive();
        while (message.type == wire::kData);
        return message.status();
    };
    int config = -1; // stays open while the second connection is served
    ScriptedBus bus({[](Peer &peer) { peer.hello(); }, // it looks whether the bus is alive
                     [&](Peer &peer) {
                         peer.accept_object();
                         config = dup(peer.fd());
                     },
                     [&](Peer &peer) {
                         peer.accept_object();
                         Peer writer(config);
                         for (const char *user : {"root", "operator"})
                             EXPECT_EQ(call(writer, "write", user), 0u) << user;
                         for (const char *user : {"guest", "", "operator2", "ROOT"})
                             EXPECT_EQ(call(writer, "write", user), 6u) << user;
                         EXPECT_EQ(call(writer, "write", nullptr), 6u);
                         EXPECT_EQ(call(writer, "read", nullptr), 0u);
                     }});
    Sample sample;
    sample.service.writers = writers;
    sample.service.n_writers = 2;
    sample.launch();
    bus.join();
    close(config);
}

} // namespace
