/* SPDX-License-Identifier: ISC */
#include "service/fixture.h"

#include "support/faults.h"

using namespace bv::service;

namespace {

std::vector<std::string> g_calls; // "check 1 1500 1400"
uint32_t g_refused_mtu;

std::string mtu_of(const void *image)
{
    return image == nullptr ? "-" : std::to_string(static_cast<const Lan *>(image)->mtu);
}

uint32_t check(const void *was, const void *is, uint32_t instance)
{
    g_calls.push_back("check " + std::to_string(instance) + " " + mtu_of(was) + " " + mtu_of(is));
    return is != nullptr && static_cast<const Lan *>(is)->mtu == g_refused_mtu ? 77 : 0;
}

void changed(const void *was, const void *is, uint32_t instance)
{
    g_calls.push_back("changed " + std::to_string(instance) + " " + mtu_of(was) + " " + mtu_of(is));
}

class Changes : public Parts {
protected:
    void SetUp() override
    {
        Parts::SetUp();
        bv_service_family lan = family_of("lan.json", kLan);
        lan.check = check;
        lan.changed = changed;
        ASSERT_EQ(start_service({lan, family_of("wan.json", kLan)}), BV_SERVICE_ENDED);
        g_refused_mtu = 0;
        g_calls.clear();
    }
};

std::string mtus(const std::string &name = "lan.json")
{
    std::string out;
    for (const bv_db_inst &instance : instances(Family(*listed(name.c_str()))))
        out += std::to_string(instance.number) + ":" + mtu_of(instance.image) + " ";
    return out;
}

} // namespace

TEST_F(Changes, SetTakesOnlyWhatIsNamed)
{
    EXPECT_EQ(request(R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})"), BV_OK);
    EXPECT_EQ(values("lan.json", 1), R"({"ipaddr":"192.168.1.1","mtu":"1400","hostname":"gw"})");
    EXPECT_EQ(g_calls, (Lines{"check 1 1500 1400", "changed 1 1500 1400"}));
    EXPECT_EQ(announced(), Lines{"lan.json"});
}

TEST_F(Changes, NothingIsSaidWhenNothingDiffers)
{
    EXPECT_EQ(request(R"({"lan.json":[{"inst":"1","para":{"mtu":"1500"}}]})"), BV_OK);
    Lan lan;
    ASSERT_EQ(bv_db_read("lan.json", &lan, sizeof lan, 1), BV_OK);
    lan.hostname[10] = 'x'; // after the NUL
    EXPECT_EQ(bv_service_change("lan.json", &lan, 1), BV_OK);
    EXPECT_EQ(g_calls, Lines{});
    EXPECT_EQ(announced(), Lines{});
}

TEST_F(Changes, OneRefusalRefusesAll)
{
    g_refused_mtu = 1300;
    EXPECT_EQ(request(R"({"wan.json":[{"inst":"1","para":{"mtu":"1400"}}],)"
                      R"("lan.json":[{"inst":"1","para":{"mtu":"1300"}}]})"),
              77);
    EXPECT_EQ(words(), "lan.json.1: the service refuses this");
    EXPECT_EQ(mtus() + mtus("wan.json"), "1:1500 1:1500 ");
    EXPECT_EQ(announced(), Lines{});
}

TEST_F(Changes, AddStartsFromDefaultsAndFindsNumbers)
{
    EXPECT_EQ(request(R"({"lan.json":[{"inst":""},{"inst":9,"para":{"mtu":1400}},{"inst":""}]})",
                      Meaning::Add),
              BV_OK)
        << words();
    EXPECT_EQ(mtus(), "1:1500 2:1500 9:1400 10:1500 ");
    EXPECT_EQ(g_calls.back(), "changed 10 - 1500");
    EXPECT_EQ(request(R"({"lan.json":[{"inst":"9"}]})", Meaning::Add), BV_ERR_EXISTS);
}

TEST_F(Changes, ImportLeavesExactlyWhatItNames)
{
    ASSERT_EQ(request(R"({"lan.json":[{"inst":"2"},{"inst":"3"}]})", Meaning::Add), BV_OK);
    g_calls.clear();
    EXPECT_EQ(request(R"({"lan.json":[{"inst":"2","para":{"mtu":"1400"}},{"inst":"5"}]})",
                      Meaning::Import),
              BV_OK);
    EXPECT_EQ(mtus(), "2:1400 5:1500 ");
    EXPECT_EQ(mtus("wan.json"), "1:1500 ");
    EXPECT_EQ(g_calls.size(), 8u);
    EXPECT_EQ(g_calls[4], "changed 1 1500 -");
    EXPECT_EQ(g_calls[7], "changed 5 - 1500");
}

TEST_F(Changes, FaultyRequestsChangeNothing)
{
    const struct {
        const char *json;
        Meaning meaning;
        int32_t status;
    } cases[] = {
        {"[]", Meaning::Set, BV_ERR_INVALID},
        {R"({"no.json":[]})", Meaning::Set, BV_ERR_NO_FAMILY},
        {R"({"lan.json":{}})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[1]})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[null]})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[{}]})", Meaning::Import, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"1x"}]})", Meaning::Import, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"2147483647"}]})", Meaning::Add, BV_ERR_FULL},
        {R"({"lan.json":[{"inst":"1","para":null}]})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"1","para":[]}]})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"1","para":{"mtu":null}}]})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"1","para":{"mtu":1.5}}]})", Meaning::Set, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"4","para":{"mtu":"1"}}]})", Meaning::Set, BV_ERR_NO_INSTANCE},
        {R"({"lan.json":[{"inst":"2"},{"inst":"2"}]})", Meaning::Import, BV_ERR_INVALID},
        {R"({"lan.json":[{"inst":"2147483646"},{"inst":""}]})", Meaning::Add, BV_ERR_FULL},
        {R"({"wan.json":[{"inst":"3"}],"lan.json":[{"inst":"3","para":{"mtu":"x"}}]})",
         Meaning::Import, BV_ERR_INVALID},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(request(one.json, one.meaning), one.status) << one.json;
        EXPECT_NE(words(), "") << one.json;
    }
    EXPECT_EQ(g_calls, Lines{});
    EXPECT_EQ(mtus() + mtus("wan.json"), "1:1500 1:1500 ");
}

TEST_F(Changes, ServiceChangesItsOwnFamilies)
{
    Lan lan = {{10, 0, 0, 1}, 1400, "a"};
    EXPECT_EQ(bv_service_change("lan.json", &lan, 2), BV_OK);
    EXPECT_EQ(g_calls.back(), "changed 2 - 1400");
    EXPECT_EQ(bv_service_change("lan.json", nullptr, 2), BV_OK);
    EXPECT_EQ(g_calls.back(), "changed 2 1400 -");
    EXPECT_EQ(bv_service_change("lan.json", nullptr, 2), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_service_change("no.json", &lan, 2), BV_ERR_NO_FAMILY);
    lan.hostname[0] = '"';
    EXPECT_EQ(bv_service_change("lan.json", &lan, 2), BV_ERR_INVALID);
    EXPECT_EQ(mtus(), "1:1500 ");
}

TEST_F(Changes, WithoutMemoryAllStaysAsItWas)
{
    json_object *data = bv_json_tokener_parse(
        R"({"wan.json":[{"inst":"5"},{"inst":"6"},{"inst":"1","para":{"mtu":"1400"}}]})");
    bool refused = true;
    for (unsigned nth = 1; refused; ++nth) {
        int32_t status;
        {
            FailAllocation next(nth);
            Plan plan(Meaning::Import);
            status = plan_request(plan, data);
            if (status == BV_OK)
                status = make(plan);
            refused = next.happened();
        }
        ASSERT_EQ(status, refused ? BV_ERR_MEMORY : BV_OK) << nth;
        ASSERT_EQ(mtus("wan.json"), refused ? "1:1500 " : "1:1400 5:1500 6:1500 ") << nth;
        ASSERT_EQ(announced().empty(), refused) << nth;
    }
    bv_json_object_put(data);
}
