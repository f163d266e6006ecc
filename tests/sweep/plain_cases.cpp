// SPDX-License-Identifier: ISC
// Functions that ask nothing of the system that could be refused: they compute, on their arguments'
// memory alone, or hand their arguments to a function of that kind.

#include "sweep/sweep.h"

#include "support/files.h"

#include <bv/bv.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sweep {

std::vector<Case> usually(Case::Results bad, Case::Action clean,
                          std::initializer_list<std::vector<Case>> groups)
{
    std::vector<Case> all;
    for (const auto &group : groups) {
        for (Case c : group) {
            if (c.bad.empty())
                c.bad = bad;
            if (!c.clean)
                c.clean = clean;
            all.push_back(c);
        }
    }
    return all;
}

namespace {

char g_text[4096];
char g_long[2048]; // of one letter
char g_pattern[257];
uint8_t g_bytes[256];
FILE *g_stream;
void *g_block;
sigset_t g_set;
tm g_tm;
pthread_mutex_t g_mutex;
bv_hash *g_table;
bv_queue *g_queue;
const uint8_t kKey[4] = {1, 2, 3, 4};
const uint32_t kRecord = 7;
const uint32_t kLoopback = 0x0100007f;

void hello()
{
    strcpy(g_text, "hello world");
    memset(g_long, 'x', sizeof g_long - 1);
}

Case works(const char *function, bool (*call)())
{
    Case c(function);
    c.prepared_by(hello).calls([call] { return call() ? 0 : -1; });
    return c;
}

// A call with its arguments, and the result that shows that it did its work.
#define GIVES(result, function, ...)                                                               \
    works(#function, [] { return function(__VA_ARGS__) == (result); })
#define RUNS(function, ...)                                                                        \
    works(#function, [] {                                                                          \
        function(__VA_ARGS__);                                                                     \
        return true;                                                                               \
    })

std::vector<Case> text_cases()
{
    static char *rest;
    return {
        RUNS(bv_os_free, g_block).prepared_by([] { g_block = malloc(10); }),
        GIVES(0, bv_os_memcpy, g_text, sizeof g_text, g_long, sizeof g_long),
        GIVES(0, bv_os_memmove, g_text + 1, sizeof g_text - 1, g_text, 100),
        GIVES(0, bv_os_memset, g_text, sizeof g_text, 'x', sizeof g_text),
        GIVES(0, bv_os_memcmp, "abc", "abc", 3),
        GIVES(3u, bv_os_strlen, "abc"),
        GIVES(0, bv_os_strcpy, g_text, sizeof g_text, g_long),
        GIVES(0, bv_os_strncpy, g_text, sizeof g_text, g_long, 100),
        GIVES(0, bv_os_strcat, g_text, sizeof g_text, g_long),
        GIVES(0, bv_os_strcmp, "abc", "abc"),
        GIVES(0, bv_os_strncmp, "abc", "abd", 2),
        GIVES(g_text, bv_os_strtok, g_text, " "),
        GIVES(g_text, bv_os_strsep, &rest, " ").prepared_by([] {
            hello();
            rest = g_text;
        }),
        GIVES(g_text + 6, bv_os_strrchr, g_text, 'w'),
        GIVES(g_text + 6, bv_os_strstr, g_text, "world"),
        GIVES(42, bv_os_strtol, "42x", &rest, 10),
        GIVES(42, bv_os_atoi, "42"),
        GIVES('A', bv_os_toupper, 'a'),
        GIVES('a', bv_os_tolower, 'A'),
        GIVES(1, bv_os_isspace, ' '),
        GIVES(2047, bv_os_sprintf, g_text, sizeof g_text, "%s", g_long),
        GIVES(66, bv_os_snprintf, g_text, sizeof g_text, "%60.40f %#o %c", 1e10 / 3, 8u, 'x'),
        GIVES(0, bv_os_match_special_char, "a;b"),
        GIVES(g_text, bv_os_trim, g_text),
        GIVES(0, bv_os_tohexstr, g_bytes, 100, g_text, sizeof g_text),
        GIVES(kLoopback, bv_os_inet_addr, "127.0.0.1"),
        GIVES(g_text, bv_os_inet_ntop, g_bytes, g_text, sizeof g_text),
        GIVES(1, bv_os_inet_pton, "127.0.0.1", g_bytes),
        RUNS(bv_os_mac_ntop, g_bytes, g_text, sizeof g_text),
        RUNS(bv_os_mac_pton, "00:11:22:33:44:55", g_bytes),
    };
}

std::vector<Case> digest_cases()
{
    static sha2_context context;
    static uint8_t digest[32];
    const auto started = [] { sha2_hmac_starts(&context, kKey, sizeof kKey, 0); };
    return {
        RUNS(bv_os_crc16, 0, g_bytes, sizeof g_bytes),
        RUNS(bv_os_crc32, 0, g_bytes, sizeof g_bytes),
        RUNS(bv_os_jhash, g_bytes, sizeof g_bytes, 0),
        RUNS(bv_os_sha256, g_text, "abc"),
        RUNS(sha2, g_bytes, sizeof g_bytes, digest, 0),
        RUNS(sha2_starts, &context, 0),
        RUNS(sha2_update, &context, g_bytes, sizeof g_bytes).prepared_by(started),
        RUNS(sha2_finish, &context, digest).prepared_by(started),
        RUNS(sha2_hmac, g_bytes, 100, g_bytes, sizeof g_bytes, digest, 0),
        RUNS(sha2_hmac_starts, &context, g_bytes, 100, 0),
        RUNS(sha2_hmac_update, &context, g_bytes, sizeof g_bytes).prepared_by(started),
        RUNS(sha2_hmac_finish, &context, digest).prepared_by(started),
        RUNS(sha2_hmac_reset, &context).prepared_by(started),
        RUNS(bv_pkcs5_pbkdf2_hmac, g_bytes, 100, g_bytes, 100, digest, sizeof digest, 2),
    };
}

const time_t g_now = time(nullptr);

void usr1_is_pending()
{
    signal(SIGUSR1, [](int) {});
    sigemptyset(&g_set);
    sigaddset(&g_set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &g_set, nullptr);
    raise(SIGUSR1);
    sigemptyset(&g_set);
}

void a_mutex()
{
    pthread_mutex_init(&g_mutex, nullptr);
}

std::vector<Case> platform_cases()
{
    return {
        GIVES(0, bv_os_feof, stdout),
        GIVES(0, bv_os_sigemptyset, &g_set),
        GIVES(0, bv_os_sigfillset, &g_set),
        GIVES(0, bv_os_sigaddset, &g_set, SIGUSR1),
        GIVES(0, bv_os_sigdelset, &g_set, SIGUSR1),
        GIVES(0, bv_os_sigismember, &g_set, SIGUSR1).prepared_by([] { sigemptyset(&g_set); }),
        GIVES(-1, bv_os_sigsuspend, &g_set).prepared_by(usr1_is_pending),
        GIVES(1.0, bv_os_difftime, 2, 1),
        works("bv_os_localtime", [] { return bv_os_localtime(&g_now)->tm_year > 100; }),
        works("bv_os_mktime", [] { return bv_os_mktime(&g_tm) != -1; }).prepared_by([] {
            g_tm = *gmtime(&g_now);
        }),
        GIVES(10u, bv_os_strftime, g_text, sizeof g_text, "%Y-%m-%d", &g_tm).prepared_by([] {
            g_tm = *gmtime(&g_now);
        }),
        works("bv_os_strptime",
              [] {
                  const char *end = bv_os_strptime("2024-05-06 07:08:09", "%Y-%m-%d %T", &g_tm);
                  return end != nullptr && *end == 0;
              }),
        works("bv_os_time", [] { return bv_os_time(nullptr) >= g_now; }),
        GIVES(getpid(), bv_os_getpid),
        GIVES(0, bv_os_pthread_mutex_init, &g_mutex, nullptr),
        GIVES(0, bv_os_pthread_mutex_destroy, &g_mutex).prepared_by(a_mutex),
        GIVES(0, bv_os_pthread_mutex_lock, &g_mutex).prepared_by(a_mutex),
        GIVES(0, bv_os_pthread_mutex_trylock, &g_mutex).prepared_by(a_mutex),
        GIVES(0, bv_os_pthread_mutex_unlock, &g_mutex).prepared_by([] {
            a_mutex();
            pthread_mutex_lock(&g_mutex);
        }),
        GIVES(0u, bv_os_sleep, 0),
    };
}

void a_table()
{
    g_table = bv_hash_init(16, sizeof kKey, sizeof kRecord);
    bv_hash_insert(g_table, kKey, &kRecord);
}

void drop_table()
{
    bv_hash_exit(g_table);
}

void a_queue()
{
    bv_queue_init(&g_queue, 4);
    bv_queue_send(g_queue, &kRecord, sizeof kRecord);
}

void nothing() {}

std::vector<Case> table_cases()
{
    static uint32_t received;
    static bv_debug_switch one = {1, 2, 3};
    return {
        RUNS(bv_hash_exit, g_table).prepared_by(a_table),
        works("bv_hash_find", [] { return bv_hash_find(g_table, kKey) != nullptr; })
            .prepared_by(a_table)
            .cleaned_by(drop_table),
        RUNS(bv_hash_remove, g_table, kKey).prepared_by(a_table).cleaned_by(drop_table),
        GIVES(0u, bv_queue_free, &g_queue).prepared_by([] { bv_queue_init(&g_queue, 4); }),
        GIVES(0u, bv_queue_recv, g_queue, &received, sizeof received).prepared_by(a_queue),
        GIVES(0, bv_debug_get_cfg, g_bytes, sizeof g_bytes),
        GIVES(0, bv_debug_get_cfg_switch, &one),
        RUNS(bv_debug_get_switch, 3, 2),
        GIVES(0, bv_debug_set_cfg_switch, &one),
        RUNS(bv_debug_set_switch, 3, 2, 1),
        GIVES(0, bv_time_tick_init),
        RUNS(bv_time_tick_reg, nothing, 10),
        RUNS(bv_time_tick_set, nothing, 10),
        GIVES(0u, bv_example_get, g_bytes, 56),
        GIVES(0u, bv_example_set, g_bytes, 56),
    };
}

// ---- one loaded family with two instances ----

constexpr char kFamily[] = "/etc/template/family";
bv_db_family *g_family;
uint32_t g_inst;
int32_t g_number;

void a_family()
{
    write_file(kFamily, R"({"getfunc":"get","setfunc":"set","para":[
        {"name":"host","type":"string","len":"30","value":"gateway"},
        {"name":"mac","type":"mac","len":"6","value":"00:11:22:33:44:55"},
        {"name":"ip","type":"ip","len":"4","value":"192.168.1.1"},
        {"name":"mtu","type":"int","len":"4","value":"1500"}]})");
    bv_db_init();
    bv_db_reg_user(kFamily);
    bv_db_start();
    g_family = bv_db_hash_find(kFamily);
    for (const uint32_t inst : {1u, 2u})
        bv_db_inst_add(kFamily, g_bytes, 44, inst);
}

void drop_families()
{
    bv_db_hash_free();
}

std::vector<Case> family_cases()
{
    const std::vector<Case> cases = {
        GIVES(0, bv_db_data_del_inst, g_family, bv_db_data_get_inst(g_family, 2)),
        GIVES(0, bv_db_data_free, g_family),
        GIVES(0, bv_db_data_get_context, g_family, bv_db_data_get_inst(g_family, 2), g_text, 44),
        works("bv_db_data_get_inst", [] { return bv_db_data_get_inst(g_family, 2) != nullptr; }),
        works("bv_db_data_get_inst_first",
              [] { return bv_db_data_get_inst_first(g_family, &g_number) != nullptr; }),
        GIVES(2, bv_db_data_get_inst_max, g_family),
        works("bv_db_data_get_inst_next",
              [] { return bv_db_data_get_inst_next(g_family, 1, &g_number) != nullptr; }),
        GIVES(0, bv_db_data_set_context, g_family, bv_db_data_get_inst(g_family, 2), g_bytes, 44),
        GIVES(g_family, bv_db_hash_find, kFamily),
        GIVES(0, bv_db_hash_free),
        GIVES(0, bv_db_inst_del, kFamily, 2),
        GIVES(0, bv_db_inst_getnew, kFamily, &g_inst),
        GIVES(2, bv_db_inst_getnum, kFamily),
        GIVES(0, bv_db_read, kFamily, g_text, 44, 2),
        GIVES(0, bv_db_read_first, kFamily, g_text, 44, &g_inst),
        GIVES(0, bv_db_read_next, kFamily, g_text, 44, 1, &g_inst),
        GIVES(0, bv_db_ready),
        RUNS(bv_db_status),
        GIVES(0, bv_db_user_fill_frommem, g_bytes, 4, g_family->para),
        GIVES(0, bv_db_user_fill_tomem, g_family, 0),
        GIVES(0, bv_db_write, kFamily, g_bytes, 44, 2),
    };
    std::vector<Case> all;
    for (Case c : cases)
        all.push_back(c.prepared_by(a_family).cleaned_by(drop_families));
    return all;
}

// ---- a message of three fields ----

blob_buf g_buf;
blob_attr *g_first;
json_object *g_tree;
uloop_timeout g_timer;
uloop_process g_process;

void a_message()
{
    bv_blobmsg_buf_init(&g_buf);
    bv_blobmsg_add_string(&g_buf, "name", "text");
    bv_blobmsg_add_u32(&g_buf, "number", 7);
    bv_blobmsg_add_u8(&g_buf, "flag", 1);
    g_first = static_cast<blob_attr *>(bv_blob_data(g_buf.head));
}

std::vector<Case> reader_cases()
{
    static const blobmsg_policy policy[] = {{"name", BLOBMSG_TYPE_STRING},
                                            {"number", BLOBMSG_TYPE_INT32}};
    static blob_attr *found[BLOBMSG_TYPE_LAST + 1];
    const std::vector<Case> cases = {
        RUNS(bv_blob_buf_free, &g_buf),
        GIVES(g_first, bv_blob_data, g_buf.head),
        RUNS(bv_blob_get_string, g_first),
        RUNS(bv_blob_get_u16, g_first),
        RUNS(bv_blob_get_u32, g_first),
        RUNS(bv_blob_get_u8, g_first),
        RUNS(bv_blob_id, g_first),
        RUNS(bv_blob_len, g_first),
        RUNS(bv_blob_parse, g_buf.head, found, nullptr, BLOBMSG_TYPE_LAST),
        RUNS(bv_blob_raw_len, g_first),
        GIVES(true, bv_blobmsg_check_attr, g_first, true),
        RUNS(bv_blobmsg_data, g_first),
        GIVES(5u, bv_blobmsg_data_len, g_first),
        RUNS(bv_blobmsg_get_string, g_first),
        RUNS(bv_blobmsg_get_u16, g_first),
        RUNS(bv_blobmsg_get_u32, g_first),
        RUNS(bv_blobmsg_get_u8, g_first),
        RUNS(bv_blobmsg_name, g_first),
        GIVES(0, bv_blobmsg_parse, policy, 2, found, bv_blob_data(g_buf.head),
              static_cast<unsigned>(bv_blob_len(g_buf.head))),
        GIVES(BLOBMSG_TYPE_STRING, bv_blobmsg_type, g_first),
    };
    std::vector<Case> all;
    for (Case c : cases)
        all.push_back(c.prepared_by(a_message));
    return all;
}

std::string nested_arrays(size_t depth)
{
    return std::string(depth, '[') + "1.5" + std::string(depth, ']');
}

std::vector<Case> tree_and_loop_cases()
{
    const auto a_tree = [] { g_tree = bv_json_tokener_parse(R"([{"a": "1.5"}])"); };
    const auto a_deep_tree = [] { g_tree = bv_json_tokener_parse(nested_arrays(30).c_str()); };
    const auto a_loop = [] {
        bv_uloop_init();
        g_timer = {};
        g_timer.cb = [](uloop_timeout *) {};
        bv_uloop_timeout_set(&g_timer, 1000);
        g_process = {};
        g_process.pid = fork();
        if (g_process.pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;)
                pause(); // its end would wake the loop in the middle of a call
        }
        bv_uloop_process_add(&g_process);
    };
    const auto no_loop = [] {
        bv_uloop_done();
        kill(g_process.pid, SIGKILL);
        waitpid(g_process.pid, nullptr, 0);
    };
    std::vector<Case> all = {
        RUNS(bv_json_object_array_get_idx, g_tree, 0).prepared_by(a_tree),
        GIVES(1u, bv_json_object_array_length, g_tree).prepared_by(a_tree),
        RUNS(bv_json_object_get_int, bv_json_object_array_get_idx(g_tree, 0)).prepared_by(a_tree),
        // Of an array: its text.
        RUNS(bv_json_object_get_string, g_tree).prepared_by(a_deep_tree),
        GIVES(1, bv_json_object_is_type, g_tree, json_type_array).prepared_by(a_tree),
        RUNS(bv_json_object_object_get, bv_json_object_array_get_idx(g_tree, 0), "a")
            .prepared_by(a_tree),
        GIVES(1, bv_json_object_put, g_tree).prepared_by(a_deep_tree),
    };
    for (Case c :
         {GIVES(0, bv_uloop_timeout_cancel, &g_timer), RUNS(bv_uloop_timeout_remaining, &g_timer),
          GIVES(0, bv_uloop_timeout_set, &g_timer, 10),
          GIVES(0, bv_uloop_process_delete, &g_process)})
        all.push_back(c.prepared_by(a_loop).cleaned_by(no_loop));
    return all;
}

// All three kinds, each found by a search for its template.
void searched_families()
{
    a_family();
    bv_db_hash_free();
    const std::string text = read_file(kFamily);
    bv_db_init();
    for (const auto reg : {bv_db_reg_user, bv_db_reg_private, bv_db_reg_factory})
        reg("found");
    write_file("/etc/template/found", text);
}

} // namespace

std::vector<Case> plain_cases()
{
    return usually({}, nullptr,
                   {text_cases(), digest_cases(), platform_cases(), table_cases(), family_cases(),
                    reader_cases(), tree_and_loop_cases()});
}

std::vector<Case> hard_cases()
{
    static const uint32_t start = 6;
    const std::vector<Case> text = {
        GIVES(8, bv_os_fprintf, g_stream, "%.6f", 1.5).prepared_by([] { g_stream = stdout; }),
        GIVES(8, bv_os_printf, "%.6f", 1.5),
        GIVES(8, bv_os_record, "%.6f", 1.5),
        // Compiling goes deeper with every character of the pattern: this one has 256.
        GIVES(0, bv_os_match, "lan.wan-0.x", g_pattern).prepared_by([] {
            strcpy(g_pattern, "^([a-z0-9]+[.-])*((lan|wan|x){1,5}|[[:digit:]]+");
            memset(g_pattern + strlen(g_pattern), 'x', 254 - strlen(g_pattern));
            strcpy(g_pattern + 254, ")$");
        }),
        works("bv_json_tokener_parse",
              [] { return bv_json_tokener_parse(nested_arrays(30).c_str()) != nullptr; }),
    };
    std::vector<Case> searching = {
        GIVES(0, bv_db_start),
        GIVES(0, bv_db_template),
        GIVES(0, bv_db_restore),
        GIVES(0, bv_db_trigger, &start),
        GIVES(0, bv_db_template_read, &g_st_db_mng.user_list),
    };
    for (Case &c : searching)
        c.prepared_by(searched_families);
    return usually({}, drop_families, {text, searching});
}

} // namespace sweep
