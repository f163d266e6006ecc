/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace {

union Argument {
    int val;
    semid_ds *buf;
    unsigned short *array;
    seminfo *info;
};

// The value of a System V semaphore, by the C library's own call.
int value_of(int set, int number)
{
    return semctl(set, number, GETVAL);
}

int change(int set, unsigned short number, short by, short flags)
{
    sembuf op = {number, by, flags};
    return bv_os_semop(set, &op, 1);
}

} // namespace

TEST(Semaphores, CountPostsAndWaits)
{
    sem_t sem;
    ASSERT_EQ(bv_os_sem_init(&sem, 0, 2), 0);
    EXPECT_EQ(bv_os_sem_wait(&sem), 0);
    EXPECT_EQ(bv_os_sem_trywait(&sem), 0);
    errno = 0;
    EXPECT_EQ(bv_os_sem_trywait(&sem), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(bv_os_sem_post(&sem), 0);
    EXPECT_EQ(bv_os_sem_trywait(&sem), 0);
    EXPECT_EQ(bv_os_sem_destroy(&sem), 0);
}

TEST(Semaphores, NamedOnesTakeModeAndValueOnlyWhenTheyAreMade)
{
    sem_t *sem = bv_os_sem_open("/bv-test", O_CREAT | O_EXCL, mode_t{0600}, 3u);
    ASSERT_NE(sem, SEM_FAILED);
    int value = 0;
    EXPECT_EQ(sem_getvalue(sem, &value), 0);
    EXPECT_EQ(value, 3);

    sem_t *again = bv_os_sem_open("/bv-test", 0);
    EXPECT_EQ(again, sem);
    EXPECT_EQ(bv_os_sem_close(again), 0);
    EXPECT_EQ(bv_os_sem_close(sem), 0);
    EXPECT_EQ(bv_os_sem_unlink("/bv-test"), 0);
    EXPECT_EQ(bv_os_sem_open("/bv-test", 0), SEM_FAILED);
}

TEST(SystemVSemaphores, CommandsTakeAndFillTheirArgument)
{
    int set = bv_os_semget(IPC_PRIVATE, 2, IPC_CREAT | 0600);
    ASSERT_GE(set, 0);

    Argument argument;
    argument.val = 9;
    EXPECT_EQ(bv_os_semctl(set, 1, SETVAL, argument), 0);
    EXPECT_EQ(value_of(set, 0), 0); // only the one that was named
    EXPECT_EQ(value_of(set, 1), 9);
    EXPECT_EQ(bv_os_semctl(set, 1, GETVAL), 9);

    unsigned short values[2] = {7, 8};
    argument.array = values;
    EXPECT_EQ(bv_os_semctl(set, 0, SETALL, argument), 0);
    values[0] = values[1] = 0;
    EXPECT_EQ(bv_os_semctl(set, 0, GETALL, argument), 0);
    EXPECT_EQ(values[0], 7);
    EXPECT_EQ(values[1], 8);

    semid_ds info = {};
    argument.buf = &info;
    EXPECT_EQ(bv_os_semctl(set, 0, IPC_STAT, argument), 0);
    EXPECT_EQ(info.sem_nsems, 2u);
    seminfo limits = {};
    argument.info = &limits; // a query of the system's own
    EXPECT_GE(bv_os_semctl(0, 0, SEM_INFO, argument), 0);
    EXPECT_GT(limits.semmsl, 0);
    EXPECT_EQ(bv_os_semctl(set, 0, IPC_RMID), 0);
}

TEST(SystemVSemaphores, SemopChangesValues)
{
    int set = bv_os_semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    ASSERT_GE(set, 0);
    EXPECT_EQ(change(set, 0, 2, 0), 0);
    EXPECT_EQ(value_of(set, 0), 2);
    EXPECT_EQ(change(set, 0, -2, 0), 0);
    errno = 0;
    EXPECT_EQ(change(set, 0, -1, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(bv_os_semctl(set, 0, IPC_RMID), 0);
}

TEST(SharedMemory, IsAttachedAskedAboutAndDetached)
{
    int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ASSERT_GE(id, 0);
    char *first = static_cast<char *>(bv_os_shmat(id, nullptr, 0));
    ASSERT_NE(first, reinterpret_cast<char *>(-1));
    const char *second = static_cast<const char *>(bv_os_shmat(id, nullptr, SHM_RDONLY));
    strcpy(first, "shared");
    EXPECT_STREQ(second, "shared");

    shmid_ds info = {};
    EXPECT_EQ(bv_os_shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_nattch, 2u);
    EXPECT_EQ(info.shm_segsz, 4096u);
    EXPECT_EQ(bv_os_shmdt(second), 0);
    EXPECT_EQ(bv_os_shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_nattch, 1u);
    EXPECT_EQ(bv_os_shmdt(first), 0);
    EXPECT_EQ(bv_os_shmctl(id, IPC_RMID, nullptr), 0);
    EXPECT_EQ(bv_os_shmat(id, nullptr, 0), reinterpret_cast<void *>(-1));
}
