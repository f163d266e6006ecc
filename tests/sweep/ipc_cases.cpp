// SPDX-License-Identifier: ISC
// Threads, semaphores, shared memory, signals and timers: one system call each.

#include "sweep/sweep.h"

#include <bv/os.h>

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace sweep {

namespace {

constexpr char kSemaphore[] = "/swept";

sem_t g_sem;
sem_t *g_named;
int g_id = -1;
void *g_shared;
pthread_t g_thread;
timer_t g_timer;

void *end_at_once(void *)
{
    return nullptr;
}

void *wait_for_ever(void *)
{
    for (;;)
        pause();
}

void a_semaphore()
{
    sem_init(&g_sem, 0, 1);
}

void a_named_semaphore()
{
    g_named = sem_open(kSemaphore, O_CREAT, 0600, 1);
}

void forget_named_semaphore()
{
    sem_unlink(kSemaphore);
}

void a_semaphore_set()
{
    g_id = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
}

void drop_semaphore_set()
{
    semctl(g_id, 0, IPC_RMID);
    g_id = -1;
}

void shared_memory()
{
    g_id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
}

void drop_shared_memory()
{
    if (g_shared != nullptr)
        shmdt(g_shared);
    g_shared = nullptr;
    shmctl(g_id, IPC_RMID, nullptr);
}

sigset_t *usr1()
{
    static sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    return &set;
}

void a_pending_signal()
{
    sigprocmask(SIG_BLOCK, usr1(), nullptr);
    raise(SIGUSR1);
}

void take_pending_signal()
{
    const timespec now = {};
    while (sigtimedwait(usr1(), nullptr, &now) > 0) {
    }
}

template <void *Body(void *)>
void a_thread()
{
    pthread_create(&g_thread, nullptr, Body, nullptr);
}

int g_number;
sigset_t g_set;
sembuf g_up = {0, 1, 0};
shmid_ds g_state;
const timespec kFiveSeconds = {5, 0};
const itimerval kNoTimer = {};
const itimerspec kNoTime = {};

std::vector<Case> thread_cases()
{
    return {
        Case("bv_os_pthread_create")
            .has_threads()
            .calls([] {
                const int status = bv_os_pthread_create(&g_thread, nullptr, end_at_once, nullptr);
                if (status != 0)
                    g_thread = 0;
                return status;
            })
            .or_fails_with({EAGAIN})
            .cleaned_by([] {
                if (g_thread != 0)
                    pthread_join(g_thread, nullptr);
            }),
        CALL(bv_os_pthread_join, g_thread, nullptr)
            .has_threads()
            .prepared_by(a_thread<end_at_once>)
            .or_fails_with({EDEADLK}),
        CALL(bv_os_pthread_detach, g_thread)
            .has_threads()
            .prepared_by(a_thread<end_at_once>)
            .or_fails_with({ESRCH}),
        CALL(bv_os_pthread_kill, g_thread, 0)
            .has_threads()
            .prepared_by(a_thread<wait_for_ever>)
            .or_fails_with({ESRCH}),
        CALL(bv_os_pthread_sigmask, SIG_BLOCK, usr1(), nullptr).or_fails_with({EINVAL}),
    };
}

std::vector<Case> semaphore_cases()
{
    return {
        CALL(bv_os_sem_init, &g_sem, 0, 0),
        CALL(bv_os_sem_destroy, &g_sem).prepared_by(a_semaphore),
        CALL(bv_os_sem_wait, &g_sem).prepared_by(a_semaphore),
        CALL(bv_os_sem_trywait, &g_sem).prepared_by(a_semaphore),
        CALL(bv_os_sem_post, &g_sem).prepared_by(a_semaphore),
        Case("bv_os_sem_open")
            .calls([] {
                g_named = bv_os_sem_open(kSemaphore, O_CREAT, 0600, 1);
                return g_named == SEM_FAILED ? -1 : 0;
            })
            .cleaned_by([] {
                if (g_named != SEM_FAILED)
                    sem_close(g_named);
                forget_named_semaphore();
            }),
        CALL(bv_os_sem_close, g_named)
            .prepared_by(a_named_semaphore)
            .cleaned_by(forget_named_semaphore),
        CALL(bv_os_sem_unlink, kSemaphore).prepared_by(a_named_semaphore).cleaned_by([] {
            sem_close(g_named);
            forget_named_semaphore();
        }),
        Case("bv_os_semget")
            .calls([] {
                g_id = bv_os_semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
                return g_id < 0 ? -1 : 0;
            })
            .cleaned_by(drop_semaphore_set),
        CALL(bv_os_semctl, g_id, 0, GETVAL)
            .prepared_by(a_semaphore_set)
            .cleaned_by(drop_semaphore_set),
        CALL(bv_os_semop, g_id, &g_up, 1)
            .prepared_by(a_semaphore_set)
            .cleaned_by(drop_semaphore_set),
        Case("bv_os_shmat")
            .prepared_by(shared_memory)
            .calls([] {
                void *at = bv_os_shmat(g_id, nullptr, 0);
                if (at == reinterpret_cast<void *>(-1))
                    return -1;
                g_shared = at;
                return 0;
            })
            .cleaned_by(drop_shared_memory),
        Case("bv_os_shmdt")
            .prepared_by([] {
                shared_memory();
                g_shared = shmat(g_id, nullptr, 0);
            })
            .calls([] {
                const int result = bv_os_shmdt(g_shared);
                if (result == 0)
                    g_shared = nullptr;
                return result;
            })
            .cleaned_by(drop_shared_memory),
        CALL(bv_os_shmctl, g_id, IPC_STAT, &g_state)
            .prepared_by(shared_memory)
            .cleaned_by(drop_shared_memory),
    };
}

std::vector<Case> signal_and_time_cases()
{
    return {
        CALL(bv_os_sigaction, SIGUSR1, nullptr, nullptr),
        Case("bv_os_signal").calls([] {
            return bv_os_signal(SIGUSR1, SIG_IGN) == SIG_ERR ? -1 : 0;
        }),
        CALL(bv_os_sigprocmask, SIG_BLOCK, usr1(), nullptr),
        CALL(bv_os_sigpending, &g_set),
        CALL(bv_os_sigwait, usr1(), &g_number)
            .prepared_by(a_pending_signal)
            .or_fails_with({EINVAL})
            .cleaned_by(take_pending_signal),
        CALL(bv_os_sigwaitinfo, usr1(), nullptr)
            .prepared_by(a_pending_signal)
            .returns({SIGUSR1})
            .cleaned_by(take_pending_signal),
        CALL(bv_os_sigtimedwait, usr1(), nullptr, &kFiveSeconds)
            .prepared_by(a_pending_signal)
            .returns({SIGUSR1})
            .cleaned_by(take_pending_signal),
        CALL(bv_os_usleep, 10),
        CALL(bv_os_msleep, 1),
        CALL(bv_os_setitimer, ITIMER_VIRTUAL, &kNoTimer, nullptr),
        CALL(bv_os_timer_settime, g_timer, 0, &kNoTime, nullptr)
            .prepared_by([] {
                sigevent none = {};
                none.sigev_notify = SIGEV_NONE;
                timer_create(CLOCK_MONOTONIC, &none, &g_timer);
            })
            .cleaned_by([] { timer_delete(g_timer); }),
    };
}

} // namespace

std::vector<Case> ipc_cases()
{
    return usually({-1}, nullptr, {thread_cases(), semaphore_cases(), signal_and_time_cases()});
}

} // namespace sweep
