/* Preloaded into the helper while its instructions are counted: time stands still and no timer ever fires, so
 * that nothing but the work itself is counted, and the same each time.
 *
 * Time stands a day ahead: who waits until a moment that is near, by this clock, waits for what it waits for
 * and never in vain. */
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

enum { clocks = 16, ahead_s = 24 * 60 * 60 };

int clock_gettime(clockid_t clock, struct timespec* now) {
    static struct timespec still[clocks];
    if (clock < 0 || clock >= clocks) return (int)syscall(SYS_clock_gettime, clock, now);
    if (still[clock].tv_sec == 0) {
        if (syscall(SYS_clock_gettime, clock, &still[clock]) != 0) return -1;
        still[clock].tv_sec += ahead_s;
    }
    *now = still[clock];
    return 0;
}

int timerfd_settime(int timer, int flags, const struct itimerspec* time, struct itimerspec* before) {
    (void)timer;
    (void)flags;
    (void)time;
    if (before != NULL) *before = (struct itimerspec){0};
    return 0;
}
