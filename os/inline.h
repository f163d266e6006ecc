// SPDX-License-Identifier: ISC
// Wrappers that only pass their arguments on, for the hot paths of the library itself: a call of
// the exported function would go through one more jump, which takes six instructions on the
// gateway. The exported functions are in memory.cpp, string.cpp, thread.cpp and socket.cpp; these
// are never emitted. bv_os_free() is not among them: a compiler that sees free() leaves out the
// clearing of links just before it.
#ifndef BV_OS_INLINE_H
#define BV_OS_INLINE_H

#include <bv/os.h>

#include <securec.h>

#include <cstring>

#define BV_INLINE extern inline __attribute__((gnu_inline, always_inline))

extern "C" {

BV_INLINE int32_t bv_os_memcpy(void *dst, uint32_t dstsize, const void *src, uint32_t count)
{
    return memcpy_s(dst, dstsize, src, count);
}

BV_INLINE int32_t bv_os_memset(void *dst, uint32_t dstsize, int value, uint32_t count)
{
    return memset_s(dst, dstsize, value, count);
}

BV_INLINE uint32_t bv_os_strlen(const char *str)
{
    return static_cast<uint32_t>(strlen(str));
}

BV_INLINE int bv_os_strcmp(const char *a, const char *b)
{
    return strcmp(a, b);
}

BV_INLINE int bv_os_pthread_mutex_lock(pthread_mutex_t *m)
{
    return pthread_mutex_lock(m);
}

BV_INLINE int bv_os_pthread_mutex_unlock(pthread_mutex_t *m)
{
    return pthread_mutex_unlock(m);
}

BV_INLINE ssize_t bv_os_sendto(int fd, const void *buf, size_t len, int flags,
                               const struct sockaddr *to, socklen_t tolen)
{
    return sendto(fd, buf, len, flags, to, tolen);
}

} // extern "C"

#undef BV_INLINE

#endif
