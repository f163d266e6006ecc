/* SPDX-License-Identifier: ISC */
// The power goes at any moment of a commit. The calls that change the folder of the data files are
// recorded; then every folder is made that a disk may have after them: of the calls up to some
// point, those that no sync has covered yet are there or not, each by itself, and of such a write
// there may be the first half, or zeros. A service that starts then has the old settings or the
// new ones. The same calls are made to fail, too.
#include "service/fixture.h"
#include "support/faults.h"

#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <set>

using namespace bv::service;

namespace {

using Folder = std::map<std::string, std::string>; // names and contents

struct Call {
    enum Kind { kName, kWrite, kSyncFile, kSyncFolder } kind;
    int node;             // of the file
    std::string to, from; // kName: `to` is this file now, `from` is gone; each may be empty
    size_t offset;        // kWrite
    std::string bytes;
};

// What is recorded.
bool g_recording;
std::vector<Call> g_calls;
std::map<std::string, int> g_names; // the folder as it is while recording
std::map<int, int> g_of_fd;         // -1: the folder itself
std::map<FILE *, std::pair<int, size_t>> g_of_stream;
std::vector<std::string> g_first; // contents of the files that are there at the beginning
int g_nodes;

// The call that fails, counted from 1, and how many there were.
int g_failing, g_asked;

bool fails(bool concerned)
{
    if (!g_recording || !concerned || ++g_asked != g_failing)
        return false;
    errno = EIO;
    return true;
}

constexpr char kFolder[] = "/config/work/";

// The name in the folder, or an empty one for other files and for the lock, which says nothing.
std::string name_of(const char *path)
{
    const std::string text = path;
    if (!g_recording || text.rfind(kFolder, 0) != 0 || text.find(".lock") != std::string::npos)
        return "";
    return text.substr(sizeof kFolder - 1);
}

int node_of(const std::string &name)
{
    if (g_names.count(name) == 0) {
        g_names[name] = g_nodes++;
        g_calls.push_back({Call::kName, g_names[name], name, "", 0, ""});
    }
    return g_names[name];
}

void moved(int node, const std::string &to, const std::string &from)
{
    g_calls.push_back({Call::kName, node, to, from, 0, ""});
    if (!from.empty())
        g_names.erase(from);
    if (!to.empty())
        g_names[to] = node;
}

} // namespace

BV_INTERPOSE(cut_open, BV_LARGE("open"), int, (const char *path, int flags, mode_t mode))
{
    if (fails(!name_of(path).empty()))
        return -1;
    const int fd = BV_NEXT(cut_open)(path, flags, mode);
    if (!g_recording || fd < 0)
        return fd;
    g_of_fd.erase(fd);
    if (std::string(path) == kFolder)
        g_of_fd[fd] = -1;
    else if (!name_of(path).empty() && (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0)
        g_of_fd[fd] = node_of(name_of(path));
    return fd;
}

BV_INTERPOSE(cut_fopen, BV_LARGE("fopen"), FILE *, (const char *path, const char *mode))
{
    if (fails(!name_of(path).empty()))
        return nullptr;
    FILE *file = BV_NEXT(cut_fopen)(path, mode);
    if (file != nullptr && g_recording)
        g_of_stream.erase(file);
    // All are made anew: a truncation has no call of its own here.
    if (file != nullptr && !name_of(path).empty() && *mode == 'w')
        g_of_stream[file] = {node_of(name_of(path)), 0};
    return file;
}

BV_INTERPOSE(cut_fwrite, "fwrite", size_t, (const void *from, size_t size, size_t n, FILE *file))
{
    if (g_recording && fails(g_of_stream.count(file) != 0))
        return 0;
    const size_t done = BV_NEXT(cut_fwrite)(from, size, n, file);
    if (g_recording && g_of_stream.count(file) != 0) {
        auto &at = g_of_stream[file];
        g_calls.push_back({Call::kWrite, at.first, "", "", at.second,
                           std::string(static_cast<const char *>(from), size * done)});
        at.second += size * done;
    }
    return done;
}

BV_INTERPOSE(cut_pwrite, BV_LARGE("pwrite"), ssize_t,
             (int fd, const void *from, size_t size, off_t offset))
{
    if (g_recording && fails(g_of_fd.count(fd) != 0))
        return -1;
    const ssize_t done = BV_NEXT(cut_pwrite)(fd, from, size, offset);
    if (g_recording && g_of_fd.count(fd) != 0 && done > 0)
        g_calls.push_back(
            {Call::kWrite, g_of_fd[fd], "", "", static_cast<size_t>(offset),
             std::string(static_cast<const char *>(from), static_cast<size_t>(done))});
    return done;
}

BV_INTERPOSE(cut_fsync, "fsync", int, (int fd))
{
    if (g_recording && fails(g_of_fd.count(fd) != 0))
        return -1;
    const int result = BV_NEXT(cut_fsync)(fd);
    if (g_recording && g_of_fd.count(fd) != 0)
        g_calls.push_back(
            {g_of_fd[fd] < 0 ? Call::kSyncFolder : Call::kSyncFile, g_of_fd[fd], "", "", 0, ""});
    return result;
}

BV_INTERPOSE(cut_rename, "rename", int, (const char *from, const char *to))
{
    if (fails(!name_of(from).empty()))
        return -1;
    const int result = BV_NEXT(cut_rename)(from, to);
    if (result == 0 && !name_of(from).empty())
        moved(g_names.at(name_of(from)), name_of(to), name_of(from));
    return result;
}

BV_INTERPOSE(cut_link, "link", int, (const char *from, const char *to))
{
    if (fails(!name_of(from).empty()))
        return -1;
    const int result = BV_NEXT(cut_link)(from, to);
    if (result == 0 && !name_of(from).empty())
        moved(g_names.at(name_of(from)), name_of(to), "");
    return result;
}

BV_INTERPOSE(cut_usleep, "usleep", int, (useconds_t))
{
    return BV_NEXT(cut_usleep)(0); // no other process writes
}

BV_INTERPOSE(cut_fchmod, "fchmod", int, (int fd, mode_t mode))
{
    return g_recording && fails(g_of_fd.count(fd) != 0) ? -1 : BV_NEXT(cut_fchmod)(fd, mode);
}

BV_INTERPOSE(cut_fchown, "fchown", int, (int fd, uid_t user, gid_t group))
{
    return g_recording && fails(g_of_fd.count(fd) != 0) ? -1 : BV_NEXT(cut_fchown)(fd, user, group);
}

BV_INTERPOSE(cut_unlink, "unlink", int, (const char *path))
{
    if (fails(!name_of(path).empty()))
        return -1;
    const int result = BV_NEXT(cut_unlink)(path);
    if (result == 0 && !name_of(path).empty())
        moved(g_names.at(name_of(path)), "", name_of(path));
    return result;
}

namespace {

Folder read_work()
{
    Folder folder;
    for (const std::string &name : list_folder(kFolder))
        folder[name] = read_file(kFolder + name);
    return folder;
}

void write_work(const Folder &folder)
{
    for (const std::string &name : list_folder(kFolder))
        unlink((kFolder + name).c_str());
    for (const auto &file : folder)
        write_file(kFolder + file.first, file.second);
}

void record(const std::function<void()> &body)
{
    g_calls.clear();
    g_names.clear();
    g_of_fd.clear();
    g_of_stream.clear();
    g_first.clear();
    g_nodes = 0;
    for (const auto &file : read_work()) {
        g_names[file.first] = g_nodes++;
        g_first.push_back(file.second);
    }
    const std::map<std::string, int> names = g_names;
    g_recording = true;
    body();
    g_recording = false;
    g_names = names;
}

// How much of a call is on the disk.
enum Share { kNothing, kAll, kHalf, kZeros };

Folder apply_calls(size_t count, const std::vector<Share> &shares)
{
    std::map<std::string, int> names = g_names;
    std::vector<std::string> contents = g_first;
    contents.resize(static_cast<size_t>(g_nodes));
    for (size_t i = 0; i < count; ++i) {
        const Call &call = g_calls[i];
        if (call.kind == Call::kName && shares[i] != kNothing) {
            if (!call.from.empty())
                names.erase(call.from);
            if (!call.to.empty())
                names[call.to] = call.node;
        }
        if (call.kind == Call::kWrite && shares[i] != kNothing) {
            std::string &content = contents[static_cast<size_t>(call.node)];
            std::string bytes = call.bytes;
            if (shares[i] == kHalf)
                bytes.resize(bytes.size() / 2);
            if (shares[i] == kZeros)
                bytes.assign(bytes.size(), '\0');
            content.resize(std::max(content.size(), call.offset + bytes.size()));
            content.replace(call.offset, bytes.size(), bytes);
        }
    }
    Folder folder;
    for (const auto &name : names)
        folder[name.first] = contents[static_cast<size_t>(name.second)];
    return folder;
}

// Whether one of the calls up to `count` made sure that this one is on the disk.
bool is_synced(size_t call, size_t count)
{
    for (size_t i = call + 1; i < count; ++i)
        if (g_calls[call].kind == Call::kName
                ? g_calls[i].kind == Call::kSyncFolder
                : g_calls[i].kind == Call::kSyncFile && g_calls[i].node == g_calls[call].node)
            return true;
    return false;
}

// Every folder that there may be after a power cut: after so many calls or more.
std::set<Folder> possible_folders(size_t least = 0)
{
    std::set<Folder> found;
    for (size_t count = least; count <= g_calls.size(); ++count) {
        std::vector<size_t> open;
        for (size_t i = 0; i < count; ++i)
            if (g_calls[i].kind <= Call::kWrite && !is_synced(i, count))
                open.push_back(i);
        std::vector<Share> shares(count, kAll);
        const std::function<void(size_t)> choose = [&](size_t at) {
            if (at == open.size()) {
                found.insert(apply_calls(count, shares));
                return;
            }
            const int choices = g_calls[open[at]].kind == Call::kWrite ? 4 : 2;
            for (int share = 0; share < choices; ++share) {
                shares[open[at]] = static_cast<Share>(share);
                choose(at + 1);
            }
        };
        choose(0);
    }
    return found;
}

std::string mtu_of(const char *family)
{
    const std::string all = values(family, 1);
    const size_t at = all.find("\"mtu\":\"");
    return at == std::string::npos ? all : all.substr(at + 7, all.find('"', at + 7) - at - 7);
}

void set_mtu(const std::string &family, int mtu)
{
    ASSERT_EQ(request("{\"" + family + R"(":[{"inst":"1","para":{"mtu":")" + std::to_string(mtu) +
                      "\"}}]}"),
              BV_OK);
}

class PowerCut : public Parts {
protected:
    // A start of one of two services, each with a family of its name.
    static int start(const std::string &name)
    {
        return start_service({family_of(name == "lan" ? "lan.json" : "wan.json", kLan)});
    }

    // A start, a change and a commit.
    static void save(const std::string &name, int mtu)
    {
        ASSERT_EQ(start(name), BV_SERVICE_ENDED);
        set_mtu(name + ".json", mtu);
        ASSERT_EQ(bv_service_commit(), BV_OK);
    }

    // Starts the service in every folder; it must have one of these. What it saves then must be
    // there afterwards, and must not harm the other one.
    static void expect(const char *name, const std::set<std::string> &wanted,
                       const char *other = nullptr, const std::set<std::string> &others = {})
    {
        std::set<std::string> seen;
        const std::set<Folder> folders = possible_folders();
        for (const Folder &folder : folders) {
            write_work(folder);
            ASSERT_EQ(start(name), BV_SERVICE_ENDED);
            const std::string mtu = mtu_of((std::string(name) + ".json").c_str());
            seen.insert(mtu);
            ASSERT_EQ(wanted.count(mtu), 1u) << mtu << describe(folder);
            save(name, 1111);
            ASSERT_EQ(start(name), BV_SERVICE_ENDED);
            ASSERT_EQ(mtu_of((std::string(name) + ".json").c_str()), "1111");
            if (other == nullptr)
                continue;
            ASSERT_EQ(start(other), BV_SERVICE_ENDED);
            const std::string theirs = mtu_of((std::string(other) + ".json").c_str());
            ASSERT_EQ(others.count(theirs), 1u) << theirs << describe(folder);
        }
        EXPECT_EQ(seen, wanted) << "of " << folders.size() << " folders";
        EXPECT_GT(folders.size(), 10u);
    }

    static std::string describe(const Folder &folder)
    {
        std::string text = " in\n";
        for (const auto &file : folder)
            text += file.first + ": " + file.second + "\n";
        return text;
    }
};

} // namespace

TEST_F(PowerCut, LeavesOldOrNewSettings)
{
    save("lan", 1200); // becomes .good, and must not come back
    save("lan", 1400);
    record([] { save("lan", 1300); });
    expect("lan", {"1400", "1300"});
}

TEST_F(PowerCut, AfterCommitLeavesNewSettings)
{
    save("lan", 1400);
    record([] { save("lan", 1300); });
    for (const Folder &folder : possible_folders(g_calls.size())) {
        write_work(folder);
        ASSERT_EQ(start("lan"), BV_SERVICE_ENDED);
        EXPECT_EQ(mtu_of("lan.json"), "1300") << describe(folder);
    }
}

TEST_F(PowerCut, AtFirstCommitLeavesDefaultsOrNewSettings)
{
    record([] { save("lan", 1300); });
    expect("lan", {"1500", "1300"});
}

TEST_F(PowerCut, WhileTwoServicesSaveLeavesOldOrNewSettingsOfBoth)
{
    save("wan", 1000);
    save("lan", 1400);
    const Folder before = read_work();
    const auto both = [] {
        save("lan", 1300);
        save("wan", 900);
    };
    record(both);
    expect("lan", {"1400", "1300"}, "wan", {"1000", "900"});
    write_work(before);
    record(both);
    expect("wan", {"1000", "900"}, "lan", {"1400", "1300"});
}

TEST_F(PowerCut, WhileDamageIsRepairedLeavesOldOrNewSettings)
{
    save("lan", 1200);
    save("lan", 1400);
    Folder folder = read_work();
    folder["userdata.json.good"] = folder["userdata.json"];
    folder["userdata.json"].resize(20);
    write_work(folder);
    record([] { save("lan", 1300); });
    expect("lan", {"1400", "1300"});
}

TEST_F(PowerCut, CallThatFailsLeavesOldSettings)
{
    save("lan", 1200);
    save("lan", 1400);
    const Folder before = read_work();
    for (g_failing = 1;; ++g_failing) {
        write_work(before);
        ASSERT_EQ(start("lan"), BV_SERVICE_ENDED);
        set_mtu("lan.json", 1300);
        int32_t status = 0;
        g_asked = 0;
        record([&] { status = bv_service_commit(); });
        const bool last = g_asked < g_failing;
        ASSERT_EQ(start("lan"), BV_SERVICE_ENDED);
        if (status == BV_OK)
            ASSERT_EQ(mtu_of("lan.json"), "1300") << g_failing;
        else
            ASSERT_TRUE(status == static_cast<int32_t>(BV_ERR_WRITE_OPEN) &&
                        (mtu_of("lan.json") == "1400" || mtu_of("lan.json") == "1300"))
                << g_failing << " " << mtu_of("lan.json");
        if (last)
            break;
    }
    EXPECT_GT(g_failing, 12);
    g_failing = 0;
}

TEST_F(PowerCut, CallThatFailsWhileDamageIsRepairedLeavesOldSettings)
{
    save("lan", 1200);
    save("lan", 1400);
    Folder before = read_work();
    before["userdata.json.good"] = before["userdata.json"];
    before["userdata.json"].resize(20);
    for (g_failing = 1;; ++g_failing) {
        write_work(before);
        g_asked = 0;
        record([] { start("lan"); });
        if (g_asked < g_failing)
            break;
        for (const Folder &folder : possible_folders()) {
            write_work(folder);
            ASSERT_EQ(start("lan"), BV_SERVICE_ENDED) << g_failing << describe(folder);
            ASSERT_EQ(mtu_of("lan.json"), "1400") << g_failing << describe(folder);
            save("lan", 1300);
            ASSERT_EQ(start("lan"), BV_SERVICE_ENDED);
            ASSERT_EQ(mtu_of("lan.json"), "1300") << g_failing << describe(folder);
        }
    }
    EXPECT_GT(g_failing, 6);
    g_failing = 0;
}
