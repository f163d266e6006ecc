// SPDX-License-Identifier: ISC
// The configuration database: one user, one private and one factory family.

#include "sweep/sweep.h"

#include "support/files.h"

#include <bv/db.h>
#include <bv/os.h>

#include <cstring>
#include <json-c/json.h>
#include <unistd.h>

namespace sweep {

namespace {

// Found by their paths, so that most cases do without a search in a shell.
constexpr char kLan[] = "/etc/template/lan";
constexpr char kKeys[] = "/etc/template/keys";
constexpr char kBoard[] = "/etc/template/board";
constexpr char kSearched[] = "searched";

constexpr char kUserFile[] = "/config/work/userdata.json";
constexpr char kPrivateFile[] = "/config/work/privdata.json";
constexpr char kFactoryFile[] = "/config/factory/factory.json";

constexpr char kTemplate[] = R"({"getfunc":"get","setfunc":"set","para":[
  {"name":"mtu","type":"ushort","len":"2","value":"1500"},
  {"name":"host","type":"string","len":"30","value":"gateway"}]})";

struct Image {
    char bytes[32];
};
Image g_image;

std::string data_file(const char *family)
{
    return std::string("{\"") + family +
           "\":[{\"inst\":\"1\",\"para\":{\"mtu\":\"1400\",\"host\":\"stored\"}}]}";
}

void templates()
{
    for (const char *path : {kLan, kKeys, kBoard, "/etc/template/searched"})
        write_file(path, kTemplate);
}

// Everything registered and the files in place, nothing loaded.
void registered()
{
    templates();
    write_file(kUserFile, data_file(kLan));
    write_file(kPrivateFile, data_file(kKeys));
    write_file(kFactoryFile, data_file(kBoard));
    bv_db_init();
    bv_db_reg_user(kLan);
    bv_db_reg_private(kKeys);
    bv_db_reg_factory(kBoard);
}

void loaded()
{
    registered();
    bv_db_start();
    bv_db_ready();
    memset(&g_image, 0, sizeof g_image);
}

// Whether instance 1 of a family reads with this host name.
bool host_is(const char *family, const char *host)
{
    Image image = {};
    return bv_db_read(family, &image, sizeof image, 1) == BV_OK &&
           strcmp(image.bytes + 2, host) == 0;
}

bool all_hosts_are(const char *host)
{
    return host_is(kLan, host) && host_is(kKeys, host) && host_is(kBoard, host);
}

bool is_json(const char *path)
{
    json_object *tree = json_object_from_file(path);
    json_object_put(tree);
    return tree != nullptr;
}

bool database_is_sound()
{
    return bv_db_start() == BV_OK && all_hosts_are("stored");
}

// Calls that write a data file. One of a full disk is cut off and not reported, so the file is
// looked at after the call that follows.
Case writes(Case c, const char *path)
{
    return c
        .prepared_by([path] {
            loaded();
            unlink(path);
        })
        .or_fails_with({BV_ERR_WRITE_OPEN, BV_ERR_MEMORY})
        .works_when([path] { return is_json(path) && database_is_sound(); });
}

template <int32_t Register(const char *)>
Case registers(const char *name)
{
    return Case(name)
        .prepared_by([] {
            templates();
            bv_db_init();
        })
        .calls([] { return Register(kLan); })
        .or_fails_with({BV_ERR_MEMORY})
        .works_when([] { return Register(kLan) == BV_ERR_EXISTS; })
        .is_honest();
}

Case reloads(Case c, const char *host)
{
    return c.prepared_by(registered).works_when([host] {
        return all_hosts_are(host) && database_is_sound();
    });
}

const uint32_t kStart = 6; // bv_db_trigger() as bv_db_start()
auto &g_users = g_st_db_mng.user_list;

} // namespace

std::vector<Case> db_cases()
{
    const std::vector<Case> whole = {
        CALL(bv_db_init).is_honest().or_fails_with({BV_ERR_MEMORY}).works_when([] {
            return bv_db_hash_add("x") != nullptr;
        }),
        registers<bv_db_reg_user>("bv_db_reg_user"),
        registers<bv_db_reg_private>("bv_db_reg_private"),
        registers<bv_db_reg_factory>("bv_db_reg_factory"),
        reloads(CALL(bv_db_start), "stored"),
        reloads(CALL(bv_db_template), "gateway"),
        reloads(CALL(bv_db_restore), "gateway").works_when([] {
            return host_is(kBoard, "stored") && host_is(kLan, "gateway") &&
                   host_is(kKeys, "gateway") && database_is_sound();
        }),
        writes(CALL(bv_db_commit), kUserFile),
        writes(CALL(bv_db_private), kPrivateFile),
        writes(CALL(bv_db_factory), kFactoryFile),
        CALL(bv_db_user_write, &g_users, "/scratch/copy.json")
            .prepared_by(loaded)
            .or_fails_with({BV_ERR_WRITE_OPEN, BV_ERR_MEMORY})
            .works_when([] { return is_json("/scratch/copy.json"); }),
        CALL(bv_db_user_read, &g_users, kUserFile)
            .prepared_by([] {
                registered();
                bv_db_template();
            })
            .or_fails_with({-1})
            .works_when([] { return host_is(kLan, "stored"); }),
        CALL(bv_db_trigger, &kStart).prepared_by(registered).works_when([] {
            return all_hosts_are("stored");
        }),
        CALL(bv_db_template_read, &g_users).prepared_by(registered).works_when([] {
            return host_is(kLan, "gateway");
        }),
        // The name is not a path here, so it is searched for.
        CALL(bv_db_template_read_single, kSearched, bv_db_hash_find(kSearched))
            .is_honest()
            .prepared_by([] {
                registered();
                bv_db_hash_add(kSearched);
            })
            .or_fails_with({-1, BV_ERR_MEMORY, BV_ERR_NO_FILE})
            .works_when([] { return host_is(kSearched, "gateway"); }),
    };
    const std::vector<Case> families = {
        Case("bv_db_hash_add")
            .is_honest()
            .prepared_by(registered)
            .calls([] { return bv_db_hash_add("new") == nullptr ? -1 : 0; })
            .or_fails_with({-1})
            .works_when([] { return bv_db_hash_find("new") != nullptr; }),
        CALL(bv_db_data_add_inst, bv_db_hash_find(kLan), &g_image, sizeof g_image, 2)
            .is_honest()
            .prepared_by(loaded)
            .or_fails_with({BV_ERR_MEMORY})
            .works_when([] { return bv_db_inst_getnum(kLan) == 2; }),
        CALL(bv_db_inst_add, kLan, &g_image, sizeof g_image, 2)
            .is_honest()
            .prepared_by(loaded)
            .or_fails_with({BV_ERR_MEMORY})
            .works_when([] { return bv_db_inst_getnum(kLan) == 2 && database_is_sound(); }),
    };
    return usually({}, [] { bv_db_hash_free(); }, {whole, families});
}

} // namespace sweep
