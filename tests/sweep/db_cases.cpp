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
Case writes(const char *name, const char *path, int32_t (*function)())
{
    Case c(name);
    c.prepared_by([path] {
         loaded();
         unlink(path);
     })
        .calls([function] { return function(); })
        .or_fails_with({BV_ERR_WRITE_OPEN, BV_ERR_MEMORY})
        .works_when([path] { return is_json(path) && database_is_sound(); });
    return c;
}

Case registers(const char *name, int32_t (*function)(const char *))
{
    Case c(name);
    c.prepared_by([] {
         templates();
         bv_db_init();
     })
        .calls([function] { return function(kLan); })
        .or_fails_with({BV_ERR_MEMORY})
        .works_when([function] { return function(kLan) == BV_ERR_EXISTS; })
        .is_honest();
    return c;
}

Case reloads(const char *name, int32_t (*function)(), const char *host)
{
    Case c(name);
    c.prepared_by(registered)
        .calls([function] { return function(); })
        .works_when([host] { return all_hosts_are(host) && database_is_sound(); })
        .cleaned_by([] { bv_db_hash_free(); });
    return c;
}

Case empties(Case c)
{
    c.cleaned_by([] { bv_db_hash_free(); });
    return c;
}

std::vector<Case> whole_database()
{
    return {
        Case("bv_db_init")
            .is_honest()
            .calls([] { return bv_db_init(); })
            .or_fails_with({BV_ERR_MEMORY})
            .works_when([] { return bv_db_hash_add("x") != nullptr; }),
        registers("bv_db_reg_user", bv_db_reg_user),
        registers("bv_db_reg_private", bv_db_reg_private),
        registers("bv_db_reg_factory", bv_db_reg_factory),
        reloads("bv_db_start", bv_db_start, "stored"),
        reloads("bv_db_template", bv_db_template, "gateway"),
        reloads("bv_db_restore", bv_db_restore, "gateway").works_when([] {
            return host_is(kBoard, "stored") && host_is(kLan, "gateway") &&
                   host_is(kKeys, "gateway") && database_is_sound();
        }),
        writes("bv_db_commit", kUserFile, bv_db_commit),
        writes("bv_db_private", kPrivateFile, bv_db_private),
        writes("bv_db_factory", kFactoryFile, bv_db_factory),
        Case("bv_db_user_write")
            .prepared_by(loaded)
            .calls([] { return bv_db_user_write(&g_st_db_mng.user_list, "/scratch/copy.json"); })
            .or_fails_with({BV_ERR_WRITE_OPEN, BV_ERR_MEMORY})
            .works_when([] { return is_json("/scratch/copy.json"); }),
        Case("bv_db_user_read")
            .prepared_by([] {
                registered();
                bv_db_template();
            })
            .calls([] { return bv_db_user_read(&g_st_db_mng.user_list, kUserFile); })
            .or_fails_with({-1})
            .works_when([] { return host_is(kLan, "stored"); }),
        Case("bv_db_trigger")
            .prepared_by(registered)
            .calls([] {
                const uint32_t start = 6;
                return bv_db_trigger(&start);
            })
            .works_when([] { return all_hosts_are("stored"); }),
        Case("bv_db_template_read")
            .prepared_by(registered)
            .calls([] { return bv_db_template_read(&g_st_db_mng.user_list); })
            .works_when([] { return host_is(kLan, "gateway"); }),
        // The name is no path here, so it is searched for.
        Case("bv_db_template_read_single")
            .is_honest()
            .prepared_by([] {
                registered();
                bv_db_hash_add(kSearched);
            })
            .calls([] { return bv_db_template_read_single(kSearched, bv_db_hash_find(kSearched)); })
            .or_fails_with({-1, BV_ERR_MEMORY, BV_ERR_NO_FILE})
            .works_when([] { return host_is(kSearched, "gateway"); }),
    };
}

std::vector<Case> families_and_instances()
{
    return {
        Case("bv_db_hash_add")
            .is_honest()
            .prepared_by(registered)
            .calls([] { return bv_db_hash_add("new") == nullptr ? -1 : 0; })
            .or_fails_with({-1})
            .works_when([] { return bv_db_hash_find("new") != nullptr; }),
        Case("bv_db_data_add_inst")
            .is_honest()
            .prepared_by(loaded)
            .calls([] {
                return bv_db_data_add_inst(bv_db_hash_find(kLan), &g_image, sizeof g_image, 2);
            })
            .or_fails_with({BV_ERR_MEMORY})
            .works_when([] { return bv_db_inst_getnum(kLan) == 2; }),
        Case("bv_db_inst_add")
            .is_honest()
            .prepared_by(loaded)
            .calls([] { return bv_db_inst_add(kLan, &g_image, sizeof g_image, 2); })
            .or_fails_with({BV_ERR_MEMORY})
            .works_when([] { return bv_db_inst_getnum(kLan) == 2 && database_is_sound(); }),
    };
}

} // namespace

std::vector<Case> db_cases()
{
    std::vector<Case> all;
    for (const auto &group : {whole_database(), families_and_instances()}) {
        for (const Case &c : group)
            all.push_back(empties(c));
    }
    return all;
}

} // namespace sweep
