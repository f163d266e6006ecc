// SPDX-License-Identifier: ISC
#include "service/sample.h"

#include <sys/stat.h>

namespace {

Sample *g_sample; // of the process that runs it

uint32_t check_lan(const void *, const void *is, uint32_t)
{
    const auto *lan = static_cast<const Lan *>(is);
    ++g_sample->seen->checks;
    if (lan != nullptr && strcmp(lan->hostname, kEmptyHost) == 0)
        return BV_ERR_EMPTY;
    return lan != nullptr && strcmp(lan->hostname, kRefusedHost) == 0 ? kRefusal : 0;
}

void count_change(const void *, const void *, uint32_t)
{
    ++g_sample->seen->changes;
}

int on_start()
{
    ++g_sample->seen->started;
    return g_sample->start_result;
}

void on_end()
{
    ++g_sample->seen->ended;
}

// Changes an instance of the family lan.json: its number is the data's first byte.
uint32_t rename_host(void *data, uint32_t length)
{
    Lan lan = {};
    if (length < 1)
        return BV_ERR_INVALID;
    const uint32_t instance = *static_cast<uint8_t *>(data);
    bv_db_read("lan.json", &lan, sizeof(lan), instance);
    strcpy(lan.hostname, "renamed");
    return static_cast<uint32_t>(bv_service_change("lan.json", &lan, instance));
}

uint32_t finish(void *, uint32_t)
{
    bv_service_end();
    return BV_OK;
}

const bv_service_family kFamilies[] = {
    {"lan.json", sizeof(Lan), BV_SERVICE_USER, 0, check_lan, count_change},
    {"secret.json", sizeof(Secret), BV_SERVICE_PRIVATE, BV_SERVICE_HIDDEN, nullptr, count_change}};
const bv_service_function kFunctions[] = {{"rename_host", rename_host}, {"finish", finish}};
const bv_service_name kModules[] = {{"dhcp", 3}, {"dns", 4}};
const bv_service_name kLevels[] = {{"error", 1}};

} // namespace

SilentBus::SilentBus() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {AF_UNIX, ""};
    mkdir("/var/run/ubus", 0755);
    strcpy(address.sun_path, BusDaemon::kDefaultSocket);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener_, 10), 0);
}

SilentBus::~SilentBus()
{
    close(listener_);
    unlink(BusDaemon::kDefaultSocket);
}

Sample::Sample(const char *name)
{
    write_file("/etc/template/lan.json", R"({"para": [
        {"name": "ipaddr", "type": "ip", "len": 4, "value": "192.168.1.1"},
        {"name": "mtu", "type": "ushort", "len": 2, "value": "1500"},
        {"name": "hostname", "type": "string", "len": 16, "value": "gateway"},
        {"name": "mac", "type": "mac", "len": 6, "value": "02:00:00:00:00:01"},
        {"name": "offset", "type": "char", "len": 1, "value": "-1"}]})");
    write_file("/etc/template/secret.json", R"({"para": [
        {"name": "key", "type": "string", "len": 8, "value": "none"}]})");
    service.size = sizeof(service);
    service.name = name;
    service.families = kFamilies;
    service.n_families = 2;
    service.functions = kFunctions;
    service.n_functions = 2;
    service.modules = kModules;
    service.n_modules = 2;
    service.levels = kLevels;
    service.n_levels = 1;
    service.start = on_start;
    service.end = on_end;
}

void Sample::launch()
{
    process_ = std::make_unique<Service>([this] {
        g_sample = this;
        return bv_service_run(&service);
    });
}

void Sample::start()
{
    launch();
    ASSERT_TRUE(wait_for_object(service.name));
}
