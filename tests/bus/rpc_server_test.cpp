// SPDX-License-Identifier: ISC
// The owner's side of remote calls against a scripted bus: the bytes it sends, what it makes of
// requests that other processes got wrong, and how a run starts and ends.

#include <bv/os.h>
#include <bv/ubus.h>

#include "bus/scripted_bus.h"
#include "support/faults.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <random>

using namespace wire;

// Lets a test have an event loop that cannot be made.
// Event loops differ in which of the two they call.
BV_FAULT_POINT(epoll_create, int, (int size), (size), -1);
BV_FAULT_POINT(epoll_create1, int, (int flags), (flags), -1);
FaultPoint fault_watching;
// Sees the descriptors that the library has the loop watch.
unsigned int g_watch_flags;
extern "C" int uloop_fd_add(uloop_fd *sock, unsigned int flags)
{
    g_watch_flags = flags;
    if ((flags & ULOOP_BLOCKING) != 0 && fault_watching.fails()) // not the loop's own
        return -1;
    return next_function<decltype(uloop_fd_add)>("uloop_fd_add")(sock, flags);
}
// Counts the connections that the library frees.
int g_freed;
extern "C" void ubus_free(ubus_context *ctx)
{
    g_freed++;
    next_function<decltype(ubus_free)>("ubus_free")(ctx);
}
// Sees the object as the library publishes it: not all of it travels.
ubus_object g_published;
extern "C" int ubus_add_object(ubus_context *ctx, ubus_object *obj)
{
    g_published = *obj;
    return next_function<decltype(ubus_add_object)>("ubus_add_object")(ctx, obj);
}

namespace {

int g_handled;         // calls of the two handlers below
uint32_t g_result = 0; // of keep()

uint32_t keep(void *, uint32_t)
{
    g_handled++;
    return g_result;
}

// Its result shows the length that it was given.
uint32_t add_one_to_each(void *data, uint32_t len)
{
    g_handled++;
    for (uint32_t i = 0; i < len; i++)
        static_cast<uint8_t *>(data)[i]++;
    return 2 + len;
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

uint32_t raise_sigterm(void *, uint32_t)
{
    raise(SIGTERM);
    return 5;
}

int register_functions()
{
    EXPECT_EQ(bv_ubus_server_reg("keep", keep), 0);
    EXPECT_EQ(bv_ubus_server_reg("add_one", add_one_to_each), 0);
    EXPECT_EQ(bv_ubus_server_reg("end", end_the_loop), 0);
    return 99; // ignored
}

const Bytes kThreeBytes = {0xaa, 0xbb, 0xcc};
const Bytes kKeep = request("keep", 3, kThreeBytes);
const Bytes kKept = reply(0, 3, kThreeBytes);
const Bytes kFuncField = field(3, "func", text("keep"));
const Bytes kLenField = field(5, "len", word(3));
const Bytes kDataField = field(0, "data", kThreeBytes);

using Requests = std::vector<Bytes>;
using Registration = int (*)();

// Plays the scripts to one run after the other; returns what the last run returned.
int run(std::vector<ScriptedBus::Script> scripts, Registration registration = register_functions,
        const char *name = nullptr)
{
    int status = 0;
    const size_t runs = scripts.size();
    ScriptedBus bus(std::move(scripts));
    for (size_t i = 0; i < runs; i++)
        status = bv_ubus_server_init(name, registration);
    bus.join();
    return status;
}

// Serves the requests one after the other and returns the answers. The run ends when the bus goes
// away.
std::vector<Answer> serve(const Requests &requests, Registration registration = register_functions)
{
    std::vector<Answer> answers;
    EXPECT_EQ(run({[&](Peer &peer) {
                      peer.accept_object();
                      for (const Bytes &fields : requests)
                          answers.push_back(peer.call(fields));
                      peer.expect_nothing_more();
                  }},
                  registration),
              0);
    answers.resize(requests.size());
    return answers;
}

void expect_reply(const Answer &answer, const Bytes &fields)
{
    EXPECT_TRUE(answer.has_data);
    EXPECT_EQ(to_hex(answer.data), to_hex(fields));
    EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{0}));
}

void expect_refused(const Answer &answer)
{
    EXPECT_FALSE(answer.has_data);
    EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{2}));
}

// Serves a request between two good ones.
Answer serve_between(const Bytes &fields, Registration registration = register_functions)
{
    const std::vector<Answer> answers = serve({kKeep, fields, kKeep}, registration);
    expect_reply(answers[0], kKept);
    expect_reply(answers[2], kKept);
    return answers[1];
}

sighandler_t sigterm_handler()
{
    struct sigaction now = {};
    sigaction(SIGTERM, nullptr, &now);
    return now.sa_handler;
}

} // namespace

TEST(RpcServer, PublishesItsObjectWithTheseBytes)
{
    Message added;
    EXPECT_EQ(run({[&](Peer &peer) { added = peer.accept_object(); }}, nullptr), 0);
    expect_bytes(added.bytes(), "00 06 00 01 00 00 00 00  00 00 00 64"
                                "02 00 00 1a 62 72 6f 76 61 6e 2e 67 61 74 65 77 61 79 2e 73"
                                "65 72 76 65 72 00 00 00"
                                "06 00 00 44 82 00 00 40 00 06 6d 65 74 68 6f 64 00 00 00 00"
                                "85 00 00 10 00 04 66 75 6e 63 00 00 00 00 00 03"
                                "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                                "85 00 00 10 00 04 64 61 74 61 00 00 00 00 00 00");
    EXPECT_EQ(g_watch_flags, 9u) << "watched for reading, in blocking mode";
}

TEST(RpcServer, ObjectIsOfTypeObjAndItsOneMethodIsTheTypes)
{
    EXPECT_EQ(run({[](Peer &peer) { peer.accept_object(); }}, nullptr, "a.name"), 0);
    EXPECT_STREQ(g_published.name, "a.name");
    EXPECT_STREQ(g_published.type->name, "obj");
    EXPECT_EQ(g_published.methods, g_published.type->methods);
    EXPECT_EQ(g_published.n_methods, 1);
    EXPECT_EQ(g_published.type->n_methods, 1);
    EXPECT_STREQ(g_published.methods->name, "method");
}

TEST(RpcServer, ObjectNameOf127CharactersIsUsedWholeAndALongerOneIsPublishedEmpty)
{
    for (size_t length : {127, 128}) {
        const std::string name(length, 'o');
        Message added;
        EXPECT_EQ(run({[&](Peer &peer) { added = peer.accept_object(); }}, nullptr, name.c_str()),
                  0);
        EXPECT_TRUE(added.has(kAttrObjectPath));
        EXPECT_EQ(added.payload(kAttrObjectPath), text(length == 127 ? name : ""));
    }
}

TEST(RpcServer, AnswersWithTheseBytes)
{
    const std::vector<Answer> answers =
        serve({hex("83 00 00 14 00 04 66 75 6e 63 00 00 61 64 64 5f 6f 6e 65 00"
                   "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                   "80 00 00 11 00 04 64 61 74 61 00 00 01 02 03 04 ff 00 00 00"),
               request("nobody", 0, {})});
    ASSERT_EQ(answers[0].messages.size(), 2u);
    expect_bytes(answers[0].messages[0].bytes(),
                 "00 02 00 01 eb 48 ce 6f  00 00 00 48"
                 "03 00 00 08 5e a6 c7 3d"
                 "07 00 00 3c"
                 "85 00 00 14 00 06 72 65 74 75 72 6e 00 00 00 00 00 00 00 07"
                 "85 00 00 10 00 03 6c 65 6e 00 00 00 00 00 00 05"
                 "80 00 00 11 00 04 64 61 74 61 00 00 02 03 04 05 00 00 00 00");
    expect_bytes(answers[0].messages[1].bytes(),
                 "00 01 00 01 eb 48 ce 6f  00 00 00 14"
                 "01 00 00 08 00 00 00 00  03 00 00 08 5e a6 c7 3d");
    ASSERT_EQ(answers[1].messages.size(), 1u) << "a refusal is a status only";
    expect_bytes(answers[1].messages[0].bytes(),
                 "00 01 00 02 eb 48 ce 6f  00 00 00 14"
                 "01 00 00 08 00 00 00 02  03 00 00 08 5e a6 c7 3d");
}

TEST(RpcServer, EveryHandlerResultTravelsInTheReply)
{
    for (uint32_t result : {0u, 1u, 7u, 0x10000010u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(result);
        g_result = result;
        expect_reply(serve({kKeep})[0], reply(result, 3, kThreeBytes));
    }
    g_result = 0;
}

TEST(RpcServer, RequestsAreServedAsDeclared)
{
    Bytes padded = request("keep", 4, kThreeBytes);
    padded.back() = 0xee; // the padding after the data is the sender's to fill
    Bytes continued(70, 1);
    continued[0] = 0xab;
    continued[1] = 0xbc;
    continued[2] = 0xcd;
    Bytes cleared(1500);
    cleared[0] = 0x11;
    std::vector<std::tuple<const char *, Bytes, Bytes>> rows = {
        {"no bytes", request("add_one", 0, {}), reply(2, 0, {})},
        {"other order, with others between",
         join({kDataField, field(7, "zz", {1}), attribute(5, word(9)), kLenField, kFuncField}),
         kKept},
        {"of two fields of one name, the first of the right type",
         join({field(5, "func", word(1)), kFuncField, field(3, "func", text("add_one")), kLenField,
               field(5, "len", word(1)), kDataField}),
         kKept},
        {"malformed field after good ones", join({kKeep, field(9, "x", {})}), kKept},
        {"smaller length cuts", request("add_one", 2, kThreeBytes), reply(4, 2, {0xab, 0xbc})},
        {"larger length continues with zeros", request("add_one", 70, kThreeBytes),
         reply(72, 70, continued)},
        {"padding is not data", padded, reply(0, 4, {0xaa, 0xbb, 0xcc, 0})},
        {"length without data", request("keep", 5, {}), reply(0, 5, Bytes(5))},
        {"long one", request("keep", 2000, Bytes(2000, 0x55)), reply(0, 2000, Bytes(2000, 0x55))},
        {"nothing of the long one shows", request("keep", 1500, {0x11}), reply(0, 1500, cleared)},
        {"name ends at its first zero byte",
         join({field(3, "func", {'k', 'e', 'e', 'p', 0, 'x', 0}), kLenField, kDataField}), kKept},
    };
    const Bytes any = {'a', 'b', 'c', 0};
    for (uint8_t type : {0, 1, 2, 3, 5})
        rows.push_back({"data of any type",
                        join({kFuncField, field(5, "len", word(4)), field(type, "data", any)}),
                        reply(0, 4, any)});
    for (uint32_t i = 0; i < 40; i++) {
        const Bytes bytes(i * 37 % 300, static_cast<uint8_t>(i));
        rows.push_back({"many of their own", request("keep", i * 37 % 300, bytes),
                        reply(0, i * 37 % 300, bytes)});
    }
    Requests requests;
    for (const auto &row : rows)
        requests.push_back(std::get<1>(row));
    const std::vector<Answer> answers = serve(requests);
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(std::get<0>(rows[i]) + (" " + std::to_string(i)));
        expect_reply(answers[i], std::get<2>(rows[i]));
    }
    EXPECT_EQ(g_handled, static_cast<int>(rows.size()));
}

TEST(RpcServer, WrongRequestsAreRefusedBeforeAHandlerRuns)
{
    std::vector<std::pair<std::string, Bytes>> rows = {
        {"nothing at all", {}},
        {"no func", join({kLenField, kDataField})},
        {"no len", join({kFuncField, kDataField})},
        {"no data", join({kFuncField, kLenField})},
        {"only func", kFuncField},
        {"data without a name", join({kFuncField, kLenField, attribute(0, kThreeBytes)})},
        {"data with an empty name", join({kFuncField, kLenField, field(0, "", kThreeBytes)})},
        {"names in capitals", join({field(3, "FUNC", text("keep")), kLenField, kDataField})},
        {"longer name", join({kFuncField, kLenField, field(0, "data2", kThreeBytes)})},
        {"func as number", join({field(5, "func", word(3)), kLenField, kDataField})},
        {"func as raw bytes", join({field(0, "func", text("keep")), kLenField, kDataField})},
        {"len as string", join({kFuncField, field(3, "len", text("3")), kDataField})},
        {"len of 8 bits", join({kFuncField, field(7, "len", {3}), kDataField})},
        {"len of 16 bits", join({kFuncField, field(6, "len", {0, 3}), kDataField})},
        {"len of 64 bits", join({kFuncField, field(4, "len", Bytes(8)), kDataField})},
        {"len as raw bytes", join({kFuncField, field(0, "len", word(3)), kDataField})},
        {"func without terminator", join({field(3, "func", {'k', 'e'}), kLenField, kDataField})},
        {"func of no bytes", join({field(3, "func", {}), kLenField, kDataField})},
        {"len of 3 bytes", join({kFuncField, field(5, "len", {0, 0, 3}), kDataField})},
        {"len of 5 bytes", join({kFuncField, field(5, "len", Bytes(5)), kDataField})},
        {"type 9 first", join({field(9, "x", {}), kFuncField, kLenField, kDataField})},
        {"name beyond the field",
         join({hex("80 00 00 08 ff ff 64 61"), kFuncField, kLenField, kDataField})},
        {"field beyond the message",
         join({kFuncField, kLenField, hex("80 ff ff ff 00 04 64 61 74 61 00 00")})},
        {"field of length 0", join({hex("80 00 00 00"), kFuncField, kLenField, kDataField})},
        {"field of length 2", join({hex("80 00 00 02"), kFuncField, kLenField, kDataField})},
        {"only garbage", Bytes(64, 0xff)},
        {"only zeros", Bytes(64, 0)},
    };
    for (const char *name : {"nobody", "", "kee", "keep2", "KEEP", " keep", "keep "})
        rows.emplace_back(name, request(name, 3, kThreeBytes));
    // The reply to so many bytes would be longer than a message of the bus.
    for (uint32_t length : {1048576u - 63, 1048576u, 1048577u, 1310720u, 1310721u, 0x7fffffffu,
                            0x80000000u, 0xfffffff0u, 0xffffffffu})
        rows.emplace_back(std::to_string(length) + " bytes", request("keep", length, kThreeBytes));
    Requests requests;
    for (const auto &row : rows)
        requests.push_back(row.second);
    const std::vector<Answer> answers = serve(requests);
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(rows[i].first);
        expect_refused(answers[i]);
    }
    EXPECT_EQ(g_handled, 0);
}

// Whatever arrives, the owner answers it and serves the next one. The sanitizers check the rest.
TEST(RpcServer, DamagedRequestsAreAnsweredToo)
{
    std::mt19937 random(20261120);
    Requests requests;
    for (int i = 0; i < 1500; i++)
        requests.push_back(damaged(random, request("add_one", 40, Bytes(40, 0x11))));
    requests.push_back(kKeep);
    const std::vector<Answer> answers = serve(requests);
    for (const Answer &answer : answers)
        EXPECT_EQ(answer.statuses.size(), 1u);
    expect_reply(answers.back(), kKept);
}

// The body of a reply to `length` bytes is 64 bytes longer, and the bus takes 1048576.
TEST(RpcServer, LongestReplyFillsOneMessage)
{
    const uint32_t longest = 1048576 - 64;
    const Answer answer = serve_between(request("keep", longest, {0x42}));
    ASSERT_EQ(answer.messages.size(), 2u);
    EXPECT_EQ(answer.messages[0].attributes.size() + 4, 1048576u);
    EXPECT_EQ(answer.data.size(), longest + 48);
    EXPECT_EQ(answer.data[48], 0x42);
    EXPECT_EQ(answer.statuses, (std::vector<uint32_t>{0}));
}

TEST(RpcServer, WithoutMemoryForTheBlockARequestIsRefused)
{
    FailAllocationsOfSize failing(77776);
    expect_refused(serve_between(request("keep", 77776, kThreeBytes)));
    EXPECT_EQ(failing.happened(), 1u);
    EXPECT_EQ(g_handled, 2);
}

TEST(RpcServer, WithoutMemoryForTheReplyARequestIsRefusedBeforeTheHandlerRuns)
{
    EXPECT_EQ(run({[&](Peer &peer) {
                  peer.accept_object();
                  for (int time = 0; time < 2;
                       time++) { // before and after the buffer's first bytes
                      g_handled = 0;
                      {
                          FailReallocations failing; // message buffers grow by them
                          expect_refused(peer.call(request("keep", 3000, kThreeBytes)));
                          EXPECT_GT(failing.happened(), 0);
                      }
                      EXPECT_EQ(g_handled, 0);
                      expect_reply(peer.call(kKeep), kKept);
                  }
              }}),
              0);
}

// The lengths go over the end of the buffer, wherever it is.
TEST(RpcServer, BufferThatIsAlmostLargeEnoughGrowsBeforeTheHandlerRuns)
{
    int served = 0, refused = 0;
    EXPECT_EQ(run({[&](Peer &peer) {
                  peer.accept_object();
                  peer.call(request("keep", 3000, kThreeBytes));
                  FailReallocations failing;
                  for (uint32_t length = 3000; length < 3600; length++) {
                      g_handled = 0;
                      const bool replied = peer.call(request("keep", length, kThreeBytes)).has_data;
                      EXPECT_EQ(g_handled, replied ? 1 : 0) << length;
                      (replied ? served : refused)++;
                  }
              }}),
              0);
    EXPECT_GT(served, 0);
    EXPECT_GT(refused, 0);
}

TEST(RpcServer, FunctionNamesAreToldApartUpTo255Characters)
{
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg("keep", other), 0);
        EXPECT_EQ(bv_ubus_server_reg("keep", keep), 0) << "a name again replaces its handler";
        EXPECT_EQ(bv_ubus_server_reg("keep_", other), 0);
        EXPECT_EQ(bv_ubus_server_reg(std::string(255, 'n').c_str(), other), 0);
        return 0;
    };
    const auto answer = [&](const std::string &name) {
        return serve_between(request(name, 3, kThreeBytes), registration);
    };
    expect_reply(answer("keep_"), reply(1111, 3, kThreeBytes));
    expect_reply(answer(std::string(255, 'n')), reply(1111, 3, kThreeBytes));
    for (const std::string &name : {std::string(254, 'n'), std::string(254, 'n') + 'm',
                                    std::string(), std::string("nobody"), std::string(300, 'n')}) {
        SCOPED_TRACE(name);
        expect_refused(answer(name));
    }
}

TEST(RpcServer, LongerNamesAllMeanTheEmptyOne)
{
    const Registration registrations[] = {
        [] { return bv_ubus_server_reg("", keep); },
        [] {
            EXPECT_EQ(bv_ubus_server_reg(std::string(256, 'n').c_str(), other), 0);
            return bv_ubus_server_reg(std::string(300, 'm').c_str(), keep);
        }};
    for (Registration registration : registrations)
        for (size_t length : {0, 256, 300, 400, 5000}) {
            SCOPED_TRACE(length);
            const Bytes fields = request(std::string(length, 'n'), 3, kThreeBytes);
            expect_reply(serve({fields}, registration)[0], kKept);
        }
}

TEST(RpcServer, HandlerReplacedByAHandlerIsNotCalledAgain)
{
    const auto registration = [] {
        bv_ubus_server_reg("keep", keep);
        return bv_ubus_server_reg("replace", [](void *, uint32_t) {
            return static_cast<uint32_t>(bv_ubus_server_reg("keep", other)) +
                   static_cast<uint32_t>(bv_ubus_server_reg("replace", other));
        });
    };
    const Bytes replace = request("replace", 0, {});
    const std::vector<Answer> answers = serve({kKeep, replace, replace, kKeep}, registration);
    expect_reply(answers[0], kKept);
    expect_reply(answers[1], reply(0, 0, {}));
    expect_reply(answers[2], reply(1111, 0, {}));
    expect_reply(answers[3], reply(1111, 3, kThreeBytes));
}

TEST(RpcServer, RegistrationNeedsARegistryAndBothArguments)
{
    EXPECT_EQ(bv_ubus_server_reg("early", keep), -1);
    const auto registration = [] {
        EXPECT_EQ(bv_ubus_server_reg(nullptr, keep), -1);
        EXPECT_EQ(bv_ubus_server_reg("null", nullptr), -1);
        return 0;
    };
    expect_refused(serve({request("null", 3, kThreeBytes)}, registration)[0]);
}

TEST(RpcServer, RegistrationReturnsTheTablesResult)
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
    const auto registration = [] {
        registered = true;
        return 0;
    };
    EXPECT_EQ(bv_ubus_server_init(nullptr, registration), -1);
    EXPECT_TRUE(next.happened());
    EXPECT_FALSE(registered);
}

TEST(RpcServer, FunctionsAreRegisteredBeforeTheLoopTakesSignals)
{
    static sighandler_t at_registration = SIG_ERR;
    const auto registration = [] {
        at_registration = sigterm_handler();
        return 0;
    };
    EXPECT_EQ(bv_ubus_server_init(nullptr, registration), -1); // there is no bus
    EXPECT_EQ(at_registration, SIG_DFL);
    EXPECT_NE(sigterm_handler(), SIG_DFL);
}

TEST(RpcServer, HandlersRunInTheThreadThatServes)
{
    static pthread_t handler_thread;
    const auto registration = [] {
        return bv_ubus_server_reg("keep", [](void *, uint32_t) -> uint32_t {
            handler_thread = pthread_self();
            return 0;
        });
    };
    expect_reply(serve({kKeep}, registration)[0], kKept);
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
    fault_epoll_create.fail_always(EMFILE);
    fault_epoll_create1.fail_always(EMFILE);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), -1);
    fault_epoll_create.pass();
    fault_epoll_create1.pass();
    // The script waits for one connection, made or not made above.
    bv_ubus_free(bv_ubus_connect(nullptr));
}

TEST(RpcServer, FailedStartIsTheResultAndClosesTheConnectionOnce)
{
    const struct {
        const char *what;
        bool watched;    // the connection can be
        uint32_t status; // of the object; 0: the bus is lost instead
        int result;
    } rows[] = {{"cannot be watched", false, 1, -1},
                {"refused with 2", true, 2, 2},
                {"refused with 6", true, 6, 6},
                {"refused with 99", true, 99, 99},
                {"bus lost", true, 0, 10}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        bool closed = false;
        g_freed = 0;
        if (!row.watched)
            fault_watching.fail_always(ENOSPC);
        EXPECT_EQ(run({[&](Peer &peer) {
                          peer.hello();
                          if (row.watched) {
                              const Message added = peer.receive();
                              if (row.status == 0)
                                  shutdown(peer.fd(), SHUT_WR);
                              else
                                  peer.send_status(added, row.status);
                          }
                          closed = closed_by_peer(peer.fd());
                      }},
                      register_functions),
                  row.result);
        EXPECT_TRUE(closed);
        EXPECT_EQ(g_freed, 1);
        fault_watching.pass();
    }
    FailAllocation next(1);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), -1);
    EXPECT_EQ(g_freed, 1) << "not again";
}

TEST(RpcServer, LostBusEndsTheRunAndTheNextOnePublishesAVisibleObject)
{
    std::vector<Message> added;
    const ScriptedBus::Script script = [&](Peer &peer) {
        added.push_back(peer.accept_object());
        expect_reply(peer.call(kKeep), kKept);
    };
    EXPECT_EQ(run({script, script}), 0);
    ASSERT_EQ(added.size(), 2u);
    EXPECT_EQ(to_hex(added[1].bytes()), to_hex(added[0].bytes()));
    EXPECT_TRUE(added[1].has(kAttrSignature));
    EXPECT_FALSE(added[1].has(kAttrObjectType));
}

TEST(RpcServer, EndedRunKeepsItsConnectionUntilTheNextStartButNotItsFunctions)
{
    std::atomic<bool> ended{false};
    std::atomic<bool> may_start{false};
    ScriptedBus bus({[&](Peer &peer) {
                         peer.accept_object();
                         peer.call(request("end", 0, {}));
                         while (!ended)
                             bv_os_msleep(1);
                         EXPECT_FALSE(closed_by_peer(peer.fd(), 100));
                         may_start = true;
                         EXPECT_TRUE(closed_by_peer(peer.fd()));
                     },
                     [&](Peer &peer) {
                         peer.accept_object();
                         for (const char *name : {"keep", "end"})
                             expect_refused(peer.call(request(name, 3, kThreeBytes)));
                     }});
    EXPECT_EQ(bv_ubus_server_init(nullptr, register_functions), 0);
    ended = true;
    while (!may_start)
        bv_os_msleep(1);
    EXPECT_EQ(bv_ubus_server_init(nullptr, nullptr), 0);
}

TEST(RpcServer, SigtermEndsTheRunAndItsHandlerIsRestored)
{
    std::atomic<bool> returned{false};
    ScriptedBus bus([&](Peer &peer) {
        peer.accept_object();
        EXPECT_NE(sigterm_handler(), SIG_DFL);
        expect_reply(peer.call(request("stop", 0, {})), reply(5, 0, {}));
        while (!returned)
            bv_os_msleep(1);
        EXPECT_EQ(receive_message(peer.fd(), 100).type, kNothing) << "the object is not removed";
        EXPECT_FALSE(closed_by_peer(peer.fd(), 100));
    });
    EXPECT_EQ(
        bv_ubus_server_init(nullptr, [] { return bv_ubus_server_reg("stop", raise_sigterm); }), 0);
    returned = true;
    bus.join();
    EXPECT_EQ(sigterm_handler(), SIG_DFL);
}

TEST(RpcServer, ServicesOwnSigtermHandlerStays)
{
    static volatile sig_atomic_t caught = 0;
    signal(SIGTERM, [](int) { caught = 1; });
    const Bytes stop = request("stop", 0, {});
    const std::vector<Answer> answers =
        serve({stop, stop}, [] { return bv_ubus_server_reg("stop", raise_sigterm); });
    EXPECT_EQ(caught, 1);
    EXPECT_EQ(answers[1].statuses, (std::vector<uint32_t>{0})) << "the loop went on";
}

TEST(RpcServer, InvocationsWithoutArgumentsOrOfAnotherMethodReachNoHandler)
{
    const Bytes object = attribute(kAttrObjectId, word(kScriptedObject));
    EXPECT_EQ(run({[&](Peer &peer) {
                  peer.accept_object();
                  peer.send({kInvoke, 900, kScriptedCaller,
                             join({object, attribute(kAttrMethod, text("method"))})});
                  EXPECT_EQ(peer.receive().number(kAttrStatus), 2u);
                  peer.send({kInvoke, 901, kScriptedCaller,
                             join({object, attribute(kAttrMethod, text("methods")),
                                   attribute(kAttrData, request("keep", 0, {}))})});
                  EXPECT_EQ(peer.receive().number(kAttrStatus), 3u);
                  EXPECT_EQ(g_handled, 0);
                  expect_reply(peer.call(kKeep), kKept);
              }}),
              0);
}
