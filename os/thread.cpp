// SPDX-License-Identifier: ISC
// System calls: threads and mutexes. Nothing is added: no detaching, no attributes.

#include <bv/os.h>

int bv_os_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *),
                         void *arg)
{
    return pthread_create(thread, attr, start, arg);
}

int bv_os_pthread_detach(pthread_t thread)
{
    return pthread_detach(thread);
}

int bv_os_pthread_join(pthread_t thread, void **result)
{
    return pthread_join(thread, result);
}

int bv_os_pthread_kill(pthread_t thread, int sig)
{
    return pthread_kill(thread, sig);
}

int bv_os_pthread_sigmask(int how, const sigset_t *set, sigset_t *old)
{
    return pthread_sigmask(how, set, old);
}

int bv_os_pthread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *attr)
{
    return pthread_mutex_init(m, attr);
}

int bv_os_pthread_mutex_destroy(pthread_mutex_t *m)
{
    return pthread_mutex_destroy(m);
}

int bv_os_pthread_mutex_trylock(pthread_mutex_t *m)
{
    return pthread_mutex_trylock(m);
}

int bv_os_pthread_mutex_lock(pthread_mutex_t *m)
{
    return pthread_mutex_lock(m);
}

int bv_os_pthread_mutex_unlock(pthread_mutex_t *m)
{
    return pthread_mutex_unlock(m);
}
