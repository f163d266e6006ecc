// What Wireshark makes of a capture of bv-collect with the dissector that comes with it.

#include "tools/collector.h"

namespace {

const std::string kTshark = BV_TSHARK " -X lua_script:" BV_TEST_SOURCE_DIR
                                      "/../tools/collect/brovan-debug.lua -T fields -r ";

TEST(Wireshark, DissectsCapture)
{
    uint16_t port;
    capture_three("-w "s + kFile, port);
    write_file("/scratch/bad.pcap",
               file_head(0xa1b2c3d4, 228) + record(packet()) + record(packet("garbage")));

    const Outcome own =
        run(words(kTshark + kFile + " -o brovan_debug.port:" + std::to_string(port) +
                  " -o udp.check_checksum:TRUE -o ip.check_checksum:TRUE -e ip.checksum.status"
                  " -e udp.checksum.status -e brovan_debug.module -e brovan_debug.level"
                  " -e brovan_debug.tag -e brovan_debug.text"));
    EXPECT_EQ(own.output, "1\t1\t2\t3\t0x1234\tabc\n1\t1\t4\t6\t0x1234\todd length!\n"
                          "1\t1\t2\t7\t0x1234\t\n")
        << own.errors;

    const Outcome bad =
        run(words(kTshark + "/scratch/bad.pcap -e frame.number -Y brovan_debug.malformed"));
    EXPECT_EQ(bad.output, "2\n") << bad.errors;
}

TEST(Wireshark, ShowsTextAsUtf8)
{
    const Bytes text = "Z\xc3\xbcrich \xe2\x82\xac";
    Bytes message = kMessage.substr(0, 10) + text;
    message[5] = static_cast<char>(message.size());
    message[9] = static_cast<char>(message.size() - 6);
    write_file(kFile, file_head(0xa1b2c3d4, 228) + record(packet(message)));
    const Outcome shown = run(words(kTshark + kFile + " -e brovan_debug.text -e _ws.col.Info"));
    EXPECT_EQ(shown.output, text + "\tmodule 2 level 3 tag 0x1234: " + text + "\n") << shown.errors;
}

} // namespace
