// SPDX-License-Identifier: ISC
// File transfer. The script knows the transfer client and its options. Only its command line is
// made here, and scripts in the field rely on these words and quotes.

#include <bv/sftp.h>

#include <bv/os.h>

#include <cstddef>

static_assert(sizeof(bv_sftp_info) == 452 && offsetof(bv_sftp_info, remote_path) == 128 &&
                  offsetof(bv_sftp_info, user) == 256 && offsetof(bv_sftp_info, host) == 320 &&
                  offsetof(bv_sftp_info, password) == 384 && offsetof(bv_sftp_info, port) == 448,
              "callers fill this record themselves");

namespace {

int transfer(const bv_sftp_info &info, const char *verb, const char *from, const char *to)
{
    return bv_os_system("/etc/sftp.sh -p %s -cmd \"%s %s %s\" -P %d %s@%s", info.password, verb,
                        from, to, info.port, info.user, info.host);
}

} // namespace

int bv_sftp_get(const bv_sftp_info *info)
{
    return info == nullptr ? -1 : transfer(*info, "get", info->remote_path, info->local_path);
}

int bv_sftp_put(const bv_sftp_info *info)
{
    return info == nullptr ? -1 : transfer(*info, "put", info->local_path, info->remote_path);
}
