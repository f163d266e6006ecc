// SPDX-License-Identifier: ISC
// What the files of the event loop share. The exported names are in <libubox/uloop.h>.

#ifndef UBOX_ULOOP_INTERNAL_H
#define UBOX_ULOOP_INTERNAL_H

#include <libubox/uloop.h>

// uloop_fd.c: the poll object and the events fetched from it.
int poll_open(void); // 0, or -1 with errno
bool poll_is_open(void);

// Moves a descriptor above the three standard ones: if one of those is closed, the loop would get
// its number, and what the program prints would go there. -1 with errno when there is none left.
int above_standard(int fd);

void poll_close(void); // drops fetched events; the callers' records are not touched

// Calls back for one event, waiting for it at most so many milliseconds (-1: without limit)
// when none is left from the last fetch.
void poll_dispatch(int timeout_ms);

// uloop_timeout.c
void timeouts_run(void);    // all that are due
void timeouts_forget(void); // all, without calling back

// uloop_process.c
void processes_reap(void);
void processes_forget(void);

// uloop_signal.c
int signals_open(void);     // the wake-up pipe and the handlers; 0, or -1 with errno
void signals_restore(void); // takes the handlers back
void signals_close(void);   // closes the pipe

// Written by the signal handlers, in whichever thread takes the signal: accessed atomically only.
extern int uloop_status; // signal that ended the current run, or 0
extern int uloop_child_ended;

#endif
