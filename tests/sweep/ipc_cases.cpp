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

void a_pending_signal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    raise(SIGUSR1);
}

void take_pending_signal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    const timespec now = {};
    while (sigtimedwait(&set, nullptr, &now) > 0) {
    }
}

sigset_t usr1()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    return set;
}

Case plain(const char *name)
{
    Case c(name);
    c.or_fails_with({-1});
    return c;
}

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
        Case("bv_os_pthread_join")
            .has_threads()
            .prepared_by([] { pthread_create(&g_thread, nullptr, end_at_once, nullptr); })
            .calls([] { return bv_os_pthread_join(g_thread, nullptr); })
            .or_fails_with({EDEADLK}),
        Case("bv_os_pthread_detach")
            .has_threads()
            .prepared_by([] { pthread_create(&g_thread, nullptr, end_at_once, nullptr); })
            .calls([] { return bv_os_pthread_detach(g_thread); })
            .or_fails_with({ESRCH}),
        Case("bv_os_pthread_kill")
            .has_threads()
            .prepared_by([] { pthread_create(&g_thread, nullptr, wait_for_ever, nullptr); })
            .calls([] { return bv_os_pthread_kill(g_thread, 0); })
            .or_fails_with({ESRCH}),
        Case("bv_os_pthread_sigmask")
            .calls([] {
                const sigset_t set = usr1();
                return bv_os_pthread_sigmask(SIG_BLOCK, &set, nullptr);
            })
            .or_fails_with({EINVAL}),
    };
}

std::vector<Case> semaphore_cases()
{
    return {
        plain("bv_os_sem_init").calls([] { return bv_os_sem_init(&g_sem, 0, 0); }),
        plain("bv_os_sem_destroy").prepared_by(a_semaphore).calls([] {
            return bv_os_sem_destroy(&g_sem);
        }),
        plain("bv_os_sem_wait").prepared_by(a_semaphore).calls([] {
            return bv_os_sem_wait(&g_sem);
        }),
        plain("bv_os_sem_trywait").prepared_by(a_semaphore).calls([] {
            return bv_os_sem_trywait(&g_sem);
        }),
        plain("bv_os_sem_post").prepared_by(a_semaphore).calls([] {
            return bv_os_sem_post(&g_sem);
        }),
        plain("bv_os_sem_open")
            .calls([] {
                g_named = bv_os_sem_open(kSemaphore, O_CREAT, 0600, 1);
                return g_named == SEM_FAILED ? -1 : 0;
            })
            .cleaned_by([] {
                if (g_named != SEM_FAILED)
                    sem_close(g_named);
                forget_named_semaphore();
            }),
        plain("bv_os_sem_close")
            .prepared_by(a_named_semaphore)
            .calls([] { return bv_os_sem_close(g_named); })
            .cleaned_by(forget_named_semaphore),
        plain("bv_os_sem_unlink")
            .prepared_by(a_named_semaphore)
            .calls([] { return bv_os_sem_unlink(kSemaphore); })
            .cleaned_by([] {
                sem_close(g_named);
                forget_named_semaphore();
            }),
        plain("bv_os_semget")
            .calls([] {
                g_id = bv_os_semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
                return g_id < 0 ? -1 : 0;
            })
            .cleaned_by(drop_semaphore_set),
        plain("bv_os_semctl")
            .prepared_by(a_semaphore_set)
            .calls([] { return bv_os_semctl(g_id, 0, GETVAL); })
            .cleaned_by(drop_semaphore_set),
        plain("bv_os_semop")
            .prepared_by(a_semaphore_set)
            .calls([] {
                sembuf up = {0, 1, 0};
                return bv_os_semop(g_id, &up, 1);
            })
            .cleaned_by(drop_semaphore_set),
        plain("bv_os_shmat")
            .prepared_by(shared_memory)
            .calls([] {
                void *at = bv_os_shmat(g_id, nullptr, 0);
                if (at == reinterpret_cast<void *>(-1))
                    return -1;
                g_shared = at;
                return 0;
            })
            .cleaned_by(drop_shared_memory),
        plain("bv_os_shmdt")
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
        plain("bv_os_shmctl")
            .prepared_by(shared_memory)
            .calls([] {
                shmid_ds state;
                return bv_os_shmctl(g_id, IPC_STAT, &state);
            })
            .cleaned_by(drop_shared_memory),
    };
}

std::vector<Case> signal_and_time_cases()
{
    return {
        plain("bv_os_sigaction").calls([] {
            struct sigaction old;
            return bv_os_sigaction(SIGUSR1, nullptr, &old);
        }),
        plain("bv_os_signal").calls([] {
            return bv_os_signal(SIGUSR1, SIG_IGN) == SIG_ERR ? -1 : 0;
        }),
        plain("bv_os_sigprocmask").calls([] {
            const sigset_t set = usr1();
            return bv_os_sigprocmask(SIG_BLOCK, &set, nullptr);
        }),
        plain("bv_os_sigpending").calls([] {
            sigset_t set;
            return bv_os_sigpending(&set);
        }),
        Case("bv_os_sigwait")
            .prepared_by(a_pending_signal)
            .calls([] {
                const sigset_t set = usr1();
                int number;
                return bv_os_sigwait(&set, &number);
            })
            .or_fails_with({EINVAL})
            .cleaned_by(take_pending_signal),
        plain("bv_os_sigwaitinfo")
            .prepared_by(a_pending_signal)
            .calls([] {
                const sigset_t set = usr1();
                return bv_os_sigwaitinfo(&set, nullptr);
            })
            .returns({SIGUSR1})
            .cleaned_by(take_pending_signal),
        plain("bv_os_sigtimedwait")
            .prepared_by(a_pending_signal)
            .calls([] {
                const sigset_t set = usr1();
                const timespec timeout = {5, 0};
                return bv_os_sigtimedwait(&set, nullptr, &timeout);
            })
            .returns({SIGUSR1})
            .cleaned_by(take_pending_signal),
        plain("bv_os_usleep").calls([] { return bv_os_usleep(10); }),
        plain("bv_os_msleep").calls([] { return bv_os_msleep(1); }),
        plain("bv_os_setitimer").calls([] {
            const itimerval value = {};
            return bv_os_setitimer(ITIMER_VIRTUAL, &value, nullptr);
        }),
        plain("bv_os_timer_settime")
            .prepared_by([] {
                sigevent none = {};
                none.sigev_notify = SIGEV_NONE;
                timer_create(CLOCK_MONOTONIC, &none, &g_timer);
            })
            .calls([] {
                const itimerspec value = {};
                return bv_os_timer_settime(g_timer, 0, &value, nullptr);
            })
            .cleaned_by([] { timer_delete(g_timer); }),
    };
}

} // namespace

std::vector<Case> ipc_cases()
{
    std::vector<Case> all;
    for (const auto &group : {thread_cases(), semaphore_cases(), signal_and_time_cases()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

} // namespace sweep
