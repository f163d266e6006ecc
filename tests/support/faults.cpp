/* SPDX-License-Identifier: ISC */
#include "support/faults.h"

#include <cstdint>
#include <cstring>
#include <iterator>
#include <link.h>

namespace {

bool g_ours_only;

struct Range {
    uintptr_t start;
    uintptr_t end;
};
Range g_ours[16];
size_t g_ours_count;

// The program itself has no name with some C libraries, with others its path.
bool is_program(const dl_phdr_info &info, const ElfW(Phdr) & header)
{
    const auto here = reinterpret_cast<uintptr_t>(&called_by_ours);
    return here - (info.dlpi_addr + header.p_vaddr) < header.p_memsz;
}

// The libraries of this tree, and the stand-ins that are built here. A platform's own libraries may
// not survive a failure.
constexpr const char *kOurs[] = {"libbv.so", "libbvservice.so", BV_STAND_INS};

bool is_library(const char *object)
{
    for (const char *name : kOurs) {
        if (strstr(object, name) != nullptr)
            return true;
    }
    return false;
}

int note_range(dl_phdr_info *info, size_t, void *)
{
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const auto &header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0)
            continue;
        if (!is_library(info->dlpi_name) && !is_program(*info, header))
            continue;
        const uintptr_t start = info->dlpi_addr + header.p_vaddr;
        g_ours[g_ours_count++] = {start, start + header.p_memsz};
    }
    return g_ours_count >= 16;
}

// Fault points are made while the program starts, in one thread.
std::vector<FaultPoint *> &points()
{
    static std::vector<FaultPoint *> list;
    return list;
}

} // namespace

BV_UNINSTRUMENTED bool called_by_ours(const void *caller)
{
    const auto address = reinterpret_cast<uintptr_t>(caller);
    for (size_t i = 0; i < g_ours_count; i++) {
        if (address >= g_ours[i].start && address < g_ours[i].end)
            return true;
    }
    return false;
}

FaultPoint::FaultPoint(const char *name, int error) : name_(name), usual_error_(error)
{
    points().push_back(this);
}

const std::vector<FaultPoint *> &FaultPoint::all()
{
    return points();
}

bool FaultPoint::has_all_stand_ins()
{
    return std::size(kOurs) == 5;
}

void FaultPoint::count_ours_only()
{
    if (g_ours_count == 0)
        dl_iterate_phdr(note_range, nullptr);
    __atomic_store_n(&g_ours_only, true, __ATOMIC_SEQ_CST);
}

void FaultPoint::set(int nth, int error)
{
    __atomic_store_n(&failing_, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&error_, error != 0 ? error : usual_error_, __ATOMIC_SEQ_CST);
    __atomic_store_n(&failures_, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&calls_, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&failing_, nth, __ATOMIC_SEQ_CST);
}

BV_UNINSTRUMENTED bool FaultPoint::fails(const void *caller)
{
    if (__atomic_load_n(&g_ours_only, __ATOMIC_SEQ_CST) && !called_by_ours(caller))
        return false;
    const int call = __atomic_add_fetch(&calls_, 1, __ATOMIC_SEQ_CST);
    const int failing = __atomic_load_n(&failing_, __ATOMIC_SEQ_CST);
    if (failing != kAlways && failing != call)
        return false;
    __atomic_add_fetch(&failures_, 1, __ATOMIC_SEQ_CST);
    errno = __atomic_load_n(&error_, __ATOMIC_SEQ_CST);
    return true;
}
