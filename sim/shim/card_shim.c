/*
 * Preloaded under the daemon in tests and in the demonstration: it keeps the machine's clock out of reach, and makes a
 * pseudo-terminal take the time of a serial line.
 *
 *   CARD_SHIM_LOG    file that gets a line for each call that would have touched the clock
 *   CARD_SHIM_CLOCK  file of three int64: mode, seconds, microseconds. Mode 0: the machine's wall clock; 1: the wall
 *                    clock stands at the given time; 2: the given time is added to it. The file is mapped, so a test
 *                    moves the daemon's clock by writing to it. The monotonic clock is not touched by it.
 *   CARD_SHIM_ERRNO  if set, adjtime fails with this number
 *   CARD_SHIM_BAUD   if set, what is written to a terminal takes ten bits a byte at this speed until tcdrain returns;
 *                    a pseudo-terminal by itself drains at once. It is the speed of a terminal that is set to 9600
 *                    baud; one that is set to another speed is so many times faster or slower.
 *   CARD_SHIM_WRITES file that gets a line for each write to a line: monotonic time, device, bytes
 *   CARD_SHIM_FAST   file of three int64: factor, nanoseconds, nanoseconds. Both clocks are counted on by its owner:
 *                    the second number is the monotonic clock, the third what the wall clock is ahead of it. Every
 *                    wait is cut to one part in `factor`. Not together with CARD_SHIM_CLOCK's modes or with
 *                    CARD_SHIM_BAUD.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))
#define MAX_FD 256

struct wall {
    int64_t mode;
    int64_t sec;
    int64_t usec;
};

struct fast {
    int64_t factor;
    int64_t monotonic;
    int64_t wall_ahead;
};

static volatile struct wall* wall;
static volatile struct fast* fast;
static const char* log_path;
static const char* writes_path;
static int adjtime_errno;
static double byte_seconds;
static double busy_until[MAX_FD];
/* Descriptors known to be lines, and the seconds that a byte takes on them. */
static char is_line[MAX_FD];
static double line_seconds[MAX_FD];

/* The C library's own functions, looked up at their first use: other libraries call them while they are being set
 * up, before this one is. */
static int real_clock_gettime(clockid_t id, struct timespec* ts) {
    static int (*real)(clockid_t, struct timespec*);
    if (!real) real = (int (*)(clockid_t, struct timespec*))dlsym(RTLD_NEXT, "clock_gettime");
    return real(id, ts);
}

static int real_nanosleep(const struct timespec* wanted, struct timespec* left) {
    static int (*real)(const struct timespec*, struct timespec*);
    if (!real) real = (int (*)(const struct timespec*, struct timespec*))dlsym(RTLD_NEXT, "nanosleep");
    return real(wanted, left);
}

static ssize_t real_write(int fd, const void* data, size_t count) {
    static ssize_t (*real)(int, const void*, size_t);
    if (!real) real = (ssize_t(*)(int, const void*, size_t))dlsym(RTLD_NEXT, "write");
    return real(fd, data, count);
}

static int real_close(int fd) {
    static int (*real)(int);
    if (!real) real = (int (*)(int))dlsym(RTLD_NEXT, "close");
    return real(fd);
}

/* A file that another process writes to; NULL without one. */
static void* map_file(const char* path, size_t size) {
    int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) return NULL;
    void* at = mmap(NULL, size, PROT_READ, MAP_SHARED, fd, 0);
    real_close(fd);
    return at == MAP_FAILED ? NULL : at;
}

__attribute__((constructor)) static void set_up(void) {
    log_path = getenv("CARD_SHIM_LOG");
    writes_path = getenv("CARD_SHIM_WRITES");
    const char* number = getenv("CARD_SHIM_ERRNO");
    adjtime_errno = number ? atoi(number) : 0;
    number = getenv("CARD_SHIM_BAUD");
    if (number && atof(number) > 0) byte_seconds = 10.0 / atof(number);
    wall = map_file(getenv("CARD_SHIM_CLOCK"), sizeof *wall);
    fast = map_file(getenv("CARD_SHIM_FAST"), sizeof *fast);
}

static void append(const char* path, const char* line, int n) {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t written = real_write(fd, line, (size_t)n);
    (void)written;
    real_close(fd);
}

static void note(const char* format, long long a, long long b) {
    if (!log_path) return;
    char line[128];
    append(log_path, line, snprintf(line, sizeof line, format, a, b));
}

static struct timespec from_ns(int64_t ns) {
    return (struct timespec){(time_t)(ns / 1000000000), (long)(ns % 1000000000)};
}

static int64_t to_ns(const struct timespec* ts) {
    return (int64_t)ts->tv_sec * 1000000000 + ts->tv_nsec;
}

/* The wall clock as the daemon is to see it. */
static void tell_wall(struct timespec* ts) {
    if (fast) {
        *ts = from_ns(fast->monotonic + fast->wall_ahead);
        return;
    }
    real_clock_gettime(CLOCK_REALTIME, ts);
    if (!wall || !wall->mode) return;
    int64_t usec = wall->usec;
    if (wall->mode == 1) {
        ts->tv_sec = (time_t)wall->sec;
        ts->tv_nsec = (long)(usec * 1000);
        return;
    }
    usec += ts->tv_nsec / 1000;
    ts->tv_sec += (time_t)(wall->sec + usec / 1000000);
    ts->tv_nsec = (long)(usec % 1000000 * 1000);
}

EXPORT time_t time(time_t* out) {
    struct timespec ts;
    tell_wall(&ts);
    if (out) *out = ts.tv_sec;
    return ts.tv_sec;
}

EXPORT int gettimeofday(struct timeval* restrict tv, void* restrict zone) {
    struct timespec ts;
    (void)zone;
    tell_wall(&ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

EXPORT int clock_gettime(clockid_t id, struct timespec* ts) {
    if (id == CLOCK_REALTIME) {
        tell_wall(ts);
        return 0;
    }
    if (!fast || id != CLOCK_MONOTONIC) return real_clock_gettime(id, ts);
    *ts = from_ns(fast->monotonic);
    return 0;
}

/* The waits of a daemon whose clocks run fast. Each is told to last its part of the time; the clocks may be a little
 * behind when it is over, as after any wait of a machine with a coarse clock. */
EXPORT int nanosleep(const struct timespec* wanted, struct timespec* left) {
    if (!fast) return real_nanosleep(wanted, left);
    struct timespec cut = from_ns(to_ns(wanted) / fast->factor);
    int result = real_nanosleep(&cut, &cut);
    if (result != 0 && left) *left = from_ns(to_ns(&cut) * fast->factor);
    return result;
}

EXPORT int usleep(useconds_t usec) {
    struct timespec wanted = from_ns((int64_t)usec * 1000);
    return nanosleep(&wanted, NULL);
}

EXPORT int select(int n, fd_set* restrict in, fd_set* restrict out, fd_set* restrict bad,
                  struct timeval* restrict limit) {
    static int (*real)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
    if (!real) real = (int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*))dlsym(RTLD_NEXT, "select");
    if (!fast || !limit) return real(n, in, out, bad, limit);
    int64_t usec = ((int64_t)limit->tv_sec * 1000000 + limit->tv_usec) / fast->factor;
    struct timeval cut = {(time_t)(usec / 1000000), (suseconds_t)(usec % 1000000)};
    return real(n, in, out, bad, &cut);
}

static int real_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t id, const struct timespec* until) {
    static int (*real)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
    if (!real) {
        real = (int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*))dlsym(
            RTLD_NEXT, "pthread_cond_clockwait");
    }
    return real(cond, mutex, id, until);
}

EXPORT int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t id,
                                  const struct timespec* until) {
    if (!fast) return real_clockwait(cond, mutex, id, until);
    struct timespec now;
    clock_gettime(id, &now);
    int64_t left = (to_ns(until) - to_ns(&now)) / fast->factor;
    real_clock_gettime(CLOCK_MONOTONIC, &now);
    struct timespec cut = from_ns(to_ns(&now) + (left > 0 ? left : 0));
    return real_clockwait(cond, mutex, CLOCK_MONOTONIC, &cut);
}

EXPORT int adjtime(const struct timeval* delta, struct timeval* old) {
    static struct timeval last;
    if (delta) note("adjtime %lld %lld\n", delta->tv_sec, delta->tv_usec);
    if (adjtime_errno) {
        errno = adjtime_errno;
        return -1;
    }
    if (old) *old = last;
    if (delta) last = *delta;
    return 0;
}

EXPORT int settimeofday(const struct timeval* tv, const struct timezone* zone) {
    (void)zone;
    if (tv) note("settimeofday %lld %lld\n", tv->tv_sec, tv->tv_usec);
    return 0;
}

EXPORT int clock_settime(clockid_t id, const struct timespec* ts) {
    note("clock_settime %lld %lld\n", id, ts->tv_sec);
    return 0;
}

EXPORT int adjtimex(struct timex* buf) {
    note("adjtimex %lld %lld\n", buf->modes, 0);
    errno = EPERM;
    return -1;
}

EXPORT int clock_adjtime(clockid_t id, struct timex* buf) {
    note("clock_adjtime %lld %lld\n", id, buf->modes);
    errno = EPERM;
    return -1;
}

static double now_seconds(void) {
    struct timespec ts;
    real_clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

EXPORT ssize_t write(int fd, const void* data, size_t count) {
    int line = fd >= 0 && fd < MAX_FD && is_line[fd];
    double now = line ? now_seconds() : 0;
    if (line && writes_path) { /* first, so that whoever has heard the bytes finds the line */
        char text[128], device[64];
        if (ttyname_r(fd, device, sizeof device) != 0) device[0] = 0;
        append(writes_path, text, snprintf(text, sizeof text, "%.6f %s %zu\n", now, device, count));
    }
    ssize_t n = real_write(fd, data, count);
    if (line && n > 0 && line_seconds[fd] > 0) {
        if (busy_until[fd] < now) busy_until[fd] = now;
        busy_until[fd] += (double)n * line_seconds[fd];
    }
    return n;
}

EXPORT int close(int fd) {
    if (fd >= 0 && fd < MAX_FD) {
        is_line[fd] = 0;
        busy_until[fd] = 0;
    }
    return real_close(fd);
}

static double baud_of(int fd) {
    static const struct {
        speed_t code;
        double baud;
    } speeds[] = {{B1200, 1200},   {B2400, 2400},   {B4800, 4800},   {B9600, 9600},
                  {B19200, 19200}, {B38400, 38400}, {B57600, 57600}, {B115200, 115200}};
    struct termios settings;
    if (tcgetattr(fd, &settings) == 0)
        for (size_t i = 0; i < sizeof speeds / sizeof *speeds; i++)
            if (speeds[i].code == cfgetospeed(&settings)) return speeds[i].baud;
    return 9600;
}

/* A port is drained before each write, so the first drain tells which descriptors are lines. */
/* A pseudo-terminal drains at once, into a queue that a late reader still has before it: a flush of the output would
 * take back what has left long ago on a serial line. The daemon drains before it flushes, so only input is left. */
EXPORT int tcflush(int fd, int queue) {
    if (queue == TCOFLUSH) {
        return isatty(fd) ? 0 : -1;
    }
    return (int)ioctl(fd, TCFLSH, TCIFLUSH);
}

EXPORT int tcdrain(int fd) {
    if (!isatty(fd)) return -1; /* with the errno that the driver would give: EBADF, ENOTTY, EIO */
    if (fd >= MAX_FD) return 0;
    if (!is_line[fd]) {
        is_line[fd] = 1;
        line_seconds[fd] = byte_seconds * 9600 / baud_of(fd);
    }
    double left = busy_until[fd] - now_seconds();
    if (left <= 0) return 0;
    struct timespec ts = {(time_t)left, (long)((left - (double)(time_t)left) * 1e9)};
    if (real_nanosleep(&ts, NULL) != 0) return -1; /* EINTR, as from the driver */
    return 0;
}
