// The headers that bv-template wrote when this test was built, against the library's own idea of
// the same families.

#include "board.h"
#include "dhcp-host.h"
#include "lan.h"
#include "odd-names.h"
#include "wan.h"
#include "wireless.h"

#include "support/shared.h"
#include "tools/tool.h"

#include <bv/db.h>
#include <bv/status.h>

#include <cstring>

extern "C" const size_t header_sizes_in_c[6];

namespace {

const std::string kTemplates = kExamples + "template/";
const std::string kOdd = BV_TEST_SOURCE_DIR "/tools/data/odd-names.json";

// A family as the library reads it from its template. There are records enough for any test.
bv_db_family *load(const std::string &path)
{
    static bv_db_family families[8];
    static size_t used;
    bv_db_family *family = &families[used++];
    EXPECT_EQ(bv_db_template_read_single(path.c_str(), family), BV_OK) << path;
    return family;
}

TEST(Header, HasTheSizeOfTheLibrarysImageInBothLanguages)
{
    struct {
        const char *name;
        std::string path;
        size_t in_cpp;
        int32_t macro;
    } rows[] = {
        {BOARD_FAMILY, kTemplates + "board.json", sizeof(board), BOARD_SIZE},
        {DHCP_HOST_FAMILY, kTemplates + "dhcp-host.json", sizeof(dhcp_host), DHCP_HOST_SIZE},
        {LAN_FAMILY, kTemplates + "lan.json", sizeof(lan), LAN_SIZE},
        {WAN_FAMILY, kTemplates + "wan.json", sizeof(wan), WAN_SIZE},
        {WIRELESS_FAMILY, kTemplates + "wireless.json", sizeof(wireless), WIRELESS_SIZE},
        {ODD_NAMES_FAMILY, kOdd, sizeof(odd_names), ODD_NAMES_SIZE}};
    size_t at = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path);
        const int32_t size = load(row.path)->image_size;
        ASSERT_GT(size, 0);
        EXPECT_EQ(row.macro, size);
        EXPECT_EQ(row.in_cpp, static_cast<size_t>(size));
        EXPECT_EQ(header_sizes_in_c[at++], static_cast<size_t>(size));
        EXPECT_EQ(row.path.substr(row.path.rfind('/') + 1), row.name);
    }
}

TEST(Header, HasEveryParameterWhereTheLibraryReadsIt)
{
    lan image = {};
    memcpy(image.ipaddr, "\x0a\x00\x00\x01", 4);
    memcpy(image.netmask, "\xff\xff\x00\x00", 4);
    image.mtu = 1400;
    strcpy(image.hostname, "attic");
    image.dhcp = 200;

    const bv_db_family *family = load(kTemplates + "lan.json");
    bv_db_user_fill_frommem(&image, family->para_count, family->para);
    const Words expected = {"10.0.0.1", "255.255.0.0", "1400", "attic", "200"};
    ASSERT_EQ(static_cast<size_t>(family->para_count), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(family->para[i].value, expected[i]);
}

TEST(Header, ReadsTheDefaultsThatTheLibraryStored)
{
    const bv_db_family *family = load(kOdd);
    odd_names image;
    ASSERT_EQ(family->image_size, ODD_NAMES_SIZE);
    memcpy(&image, family->default_image, sizeof(image));
    EXPECT_EQ(image.class_, -1);
    EXPECT_EQ(image.a_b, 2);
    EXPECT_STREQ(image.a_b_2, "ab");
    EXPECT_EQ(image.a_b_3, 4u);
    EXPECT_EQ(image.p9lives, 9);
    EXPECT_EQ(memcmp(image.p_Bool, "\2\0\0\0\0\1", 6), 0);
    EXPECT_EQ(memcmp(image.uint8_t_, "\x0a\0\0\1", 4), 0);
    EXPECT_EQ(image.linux_, INT32_MIN);
    EXPECT_EQ(image.odd_names_2, -2);
    EXPECT_EQ(image.INT8_MAX_, 7) << "a macro of a header that this one includes";
    EXPECT_EQ(image.SIZE_WIDTH_, 8);
    EXPECT_EQ(image.INTERVAL_MAX, 9);
    EXPECT_EQ(image.typeof_unqual_, 10);
    EXPECT_EQ(image.BV_OK_, 11);
    EXPECT_EQ(image.ODD_NAMES_SIZE_2, 0);
    EXPECT_EQ(image.gr____e, 5);
}

TEST(Header, MatchesOnlyTheTemplateThatItWasMadeFrom)
{
    const std::string path = "/etc/template/lan.json";
    write_file(path, read_file(kTemplates + "lan.json"));
    ASSERT_EQ(bv_db_init(), BV_OK);
    EXPECT_EQ(lan_matches(), 0) << "not registered";
    bv_db_reg_user(LAN_FAMILY);
    EXPECT_EQ(lan_matches(), 0) << "not loaded";
    bv_db_start();
    EXPECT_EQ(lan_matches(), 1);

    write_file(path, R"({"para":[{"name":"mtu","type":"ushort","len":2,"value":"1500"}]})");
    bv_db_template();
    EXPECT_EQ(lan_matches(), 0) << "another size";
    remove(path.c_str());
    bv_db_template();
    EXPECT_EQ(lan_matches(), 0) << "no template";
}

TEST(Header, TakesNameAndFileFromTheCommandLine)
{
    EXPECT_EQ(
        run_tool({"header", "-n", "home net", "-o", "/scratch/lan.h", kTemplates + "lan.json"}),
        (Outcome{0, "", ""}));
    const std::string header = read_file("/scratch/lan.h");
    for (const char *line : {"struct home_net {\n", "#define HOME_NET_SIZE 43\n",
                             "#define HOME_NET_FAMILY \"lan.json\"\n",
                             "FAMILY_ASSERT(offsetof(struct home_net, dhcp) == 42, \"dhcp\");\n"})
        EXPECT_TRUE(contains(header, line)) << line;
    EXPECT_TRUE(contains(run_line("header -n bv_db_para " + kTemplates + "lan.json").output,
                         "struct bv_db_para_ {\n"))
        << "the library's own name";
}

TEST(Header, IsNotMadeFromFaultyTemplate)
{
    write_file("/scratch/bad.json", R"({"para":[{"name":"x","type":"int","len":2,"value":"1"}]})");
    EXPECT_EQ(
        run_line("header -o /scratch/bad.h /scratch/bad.json"),
        (Outcome{1, "/scratch/bad.json:1: len 2 does not fit type int, which takes 4\n", ""}));
    EXPECT_FALSE(file_exists("/scratch/bad.h"));
}

TEST(Header, ThatCannotBeWrittenIsReported)
{
    const std::string lan = kTemplates + "lan.json";
    EXPECT_EQ(run_line("header -o /nowhere/lan.h " + lan),
              (Outcome{2, "", "bv-template: /nowhere/lan.h: No such file or directory\n"}));
    EXPECT_EQ(run({"/bin/sh", "-c", "'" BV_TOOL "' header '" + lan + "' > /dev/full"}),
              (Outcome{2, "", "bv-template: standard output: No space left on device\n"}));
}

// Half a header could still be included; but a device is not the tool's to remove.
TEST(Header, ThatBreaksOffIsRemovedUnlessItIsADevice)
{
    ASSERT_EQ(symlink("/dev/full", "/scratch/full.h"), 0);
    EXPECT_EQ(run_line("header -o /scratch/full.h " + kTemplates + "lan.json"),
              (Outcome{2, "", "bv-template: /scratch/full.h: No space left on device\n"}));
    EXPECT_TRUE(file_exists("/scratch/full.h"));

    // The small disk is full.
    write_file("/config/work/rest", std::string(4194304, 'x'));
    end_shared_files_after(0);
    EXPECT_EQ(run_line("header -o /config/work/lan.h " + kOdd).status, 2);
    EXPECT_FALSE(file_exists("/config/work/lan.h"));
    remove("/config/work/rest");
}

TEST(CheckedTemplate, HasDataThatPassesWhenTheLibraryWroteIt)
{
    write_file("/etc/template/odd-names.json", read_file(kOdd));
    ASSERT_EQ(run_line("check /etc/template/odd-names.json").output, "");
    ASSERT_EQ(bv_db_init(), BV_OK);
    bv_db_reg_user("odd-names.json");
    bv_db_start();
    bv_db_ready();
    bv_db_commit();

    const std::string data = "/config/work/userdata.json";
    EXPECT_TRUE(contains(read_file(data), "\"linux\":\"-2147483648\"")) << read_file(data);
    EXPECT_EQ(run_line("data " + data), (Outcome{0, "", ""}));
}

} // namespace
