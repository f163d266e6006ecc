/* SPDX-License-Identifier: ISC */
/*
 * The listener: prints the events that reach this process, those of the gateway's driver and those
 * that the service's own threads post.
 *
 *   listener    one line for each event, until SIGTERM or SIGINT
 *
 * Callbacks run on a thread of the library, and all later events wait for them. So they only copy
 * the event into a queue and wake main(), which may take its time.
 *
 * Exit status: 0 ended by a signal, 1 the library did not start.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <bv/bv.h>

/* The types 0 to 3, 7, 9 and 10 are the service's to use; the driver posts the others. */
#define EVENT_STARTED 0
#define EVENT_LINK 8

#define QUEUE_DEPTH 64

/* Every message of the queue has this size: bv_queue_recv() asks for room for the largest one. */
struct event {
    uint32_t type;
    char text[128];
};

static bv_queue *queue;
static sem_t wake_up; /* posted once for each event, and by a signal */
static volatile sig_atomic_t stop;

static void on_signal(int number)
{
    (void)number;
    stop = 1;
    bv_os_sem_post(&wake_up); /* so that main() does not sleep on */
}

/* Copies an event into the queue. A print that does not fit leaves nothing, so it gets a limit. */
static void hand_over(uint32_t type, const void *data, uint32_t length)
{
    struct event event;
    uint32_t room = sizeof(event.text) - 1;

    event.type = type;
    bv_os_snprintf(event.text, sizeof(event.text), "%.*s", (int)(length < room ? length : room),
                   (const char *)data);
    if (bv_queue_send(queue, &event, sizeof(event)) == BV_OK)
        bv_os_sem_post(&wake_up);
}

static void on_started(void *data, uint32_t length)
{
    hand_over(EVENT_STARTED, data, length);
}

static void on_link(void *data, uint32_t length)
{
    hand_over(EVENT_LINK, data, length);
}

static void take_signals(void)
{
    struct sigaction action;

    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal;
    bv_os_sigaction(SIGTERM, &action, NULL);
    bv_os_sigaction(SIGINT, &action, NULL);
}

/* The order matters: what the callbacks use, the library, the callbacks, and only then the events.
 */
static int start(void)
{
    static const char text[] = "listening";

    if (bv_os_sem_init(&wake_up, 0, 0) != 0 || bv_queue_init(&queue, QUEUE_DEPTH) != BV_OK)
        return -1;
    if (bv_libraries_init() != BV_OK)
        return -1;
    bv_notifier_reg(EVENT_STARTED, on_started);
    bv_notifier_reg(EVENT_LINK, on_link);
    return bv_notifier_send(EVENT_STARTED, text, sizeof(text) - 1);
}

int main(void)
{
    struct event event;

    if (start() != 0) {
        fputs("listener: the library did not start\n", stderr);
        return 1;
    }
    take_signals();
    while (!stop) {
        bv_os_sem_wait(&wake_up); /* also returns when a signal interrupts it */
        while (bv_queue_recv(queue, &event, sizeof(event)) == BV_OK) {
            printf("listener: event %u: %s\n", event.type, event.text);
            fflush(stdout);
        }
    }
    printf("listener: ended, %u events lost\n", queue->dropped);
    return 0;
}
