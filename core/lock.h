// SPDX-License-Identifier: ISC
// A lock that is held to the end of a scope.
#ifndef BV_CORE_LOCK_H
#define BV_CORE_LOCK_H

#include <bv/os.h>

namespace bv {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(mutex)
    {
        bv_os_pthread_mutex_lock(&mutex_);
    }
    ~MutexGuard() { bv_os_pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t &mutex_;
};

} // namespace bv

#endif
