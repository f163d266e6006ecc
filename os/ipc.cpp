// SPDX-License-Identifier: ISC
// System calls: POSIX semaphores, System V semaphores and shared memory.

#include <bv/os.h>

#include <cstdarg>
#include <sys/sem.h>
#include <sys/shm.h>

namespace {

// The fourth argument of semctl(). Programs define a union semun themselves, so this one has
// another name.
union SemaphoreArgument {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
    struct seminfo *info;
};

} // namespace

int bv_os_sem_init(sem_t *sem, int pshared, unsigned int value)
{
    return sem_init(sem, pshared, value);
}

// The optional arguments are always fetched and passed on, here and in bv_os_semctl(): the platform
// ignores what it does not need.
sem_t *bv_os_sem_open(const char *name, int oflag, ...)
{
    va_list args;
    va_start(args, oflag);
    const mode_t mode = va_arg(args, mode_t);
    const unsigned int value = va_arg(args, unsigned int);
    va_end(args);
    return sem_open(name, oflag, mode, value);
}

int bv_os_sem_close(sem_t *sem)
{
    return sem_close(sem);
}

int bv_os_sem_unlink(const char *name)
{
    return sem_unlink(name);
}

int bv_os_sem_destroy(sem_t *sem)
{
    return sem_destroy(sem);
}

int bv_os_sem_wait(sem_t *sem)
{
    return sem_wait(sem);
}

int bv_os_sem_trywait(sem_t *sem)
{
    return sem_trywait(sem);
}

int bv_os_sem_post(sem_t *sem)
{
    return sem_post(sem);
}

int bv_os_semget(key_t key, int nsems, int flags)
{
    return semget(key, nsems, flags);
}

int bv_os_semop(int semid, struct sembuf *ops, size_t nops)
{
    return semop(semid, ops, nops);
}

int bv_os_semctl(int semid, int semnum, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    const SemaphoreArgument argument = va_arg(args, SemaphoreArgument);
    va_end(args);
    return semctl(semid, semnum, cmd, argument);
}

void *bv_os_shmat(int shmid, const void *addr, int flags)
{
    return shmat(shmid, addr, flags);
}

int bv_os_shmdt(const void *addr)
{
    return shmdt(addr);
}

int bv_os_shmctl(int shmid, int cmd, struct shmid_ds *buf)
{
    return shmctl(shmid, cmd, buf);
}
