// SPDX-License-Identifier: ISC
// System calls: time, sleeping and timers.

#include <bv/os.h>

#include <unistd.h>

time_t bv_os_mktime(struct tm *tm)
{
    return mktime(tm);
}

time_t bv_os_time(time_t *out)
{
    return time(out);
}

struct tm *bv_os_localtime(const time_t *t)
{
    return localtime(t);
}

double bv_os_difftime(time_t end, time_t start)
{
    return difftime(end, start);
}

size_t bv_os_strftime(char *s, size_t max, const char *format, const struct tm *tm)
{
    return strftime(s, max, format, tm);
}

char *bv_os_strptime(const char *s, const char *format, struct tm *tm)
{
    return strptime(s, format, tm);
}

int bv_os_usleep(unsigned int usec)
{
    return usleep(usec);
}

unsigned int bv_os_sleep(unsigned int seconds)
{
    return sleep(seconds);
}

// The product wraps on purpose: services rely on the delays that they have always had.
int bv_os_msleep(uint32_t ms)
{
    return usleep(ms * 1000u);
}

int bv_os_setitimer(int which, const struct itimerval *value, struct itimerval *old)
{
    return setitimer(which, value, old);
}

int bv_os_timer_settime(timer_t timer, int flags, const struct itimerspec *value,
                        struct itimerspec *old)
{
    return timer_settime(timer, flags, value, old);
}
