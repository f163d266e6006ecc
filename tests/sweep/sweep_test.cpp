// Each exported function with each of the calls that it makes failing, one at a time: nothing
// crashes or hangs, results are those that the headers promise, no descriptor and no block of
// memory is lost, and the next call works.

#include "sweep/sweep.h"

#include "support/bus.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>

namespace {

using sweep::Case;

// What asks nothing of the system that could be refused: it computes, on its arguments' memory
// alone, or hands its arguments to a function of that kind.
constexpr char kPlain[] =
    // memory and text
    "bv_os_free bv_os_memcpy bv_os_memmove bv_os_memset bv_os_memcmp bv_os_strlen bv_os_strcpy "
    "bv_os_strncpy bv_os_sprintf bv_os_snprintf bv_os_strcat bv_os_strcmp bv_os_strncmp "
    "bv_os_strtok bv_os_strsep bv_os_strrchr "
    "bv_os_strstr bv_os_strtol bv_os_atoi bv_os_toupper bv_os_tolower bv_os_isspace "
    "bv_os_match_special_char bv_os_trim bv_os_tohexstr bv_os_inet_addr bv_os_inet_ntop "
    "bv_os_inet_pton bv_os_mac_ntop bv_os_mac_pton "
    // checksums and hashes of our own
    "bv_os_crc16 bv_os_crc32 bv_os_jhash bv_os_sha256 sha2 sha2_finish sha2_hmac sha2_hmac_finish "
    "sha2_hmac_reset sha2_hmac_starts sha2_hmac_update sha2_starts sha2_update "
    "bv_pkcs5_pbkdf2_hmac "
    // the C library's own: state of a stream, sets of signals, calendar, clock and process id
    "bv_os_feof bv_os_sigaddset bv_os_sigdelset bv_os_sigemptyset bv_os_sigfillset "
    "bv_os_sigismember bv_os_difftime bv_os_localtime bv_os_mktime bv_os_strftime bv_os_strptime "
    "bv_os_time bv_os_getpid "
    // ordinary mutexes, for which both C libraries need nothing but the object
    "bv_os_pthread_mutex_destroy bv_os_pthread_mutex_init bv_os_pthread_mutex_lock "
    "bv_os_pthread_mutex_trylock bv_os_pthread_mutex_unlock "
    // sleeping, which signals alone shorten
    "bv_os_sleep bv_os_sigsuspend "
    // tables and lists in memory
    "bv_hash_exit bv_hash_find bv_hash_remove bv_queue_free bv_queue_recv bv_debug_get_cfg "
    "bv_debug_get_cfg_switch bv_debug_get_switch bv_debug_set_cfg_switch bv_debug_set_switch "
    "bv_time_tick_init bv_time_tick_reg bv_time_tick_set bv_db_data_del_inst bv_db_data_free "
    "bv_db_data_get_context bv_db_data_get_inst bv_db_data_get_inst_first bv_db_data_get_inst_max "
    "bv_db_data_get_inst_next bv_db_data_set_context bv_db_hash_find bv_db_hash_free "
    "bv_db_inst_del "
    "bv_db_inst_getnew bv_db_inst_getnum bv_db_read bv_db_read_first bv_db_read_next bv_db_ready "
    "bv_db_status bv_db_user_fill_frommem bv_db_user_fill_tomem bv_db_write "
    // records in memory
    "g_st_db_mng g_st_notifier_sem bv_example_get bv_example_set "
    // readers of messages, timers of a loop
    "bv_blob_buf_free bv_blob_data bv_blob_get_string bv_blob_get_u16 bv_blob_get_u32 "
    "bv_blob_get_u8 bv_blob_id bv_blob_len bv_blob_parse bv_blob_raw_len bv_blobmsg_check_attr "
    "bv_blobmsg_data bv_blobmsg_data_len bv_blobmsg_get_string bv_blobmsg_get_u16 "
    "bv_blobmsg_get_u32 bv_blobmsg_get_u8 bv_blobmsg_name bv_blobmsg_parse bv_blobmsg_type "
    "bv_uloop_timeout_cancel bv_uloop_timeout_remaining bv_uloop_timeout_set "
    "bv_uloop_process_delete "
    // readers of a JSON tree
    "bv_json_object_array_get_idx bv_json_object_array_length bv_json_object_get_int "
    "bv_json_object_get_string bv_json_object_is_type bv_json_object_object_get bv_json_object_put";

// Called by the owner that serves a request, and swept there: bv_ubus_server_init.
constexpr char kWithinAnOwner[] = "bv_ubus_send_reply bv_ubus_complete_deferred_request";

std::set<std::string> words(const std::string &text)
{
    std::istringstream in(text);
    std::set<std::string> found;
    std::string word;
    while (in >> word)
        found.insert(word);
    return found;
}

TEST(Sweep, EveryExportedNameIsSweptOrHasNothingThatFails)
{
    std::multiset<std::string> covered;
    for (const auto &cases :
         {sweep::os_cases(), sweep::ipc_cases(), sweep::debug_cases(), sweep::core_cases(),
          sweep::db_cases(), sweep::crypto_cases(), sweep::flash_reading_cases(),
          sweep::flash_writing_cases(), sweep::flash_erasing_cases(), sweep::driver_cases(),
          sweep::message_cases(), sweep::loop_cases(), sweep::client_cases(),
          sweep::owner_cases()}) {
        for (const Case &c : cases)
            covered.insert(c.name);
    }
    for (const char *list : {kPlain, kWithinAnOwner}) {
        for (const std::string &name : words(list))
            covered.insert(name);
    }

    const std::set<std::string> exported = words(read_file(BV_TEST_SOURCE_DIR "/abi/exports.txt"));
    for (const std::string &name : exported)
        EXPECT_EQ(covered.count(name), 1u) << name;
    for (const std::string &name : covered)
        EXPECT_EQ(exported.count(name), 1u) << name;
    EXPECT_EQ(exported.size(), 308u);
}

TEST(Sweep, FilesSocketsShell)
{
    sweep::sweep(sweep::os_cases());
}

TEST(Sweep, ThreadsSemaphoresSignals)
{
    sweep::sweep(sweep::ipc_cases());
}

TEST(Sweep, DebugChannelAndStartUp)
{
    sweep::sweep(sweep::debug_cases());
}

TEST(Sweep, TablesQueuesEvents)
{
    sweep::sweep(sweep::core_cases());
}

TEST(Sweep, Database)
{
    sweep::sweep(sweep::db_cases());
}

TEST(Sweep, Crypto)
{
    sweep::sweep(sweep::crypto_cases());
}

TEST(Sweep, FlashReading)
{
    sweep::sweep(sweep::flash_reading_cases());
}

TEST(Sweep, FlashWriting)
{
    sweep::sweep(sweep::flash_writing_cases());
}

TEST(Sweep, FlashErasing)
{
    sweep::sweep(sweep::flash_erasing_cases());
}

TEST(Sweep, DriverAndTransfer)
{
    sweep::sweep(sweep::driver_cases());
}

TEST(Sweep, Messages)
{
    sweep::sweep(sweep::message_cases());
}

TEST(Sweep, EventLoop)
{
    sweep::sweep(sweep::loop_cases());
}

TEST(Sweep, Callers)
{
    BusDaemon bus;
    Service owner(sweep::run_owner);
    ASSERT_TRUE(wait_for_object(sweep::kOwner));
    sweep::sweep(sweep::client_cases());
}

TEST(Sweep, Owners)
{
    BusDaemon bus;
    sweep::sweep(sweep::owner_cases());
}

} // namespace
