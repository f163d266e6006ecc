// The owner's side of remote calls against a scripted bus: the bytes it sends, what it makes of
// requests that other processes got wrong, and how a run starts and ends.

#include <bv/os.h>
#include <bv/ubus.h>

#include "bus/scripted_bus.h"
#include "support/faults.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

using wire::Bytes;
using wire::Message;

// Lets a test have an event loop that cannot be made.
BV_FAULT_POINT(epoll_create1, int, (int flags), (flags), -1);
FaultPoint fault_watching;
// Sees the descriptors that the library has the loop watch.
unsigned int g_watch_flags;
extern "C" int uloop_fd_add(uloop_fd *sock, unsigned int flags)
{
    g_watch_flags = flags;
    if ((flags & ULOOP_BLOCKING) != 0 && fault_watching.fails()) // not the loop's own
        return -1;
    return next_function<int(uloop_fd *, unsigned int)>("uloop_fd_add")(sock, flags);
}
// Counts the connections that the library gives back.
int g_given_back;
extern "C" void ubus_free(ubus_context *ctx)
{
    g_given_back++;
    next_function<void(ubus_context *)>("ubus_free")(ctx);
}

// Sees the object as the library publishes it: not all of it travels.
ubus_object g_published;
extern "C" int ubus_add_object(ubus_context *ctx, ubus_object *obj)
{
    g_published = *obj;
    return next_function<int(ubus_context *, ubus_object *)>("ubus_add_object")(ctx, obj);
}

namespace {

// What the handler of the test was given last, and what it does with it.
struct Seen {
    int calls = 0;
    uint32_t len = 0;
    Bytes data;
};
Seen g_seen;
uint32_t g_result = 0;

uint32_t keep(void *data, uint32_t len)
{
    g_seen.calls++;
    g_seen.len = len;
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    g_seen.data.assign(bytes, bytes + len);
    return g_result;
}

uint32_t add_one_to_each(void *data, uint32_t len)
{
    keep(data, len);
    for (uint32_t i = 0; i < len; i++)
        static_cast<uint8_t *>(data)[i]++;
    return 7;
}

uint32_t other(void *, uint32_t)
{
    return 1111;
}

uint32_t end_the_loop(void *, uint32_t)
{
    uloop_end();
    return 0;
}

int register_functions()
{
    EXPECT_EQ(bv_ubus_server_reg("keep", keep), 0);
    EXPECT_EQ(bv_ubus_server_reg("add_one", add_one_to_each), 0);
    EXPECT_EQ(bv_ubus_server_reg("end", end_the_loop), 0);
    return 99; // ignored
}

using Requests = std::vector<Bytes>;

// Serves `requests` one after the other and returns the answers. The owner's run ends when the bus
// goes away.
std::vector<Answer> serve(const Requests &requests, int (*registration)() = register_functions)
{
    std::vector<Answer> answers;
    ScriptedBus bus([&](Peer &peer) {
        peer.accept_object();
        for (const Bytes &fields : requests)
            answers.push_back(peer.call(fields));
        peer.expect_nothing_more();
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, registration), 0);
    bus.join();
    return answers;
}

Answer serve_one(const Bytes &fields, int (*registration)() = register_functions)
{
    return serve({fields}, registration).at(0);
}

void expect_refused(const Bytes &fields)
{
    const Answer answer = serve_one(fields);
    EXPECT_FALSE(answer.has_data);
    EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{2}));
    EXPECT_EQ(g_seen.calls, 0);
}

void expect_reply(const Answer &answer, const Bytes &fields)
{
    EXPECT_TRUE(answer.has_data);
    EXPECT_EQ(wire::to_hex(answer.data), wire::to_hex(fields));
    EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{0}));
}

const Bytes kThreeBytes = {0xaa, 0xbb, 0xcc};

} // namespace

TEST(RpcServer, PublishesItsObjectWithTheseBytes)
{
    Message added;
    ScriptedBus bus([&](Peer &peer) { added = peer.accept_object(); });
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), 0);
    bus.join();
    EXPECT_EQ(wire::to_hex(added.bytes()),
              wire::to_hex(wire::hex("00 06 00 01 00 00 00 00  00 00 00 64"
                                     "02 00 00 1a 62 72 6f 76 61 6e 2e 67 61 74 65 77 61 79 2e 73"
                                     "65 72 76 65 72 00 00 00"
                                     "06 00 00 44 82 00 00 40 00 06 6d 65 74 68 6f 64 00 00 00 00"
                                     "85 00 00 10 00 04 66 75 6e 63 00 00 00 00 00 03"
                                     "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                                     "85 00 00 10 00 04 64 61 74 61 00 00 00 00 00 00")));
}

TEST(RpcServer, TheObjectIsOfTypeObjAndItsOneMethodIsTheTypes)
{
    ScriptedBus bus([](Peer &peer) { peer.accept_object(); });
    EXPECT_EQ(bv_ubus_server_init("a.name", nullptr), 0);
    EXPECT_STREQ(g_published.name, "a.name");
    EXPECT_STREQ(g_published.type->name, "obj");
    EXPECT_EQ(g_published.methods, g_published.type->methods);
    EXPECT_EQ(g_published.n_methods, 1);
    EXPECT_EQ(g_published.type->n_methods, 1);
    EXPECT_STREQ(g_published.methods->name, "method");
}

TEST(RpcServer, AnswersARequestWithTheseBytes)
{
    const Answer answer =
        serve_one(wire::hex("83 00 00 14 00 04 66 75 6e 63 00 00 61 64 64 5f 6f 6e 65 00"
                            "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                            "80 00 00 11 00 04 64 61 74 61 00 00 01 02 03 04 ff 00 00 00"));
    ASSERT_EQ(answer.messages.size(), 2u);
    EXPECT_EQ(
        wire::to_hex(answer.messages[0].bytes()),
        wire::to_hex(wire::hex("00 02 00 01 eb 48 ce 6f  00 00 00 48"
                               "03 00 00 08 5e a6 c7 3d"
                               "07 00 00 3c"
                               "85 00 00 14 00 06 72 65 74 75 72 6e 00 00 00 00 00 00 00 07"
                               "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                               "80 00 00 11 00 04 64 61 74 61 00 00 02 03 04 05 00 00 00 00")));
    EXPECT_EQ(wire::to_hex(answer.messages[1].bytes()),
              wire::to_hex(wire::hex("00 01 00 01 eb 48 ce 6f  00 00 00 14"
                                     "01 00 00 08 00 00 00 00  03 00 00 08 5e a6 c7 3d")));
}

TEST(RpcServer, RefusalIsOneStatusWithTheseBytes)
{
    const Answer answer = serve_one(wire::request("nobody", 0, {}));
    ASSERT_EQ(answer.messages.size(), 1u);
    EXPECT_EQ(wire::to_hex(answer.messages[0].bytes()),
              wire::to_hex(wire::hex("00 01 00 01 eb 48 ce 6f  00 00 00 14"
                                     "01 00 00 08 00 00 00 02  03 00 00 08 5e a6 c7 3d")));
}

TEST(RpcServer, EveryHandlerResultTravelsInTheReply)
{
    for (uint32_t result : {0u, 1u, 7u, 0x10000010u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(result);
        g_result = result;
        expect_reply(serve_one(wire::request("keep", 3, kThreeBytes)),
                     wire::reply(result, 3, kThreeBytes));
    }
}

TEST(RpcServer, ACallOfNoBytesReachesTheHandlerAndReturnsNone)
{
    const Answer answer = serve_one(wire::request("add_one", 0, {}));
    EXPECT_EQ(g_seen.calls, 1);
    EXPECT_EQ(g_seen.len, 0u);
    expect_reply(answer, wire::reply(7, 0, {}));
}

TEST(RpcServer, ServesManyRequestsOnOneConnectionWithoutMixingTheirBytes)
{
    Requests requests;
    for (size_t i = 0; i < 40; i++)
        requests.push_back(wire::request("keep", static_cast<uint32_t>(i * 37 % 300),
                                         Bytes(i * 37 % 300, static_cast<uint8_t>(i))));
    const std::vector<Answer> answers = serve(requests);
    for (size_t i = 0; i < requests.size(); i++)
        expect_reply(answers[i], wire::reply(0, static_cast<uint32_t>(i * 37 % 300),
                                             Bytes(i * 37 % 300, static_cast<uint8_t>(i))));
}

TEST(RpcServer, FieldsMayComeInAnyOrderAndWithOthersBetween)
{
    const Answer answer = serve_one(wire::join(
        {wire::field(0, "data", kThreeBytes), wire::field(7, "zz", {1}),
         wire::attribute(5, wire::word(9)), // no name
         wire::field(5, "len", wire::word(3)), wire::field(3, "func", wire::text("keep"))}));
    expect_reply(answer, wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, OfTwoFieldsOfOneNameTheFirstOfTheRightTypeCounts)
{
    const Answer answer = serve_one(wire::join(
        {wire::field(5, "func", wire::word(1)), wire::field(3, "func", wire::text("keep")),
         wire::field(3, "func", wire::text("add_one")), wire::field(5, "len", wire::word(3)),
         wire::field(5, "len", wire::word(1)), wire::field(0, "data", kThreeBytes)}));
    expect_reply(answer, wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, DataOfAnyTypeIsTakenAsBytes)
{
    const Bytes func = wire::field(3, "func", wire::text("keep"));
    const Bytes len = wire::field(5, "len", wire::word(4));
    for (uint8_t type : {uint8_t{0}, uint8_t{1}, uint8_t{2}, uint8_t{3}, uint8_t{5}}) {
        SCOPED_TRACE(static_cast<int>(type));
        const Bytes data = {'a', 'b', 'c', 0};
        expect_reply(serve_one(wire::join({func, len, wire::field(type, "data", data)})),
                     wire::reply(0, 4, data));
    }
}

TEST(RpcServer, ARequestLackingAFieldIsRefused)
{
    const Bytes func = wire::field(3, "func", wire::text("keep"));
    const Bytes len = wire::field(5, "len", wire::word(3));
    const Bytes data = wire::field(0, "data", kThreeBytes);
    const std::vector<std::pair<const char *, Bytes>> rows = {
        {"nothing at all", {}},
        {"no func", wire::join({len, data})},
        {"no len", wire::join({func, data})},
        {"no data", wire::join({func, len})},
        {"only func", func},
        {"data without a name", wire::join({func, len, wire::attribute(0, kThreeBytes)})},
        {"data with an empty name", wire::join({func, len, wire::field(0, "", kThreeBytes)})},
        {"names in capitals", wire::join({wire::field(3, "FUNC", wire::text("keep")), len, data})},
        {"name with more behind it", wire::join({func, len, wire::field(0, "data2", kThreeBytes)})},
    };
    for (const auto &[name, fields] : rows) {
        SCOPED_TRACE(name);
        expect_refused(fields);
    }
}

TEST(RpcServer, AFieldOfTheWrongTypeCountsAsMissing)
{
    const Bytes func = wire::field(3, "func", wire::text("keep"));
    const Bytes len = wire::field(5, "len", wire::word(3));
    const Bytes data = wire::field(0, "data", kThreeBytes);
    const std::vector<std::pair<const char *, Bytes>> rows = {
        {"func as number", wire::join({wire::field(5, "func", wire::word(3)), len, data})},
        {"func as raw bytes", wire::join({wire::field(0, "func", wire::text("keep")), len, data})},
        {"len as string", wire::join({func, wire::field(3, "len", wire::text("3")), data})},
        {"len of 8 bits", wire::join({func, wire::field(7, "len", {3}), data})},
        {"len of 16 bits", wire::join({func, wire::field(6, "len", {0, 3}), data})},
        {"len of 64 bits", wire::join({func, wire::field(4, "len", Bytes(8)), data})},
        {"len as raw bytes", wire::join({func, wire::field(0, "len", wire::word(3)), data})},
    };
    for (const auto &[name, fields] : rows) {
        SCOPED_TRACE(name);
        expect_refused(fields);
    }
}

TEST(RpcServer, MalformedFieldsAreRefused)
{
    const Bytes func = wire::field(3, "func", wire::text("keep"));
    const Bytes len = wire::field(5, "len", wire::word(3));
    const Bytes data = wire::field(0, "data", kThreeBytes);
    const std::vector<std::pair<const char *, Bytes>> rows = {
        {"func without terminator", wire::join({wire::field(3, "func", {'k', 'e'}), len, data})},
        {"func of no bytes", wire::join({wire::field(3, "func", {}), len, data})},
        {"len of 3 bytes", wire::join({func, wire::field(5, "len", {0, 0, 3}), data})},
        {"len of 5 bytes", wire::join({func, wire::field(5, "len", Bytes(5)), data})},
        {"type 9 ahead", wire::join({wire::field(9, "x", {}), func, len, data})},
        {"name beyond the field",
         wire::join({wire::hex("80 00 00 08 ff ff 64 61"), func, len, data})},
        {"field beyond the message",
         wire::join({func, len, wire::hex("80 ff ff ff 00 04 64 61 74 61 00 00")})},
        {"field of length 0", wire::join({wire::hex("80 00 00 00"), func, len, data})},
        {"field of length 2", wire::join({wire::hex("80 00 00 02"), func, len, data})},
        {"only garbage", Bytes(64, 0xff)},
        {"only zeros", Bytes(64, 0)},
    };
    for (const auto &[name, fields] : rows) {
        SCOPED_TRACE(name);
        expect_refused(fields);
    }
}

// Whatever arrives, the owner answers it and goes on. The sanitizers see to the rest.
TEST(RpcServer, DamagedRequestsAreAnsweredToo)
{
    std::mt19937 random(20261120);
    Requests requests;
    for (int i = 0; i < 1500; i++) {
        Bytes fields = wire::request("add_one", 40, Bytes(40, 0x11));
        for (unsigned damage = random() % 4 + 1; damage > 0; damage--)
            fields[random() % fields.size()] = static_cast<uint8_t>(random());
        if (random() % 4 == 0)
            fields.resize(random() % fields.size());
        requests.push_back(fields);
    }
    requests.push_back(wire::request("keep", 3, kThreeBytes));
    const std::vector<Answer> answers = serve(requests);
    for (const Answer &answer : answers)
        EXPECT_EQ(answer.statuses.size(), 1u);
    expect_reply(answers.back(), wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, AMalformedFieldBehindGoodOnesDoesNoHarm)
{
    const Answer answer =
        serve_one(wire::join({wire::request("keep", 3, kThreeBytes), wire::field(9, "x", {})}));
    expect_reply(answer, wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, ASmallerDeclaredLengthCutsTheData)
{
    const Answer answer = serve_one(wire::request("add_one", 2, kThreeBytes));
    EXPECT_EQ(g_seen.data, (Bytes{0xaa, 0xbb}));
    expect_reply(answer, wire::reply(7, 2, {0xab, 0xbc}));
}

TEST(RpcServer, ALargerDeclaredLengthContinuesTheDataWithZeros)
{
    const Answer answer = serve_one(wire::request("add_one", 70, kThreeBytes));
    Bytes given = kThreeBytes;
    given.resize(70);
    EXPECT_EQ(wire::to_hex(g_seen.data), wire::to_hex(given));
    Bytes returned(70, 1);
    returned[0] = 0xab;
    returned[1] = 0xbc;
    returned[2] = 0xcd;
    expect_reply(answer, wire::reply(7, 70, returned));
}

// The padding behind the data is the sender's to fill, and is no data.
TEST(RpcServer, PaddingIsNotTakenForData)
{
    Bytes fields = wire::request("keep", 4, kThreeBytes);
    ASSERT_EQ(fields.back(), 0);
    fields.back() = 0xee;
    const Answer answer = serve_one(fields);
    EXPECT_EQ(g_seen.data, (Bytes{0xaa, 0xbb, 0xcc, 0}));
    expect_reply(answer, wire::reply(0, 4, {0xaa, 0xbb, 0xcc, 0}));
}

TEST(RpcServer, ALengthWithoutAnyDataGivesZeros)
{
    const Answer answer = serve_one(wire::request("keep", 5, {}));
    EXPECT_EQ(g_seen.data, Bytes(5));
    expect_reply(answer, wire::reply(0, 5, Bytes(5)));
}

TEST(RpcServer, NothingOfAnEarlierRequestShowsInAReply)
{
    const std::vector<Answer> answers = serve(
        {wire::request("keep", 2000, Bytes(2000, 0x55)), wire::request("keep", 1500, {0x11})});
    Bytes expected(1500);
    expected[0] = 0x11;
    expect_reply(answers[1], wire::reply(0, 1500, expected));
}

// The body of a reply to `length` bytes is 64 bytes longer, and the bus takes 1048576.
TEST(RpcServer, TheLongestReplyFillsOneMessage)
{
    const uint32_t longest = 1048576 - 64;
    const Answer answer = serve_one(wire::request("keep", longest, {0x42}));
    EXPECT_EQ(g_seen.len, longest);
    ASSERT_EQ(answer.messages.size(), 2u);
    EXPECT_EQ(answer.messages[0].attributes.size() + 4, 1048576u);
    EXPECT_EQ(answer.data.size(), longest + 48);
    EXPECT_EQ(answer.data[48], 0x42);
    EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{0}));
}

TEST(RpcServer, ALengthWhoseReplyCannotTravelIsRefusedBeforeTheHandlerRuns)
{
    for (uint32_t length : {1048576u - 63, 1048576u, 1048577u, 1310720u, 1310721u, 0x7fffffffu,
                            0x80000000u, 0xfffffff0u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        expect_refused(wire::request("keep", length, kThreeBytes));
    }
}

TEST(RpcServer, NoMemoryForTheBlockIsARefusalAndTheNextRequestIsServed)
{
    std::vector<Answer> answers;
    {
        FailAllocationsOfSize failing(77776);
        answers = serve(
            {wire::request("keep", 77776, kThreeBytes), wire::request("keep", 3, kThreeBytes)});
        EXPECT_EQ(failing.happened(), 1u);
    }
    EXPECT_FALSE(answers[0].has_data);
    EXPECT_EQ(answers[0].statuses, (std::vector<uint32_t>{2}));
    EXPECT_EQ(g_seen.calls, 1);
    expect_reply(answers[1], wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, NoMemoryForTheReplyIsARefusalBeforeTheHandlerRuns)
{
    Answer answers[2];
    Answer served;
    ScriptedBus bus([&](Peer &peer) {
        peer.accept_object();
        for (Answer &answer : answers) { // before and after the buffer has its first bytes
            {
                FailReallocations failing; // message buffers grow by them
                answer = peer.call(wire::request("keep", 3000, kThreeBytes));
                EXPECT_GT(failing.happened(), 0u);
            }
            EXPECT_EQ(g_seen.calls, 0);
            served = peer.call(wire::request("keep", 3, kThreeBytes));
            g_seen.calls = 0;
        }
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    bus.join();
    for (const Answer &answer : answers) {
        EXPECT_FALSE(answer.has_data);
        EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{2}));
    }
    expect_reply(served, wire::reply(0, 3, kThreeBytes));
}

// The lengths go over the end of the buffer, wherever it lies.
TEST(RpcServer, ABufferThatIsAlmostLargeEnoughGrowsBeforeTheHandlerRuns)
{
    int served = 0, refused = 0;
    ScriptedBus bus([&](Peer &peer) {
        peer.accept_object();
        peer.call(wire::request("keep", 3000, kThreeBytes));
        FailReallocations failing;
        for (uint32_t length = 3000; length < 3600; length++) {
            g_seen.calls = 0;
            const bool replied = peer.call(wire::request("keep", length, kThreeBytes)).has_data;
            EXPECT_EQ(g_seen.calls, replied ? 1 : 0) << length;
            (replied ? served : refused)++;
        }
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    bus.join();
    EXPECT_GT(served, 0);
    EXPECT_GT(refused, 0);
}

TEST(RpcServer, AnUnknownNameIsRefused)
{
    for (const char *name : {"nobody", "", "kee", "keep2", "KEEP", " keep", "keep "}) {
        SCOPED_TRACE(name);
        expect_refused(wire::request(name, 3, kThreeBytes));
    }
}

TEST(RpcServer, AnUnknownNameIsRefusedAlsoBehindAKnownOne)
{
    const Bytes known = wire::request("keep", 3, kThreeBytes);
    for (const std::string &name : {std::string(), std::string("nobody"), std::string(300, 'n')}) {
        SCOPED_TRACE(name);
        const std::vector<Answer> answers =
            serve({known, wire::request(name, 3, kThreeBytes), known});
        expect_reply(answers[0], wire::reply(0, 3, kThreeBytes));
        EXPECT_EQ(answers[1].statuses, (std::vector<uint32_t>{2}));
        expect_reply(answers[2], wire::reply(0, 3, kThreeBytes));
    }
}

TEST(RpcServer, NeighbouringNamesAreToldApart)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg("get_a", keep), 0);
        EXPECT_EQ(bv_ubus_server_reg("get_b", other), 0);
        return 0;
    };
    const Bytes a = wire::request("get_a", 3, kThreeBytes);
    const Bytes b = wire::request("get_b", 3, kThreeBytes);
    const std::vector<Answer> answers = serve({a, b, a}, registration);
    expect_reply(answers[0], wire::reply(0, 3, kThreeBytes));
    expect_reply(answers[1], wire::reply(1111, 3, kThreeBytes));
    expect_reply(answers[2], wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, ANameEndsAtItsFirstZeroByte)
{
    const Bytes name = {'k', 'e', 'e', 'p', 0, 'x', 0};
    const Answer answer =
        serve_one(wire::join({wire::field(3, "func", name), wire::field(5, "len", wire::word(3)),
                              wire::field(0, "data", kThreeBytes)}));
    expect_reply(answer, wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, ANameOf255CharactersIsUsedWhole)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg(std::string(255, 'n').c_str(), keep), 0);
        return 0;
    };
    const std::vector<Answer> answers =
        serve({wire::request(std::string(255, 'n'), 3, kThreeBytes),
               wire::request(std::string(254, 'n'), 3, kThreeBytes),
               wire::request(std::string(254, 'n') + 'm', 3, kThreeBytes)},
              registration);
    expect_reply(answers[0], wire::reply(0, 3, kThreeBytes));
    EXPECT_EQ(answers[1].statuses[0], 2u);
    EXPECT_EQ(answers[2].statuses[0], 2u);
}

TEST(RpcServer, LongerNamesAllMeanTheEmptyOneWhenCalled)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg("", keep), 0);
        return 0;
    };
    for (size_t length : {0, 256, 300, 5000}) {
        SCOPED_TRACE(length);
        expect_reply(
            serve_one(wire::request(std::string(length, 'n'), 3, kThreeBytes), registration),
            wire::reply(0, 3, kThreeBytes));
    }
}

TEST(RpcServer, LongerNamesAllMeanTheEmptyOneWhenRegistered)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg(std::string(256, 'n').c_str(), other), 0);
        EXPECT_EQ(bv_ubus_server_reg(std::string(300, 'm').c_str(), keep), 0);
        return 0;
    };
    for (const std::string &name : {std::string(), std::string(256, 'n'), std::string(400, 'q')}) {
        SCOPED_TRACE(name.size());
        expect_reply(serve_one(wire::request(name, 3, kThreeBytes), registration),
                     wire::reply(0, 3, kThreeBytes));
    }
}

TEST(RpcServer, RegisteringANameAgainReplacesItsHandler)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg("keep", other), 0);
        EXPECT_EQ(bv_ubus_server_reg("keep", keep), 0);
        return 0;
    };
    expect_reply(serve_one(wire::request("keep", 3, kThreeBytes), registration),
                 wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, AHandlerReplacedByAHandlerIsNotCalledAgain)
{
    const auto registration = [] {
        bv_ubus_server_reg("keep", keep);
        bv_ubus_server_reg("replace", [](void *, uint32_t) {
            return static_cast<uint32_t>(bv_ubus_server_reg("keep", other)) +
                   static_cast<uint32_t>(bv_ubus_server_reg("replace", other));
        });
        return 0;
    };
    const Bytes keep_request = wire::request("keep", 3, kThreeBytes);
    const Bytes replace_request = wire::request("replace", 0, {});
    const std::vector<Answer> answers = serve(
        {keep_request, keep_request, replace_request, replace_request, keep_request}, registration);
    expect_reply(answers[0], wire::reply(0, 3, kThreeBytes));
    expect_reply(answers[1], wire::reply(0, 3, kThreeBytes));
    expect_reply(answers[2], wire::reply(0, 0, {}));
    expect_reply(answers[3], wire::reply(1111, 0, {}));
    expect_reply(answers[4], wire::reply(1111, 3, kThreeBytes));
}

TEST(RpcServer, RegistrationNeedsARegistryAndBothArguments)
{
    EXPECT_EQ(bv_ubus_server_reg("early", keep), -1);
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg(nullptr, keep), -1);
        EXPECT_EQ(bv_ubus_server_reg("null", nullptr), -1);
        return 0;
    };
    EXPECT_EQ(serve_one(wire::request("null", 3, kThreeBytes), registration).statuses[0], 2u);
}

TEST(RpcServer, RegistrationPassesTheTablesResultOn)
{
    const auto registration = [] {
        {
            FailAllocation next(1);
            EXPECT_EQ(bv_ubus_server_reg("no memory", keep), 0x10000040);
        }
        for (int i = 0; i < 8196; i++)
            EXPECT_EQ(bv_ubus_server_reg(std::to_string(i).c_str(), keep), 0);
        EXPECT_EQ(bv_ubus_server_reg("one more", keep), 0x10000016);
        EXPECT_EQ(bv_ubus_server_reg("17", other), 0x10000016);
        return 0;
    };
    EXPECT_EQ(bv_ubus_server_init(nullptr, registration), -1); // there is no bus
}

TEST(RpcServer, WithoutMemoryForTheRegistryNothingIsStarted)
{
    static bool registered = false;
    FailAllocation next(1);
    EXPECT_EQ(bv_ubus_server_init(nullptr,
                                  [] {
                                      registered = true;
                                      return 0;
                                  }),
              -1);
    EXPECT_TRUE(next.happened());
    EXPECT_FALSE(registered);
}

TEST(RpcServer, FunctionsAreRegisteredBeforeTheLoopTakesSignals)
{
    static sighandler_t at_registration = SIG_ERR;
    EXPECT_EQ(bv_ubus_server_init(nullptr,
                                  [] {
                                      struct sigaction now = {};
                                      sigaction(SIGTERM, nullptr, &now);
                                      at_registration = now.sa_handler;
                                      return 0;
                                  }),
              -1); // there is no bus
    EXPECT_EQ(at_registration, SIG_DFL);
    struct sigaction after = {};
    sigaction(SIGTERM, nullptr, &after);
    EXPECT_NE(after.sa_handler, SIG_DFL);
}

TEST(RpcServer, HandlersRunInTheThreadThatServes)
{
    static pthread_t handler_thread;
    const auto registration = [] {
        bv_ubus_server_reg("keep", [](void *, uint32_t) -> uint32_t {
            handler_thread = pthread_self();
            return 0;
        });
        return 0;
    };
    expect_reply(serve_one(wire::request("keep", 3, kThreeBytes), registration),
                 wire::reply(0, 3, kThreeBytes));
    EXPECT_TRUE(pthread_equal(handler_thread, pthread_self()));
}

TEST(RpcServer, WithoutABusRegistersAndFails)
{
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), -1);
    EXPECT_EQ(bv_ubus_server_reg("late", keep), 0) << "the registry stays";
    EXPECT_EQ(bv_uloop_timeout_set(new uloop_timeout{}, 1000), 0) << "so does the loop";
}

TEST(RpcServer, WithoutAnEventLoopFails)
{
    ScriptedBus bus([](Peer &peer) { peer.hello(); });
    fault_epoll_create1.fail_always(EMFILE);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), -1);
    fault_epoll_create1.pass();
    // The script waits for one connection, made or not made above.
    bv_ubus_free(bv_ubus_connect(nullptr));
}

TEST(RpcServer, TheConnectionIsWatchedForReadingInBlockingMode)
{
    ScriptedBus bus([](Peer &peer) { peer.accept_object(); });
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), 0);
    EXPECT_EQ(g_watch_flags, 9u);
}

TEST(RpcServer, AConnectionThatCannotBeWatchedIsClosed)
{
    bool closed = false;
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        closed = wire::closed_by_peer(peer.fd());
    });
    fault_watching.fail_always(ENOSPC);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), -1);
    fault_watching.pass();
    bus.join();
    EXPECT_TRUE(closed);
}

TEST(RpcServer, ARefusedObjectIsTheResultAndClosesTheConnection)
{
    for (uint32_t status : {2u, 6u, 99u}) {
        SCOPED_TRACE(status);
        bool closed = false;
        ScriptedBus bus([&](Peer &peer) {
            peer.hello();
            peer.send_status(peer.receive(), status);
            closed = wire::closed_by_peer(peer.fd());
        });
        EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), static_cast<int32_t>(status));
        bus.join();
        EXPECT_TRUE(closed);
    }
}

TEST(RpcServer, AClosedConnectionIsGivenBackOnce)
{
    ScriptedBus bus([&](Peer &peer) {
        peer.hello();
        peer.send_status(peer.receive(), 2);
    });
    g_given_back = 0;
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), 2);
    bus.join();
    EXPECT_EQ(g_given_back, 1);
    FailAllocation next(1);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), -1);
    EXPECT_EQ(g_given_back, 1);
}

TEST(RpcServer, ABusLostWhilePublishingIsTheResult)
{
    ScriptedBus bus([](Peer &peer) {
        peer.hello();
        peer.receive();
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), 10);
}

TEST(RpcServer, AnObjectNameOf127CharactersIsUsedWhole)
{
    const std::string name(127, 'o');
    Message added;
    ScriptedBus bus([&](Peer &peer) { added = peer.accept_object(); });
    EXPECT_EQ(bv_ubus_server_init(name.c_str(), nullptr), 0);
    bus.join();
    EXPECT_EQ(added.payload(wire::kAttrObjectPath), wire::text(name));
}

TEST(RpcServer, ALongerObjectNameIsPublishedEmpty)
{
    Message added;
    ScriptedBus bus([&](Peer &peer) { added = peer.accept_object(); });
    EXPECT_EQ(bv_ubus_server_init(std::string(128, 'o').c_str(), nullptr), 0);
    bus.join();
    EXPECT_TRUE(added.has(wire::kAttrObjectPath));
    EXPECT_EQ(added.payload(wire::kAttrObjectPath), wire::text(""));
}

TEST(RpcServer, ALostBusEndsTheRunAndTheNextOnePublishesAVisibleObject)
{
    Message added[2];
    Answer answers[2];
    ScriptedBus bus({[&](Peer &peer) {
                         added[0] = peer.accept_object();
                         answers[0] = peer.call(wire::request("keep", 3, kThreeBytes));
                     },
                     [&](Peer &peer) {
                         added[1] = peer.accept_object();
                         answers[1] = peer.call(wire::request("keep", 3, kThreeBytes));
                     }});
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    bus.join();
    EXPECT_EQ(wire::to_hex(added[1].bytes()), wire::to_hex(added[0].bytes()));
    EXPECT_TRUE(added[1].has(wire::kAttrSignature));
    EXPECT_FALSE(added[1].has(wire::kAttrObjectType));
    expect_reply(answers[0], wire::reply(0, 3, kThreeBytes));
    expect_reply(answers[1], wire::reply(0, 3, kThreeBytes));
}

TEST(RpcServer, TheEndedRunsConnectionStaysUntilTheNextStartAndItsFunctionsGo)
{
    std::atomic<bool> ended{false};
    std::atomic<bool> may_start{false};
    bool open_after_end = false;
    bool closed_by_start = false;
    std::vector<Answer> answers;
    ScriptedBus bus({[&](Peer &peer) {
                         peer.accept_object();
                         peer.call(wire::request("end", 0, {}));
                         while (!ended)
                             bv_os_msleep(1);
                         open_after_end = !wire::closed_by_peer(peer.fd(), 100);
                         may_start = true;
                         closed_by_start = wire::closed_by_peer(peer.fd());
                     },
                     [&](Peer &peer) {
                         peer.accept_object();
                         for (const char *name : {"keep", "end"})
                             answers.push_back(peer.call(wire::request(name, 3, kThreeBytes)));
                     }});
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    ended = true;
    while (!may_start)
        bv_os_msleep(1);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), 0);
    bus.join();
    EXPECT_TRUE(open_after_end);
    EXPECT_TRUE(closed_by_start);
    for (const Answer &answer : answers)
        EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{2}));
}

TEST(RpcServer, SigtermEndsTheRunAndTheSignalIsGivenBack)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg("stop",
                                     [](void *, uint32_t) -> uint32_t {
                                         struct sigaction now = {};
                                         sigaction(SIGTERM, nullptr, &now);
                                         EXPECT_NE(now.sa_handler, SIG_DFL);
                                         raise(SIGTERM);
                                         return 5;
                                     }),
                  0);
        return 0;
    };
    Answer answer;
    Message last_words;
    bool closed = true;
    std::atomic<bool> returned{false};
    ScriptedBus bus([&](Peer &peer) {
        peer.accept_object();
        answer = peer.call(wire::request("stop", 0, {}));
        while (!returned)
            bv_os_msleep(1);
        last_words = wire::receive_message(peer.fd(), 100);
        closed = wire::closed_by_peer(peer.fd(), 100);
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, registration), 0);
    returned = true;
    bus.join();
    expect_reply(answer, wire::reply(5, 0, {}));
    EXPECT_EQ(last_words.type, wire::kNothing) << "the object is not taken back";
    EXPECT_FALSE(closed);
    struct sigaction after = {};
    sigaction(SIGTERM, nullptr, &after);
    EXPECT_EQ(after.sa_handler, SIG_DFL);
}

TEST(RpcServer, AServicesOwnSigtermHandlerStays)
{
    static volatile sig_atomic_t caught = 0;
    signal(SIGTERM, [](int) { caught = 1; });
    const auto registration = [] {
        bv_ubus_server_reg("stop", [](void *, uint32_t) -> uint32_t {
            raise(SIGTERM);
            return 0;
        });
        return 0;
    };
    const std::vector<Answer> answers =
        serve({wire::request("stop", 0, {}), wire::request("stop", 0, {})}, registration);
    EXPECT_EQ(caught, 1);
    EXPECT_EQ(answers[1].statuses, (std::vector<uint32_t>{0})) << "the loop went on";
}

TEST(RpcServer, OtherMessagesOfTheBusAreNoRequests)
{
    const Bytes object = wire::attribute(wire::kAttrObjectId, wire::word(kScriptedObject));
    Answer answer;
    ScriptedBus bus([&](Peer &peer) {
        peer.accept_object();
        // An invocation without arguments gets the library's own status and no handler.
        peer.send({wire::kInvoke, 900, kScriptedCaller,
                   wire::join({object, wire::attribute(wire::kAttrMethod, wire::text("method"))})});
        EXPECT_EQ(peer.receive().number(wire::kAttrStatus), 2u);
        // So does a method that the object does not have.
        peer.send({wire::kInvoke, 901, kScriptedCaller,
                   wire::join({object, wire::attribute(wire::kAttrMethod, wire::text("methods")),
                               wire::attribute(wire::kAttrData, wire::request("keep", 0, {}))})});
        EXPECT_EQ(peer.receive().number(wire::kAttrStatus), 3u);
        EXPECT_EQ(g_seen.calls, 0);
        answer = peer.call(wire::request("keep", 3, kThreeBytes));
    });
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    bus.join();
    expect_reply(answer, wire::reply(0, 3, kThreeBytes));
}
