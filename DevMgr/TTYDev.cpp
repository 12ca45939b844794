#define TRACELEVEL_ERROR
#include "DevMgr/TTYDev.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Common/LogStep.h"
#include "Common/Monotonic.h"

// Lines of a port begin with its device; those below error level only where the port asks for them.
#define lDBG_E(p, format, ...) DBG_E("dev:%s " format, (p)->dev, __VA_ARGS__)
#define lDBG_P(p, format, ...) DBG_P("dev:%s " format, (p)->dev, __VA_ARGS__)
#define lDBG_W(p, format, ...)                              \
    do {                                                    \
        if ((p)->wDBG) {                                    \
            DBG_W("dev:%s " format, (p)->dev, __VA_ARGS__); \
        }                                                   \
    } while (0)
#define lDBG_D(p, format, ...)                              \
    do {                                                    \
        if ((p)->wDBG) {                                    \
            DBG_D("dev:%s " format, (p)->dev, __VA_ARGS__); \
        }                                                   \
    } while (0)
#define lPROFILE(p, function, moment)     \
    do {                                  \
        if ((p)->wDBG) {                  \
            PROFILE(function " " moment); \
        }                                 \
    } while (0)

namespace {

/// Longest pause of a read before it asks the driver again, microseconds: the granularity of its timeout.
constexpr suseconds_t READ_PAUSE_US = 10000;

struct ttyd_linux_t {
    int fd;                  ///< -1 while there is none
    struct termios oldterm;  ///< the settings found at start
    bool oldtermRead;        ///< `oldterm` holds something that can be put back
};

struct baudRow_t {
    speed_t speed;
    const char* name;
};
constexpr baudRow_t BAUDS[] = {{B1200, "1200"},   {B2400, "2400"},   {B4800, "4800"},   {B9600, "9600"},
                               {B19200, "19200"}, {B38400, "38400"}, {B57600, "57600"}, {B115200, "115200"}};
static_assert(sizeofarray(BAUDS) == TTYD_BAUD_MAX, "a row for each speed");

struct flagRow_t {
    tcflag_t flags;
    const char* name;
};
constexpr flagRow_t DATA_BITS[] = {{CS5, "5"}, {CS6, "6"}, {CS7, "7"}, {CS8, "8"}};
static_assert(sizeofarray(DATA_BITS) == TTYD_DATA_MAX, "a row for each size");
constexpr flagRow_t STOP_BITS[] = {{0, "1"}, {CSTOPB, "2"}};
static_assert(sizeofarray(STOP_BITS) == TTYD_STOP_MAX, "a row for each count");

// No parity leaves PARODD as found.
struct parityRow_t {
    tcflag_t cleared;
    tcflag_t set;
    const char* name;
};
constexpr parityRow_t PARITIES[] = {{PARENB, 0, "none"}, {0, PARENB | PARODD, "odd"}, {PARODD, PARENB, "even"}};
static_assert(sizeofarray(PARITIES) == TTYD_PARITY_MAX, "a row for each parity");

struct flowRow_t {
    tcflag_t control;
    tcflag_t input;
    const char* name;
};
constexpr flowRow_t FLOWS[] = {{0, 0, "off"}, {CRTSCTS, 0, "hardware"}, {0, IXON | IXOFF | IXANY, "xon/xoff"}};
static_assert(sizeofarray(FLOWS) == TTYD_FLOW_MAX, "a row for each kind");

// By negated code.
constexpr const char* ERRORS[] = {"no error",     "unknown error",          "open error",  "close error",
                                  "flush error",  "get/set settings error", "read error",  "write error",
                                  "select error", "timeout error",          "ioctl error", "port closed error",
                                  "break error"};
static_assert(sizeofarray(ERRORS) == -TTYD_ERR_MAX, "a text for each code");

ttyd_linux_t* platform(const ttyd_port_t* p) {
    return static_cast<ttyd_linux_t*>(p->pt);
}

template <typename Row, std::size_t N>
const char* nameOf(const Row (&rows)[N], uint32 value) {
    return value < N ? rows[value].name : nullptr;
}

// The operations on the settings log under the name of the public function that was called.

int32 getSettings(const char* function, const ttyd_port_t* p, struct termios* settings) {
    if (tcgetattr(platform(p)->fd, settings) != 0) {
        const int error = errno;
        DBG_E_OF(function, "tcgetattr() %d %s\n", error, strerror(error));
        return TTYD_ERR_CONFIG;
    }
    return TTYD_ERR_NOERROR;
}

int32 putSettings(const char* function, const ttyd_port_t* p, const struct termios& settings) {
    if (tcsetattr(platform(p)->fd, TCSANOW, &settings) != 0) {
        const int error = errno;
        DBG_E_OF(function, "tcsetattr() %d %s\n", error, strerror(error));
        return TTYD_ERR_CONFIG;
    }
    return TTYD_ERR_NOERROR;
}

// Reads the settings, lets `change` work on them, writes them back at once and stores `value` in the port's `field`.
template <typename Value, typename Change>
int32 changeSettings(const char* function, const ttyd_port_t* p, Value* field, Value value, Change change) {
    struct termios settings;
    int32 ret = getSettings(function, p, &settings);
    if (ret == TTYD_ERR_NOERROR) {
        change(settings);
        ret = putSettings(function, p, settings);
    }
    if (ret == TTYD_ERR_NOERROR) {
        *field = value;
    }
    return ret;
}

// Without sense after a hang-up: the settings went with the device.
bool isDeviceGone(int error) {
    return error == EIO || error == ENXIO || error == ENODEV || error == EBADF;
}

// Bytes waiting in input, negative on failure.
int bytesWaiting(int fd) {
    int count = 0;
    return ioctl(fd, FIONREAD, &count) != 0 ? -1 : count;
}

// A write that waits, on a descriptor that doesn't: goes on where the driver's buffer was full. As write() on a
// blocking descriptor it gives the bytes taken so far where a signal or a fault ends it, -1 only if there are none.
ssize_t writeWaiting(int fd, const uint8* buf, size_t len) {
    size_t done = 0;
    do {
        const ssize_t n = write(fd, buf + done, len - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n == 0 && len == 0) {
            return 0;
        }
        if (n == 0) {
            errno = EIO;  // a port that takes nothing and says nothing: no caller could ever finish with it
            break;
        }
        if (n < 0 && errno == EAGAIN) {
            fd_set room;
            FD_ZERO(&room);
            FD_SET(fd, &room);
            if (select(fd + 1, nullptr, &room, nullptr, nullptr) >= 0) {
                continue;
            }
        }
        break;
    } while (done < len);
    return done > 0 ? static_cast<ssize_t>(done) : -1;
}

}  // namespace

ttyd_port_t* ttyd_init() {
    ttyd_port_t* p = static_cast<ttyd_port_t*>(std::calloc(1, sizeof(ttyd_port_t)));
    if (p == nullptr) {
        return nullptr;
    }
    ttyd_linux_t* const pt = static_cast<ttyd_linux_t*>(std::calloc(1, sizeof(ttyd_linux_t)));
    if (pt == nullptr) {
        std::free(p);
        return nullptr;
    }
    pt->fd = -1;
    p->pt = pt;
    ttyd_set_device(p, "/dev/null");
    p->baud = TTYD_BAUD_9600;
    p->data = TTYD_DATA_8;
    p->stop = TTYD_STOP_1;
    p->flow = TTYD_FLOW_OFF;
    p->parity = TTYD_PARITY_NONE;
    p->status = TTYD_PORT_CLOSED;
    p->wDBG = true;
    return p;
}

void ttyd_end(ttyd_port_t* p) {
    if (p->status == TTYD_PORT_OPEN && ttyd_give_back(p) == TTYD_ERR_NOERROR) {
        ttyd_discard(p);
    }
}

int32 ttyd_give_back(ttyd_port_t* p) {
    ttyd_flush(p);
    ttyd_linux_t* const pt = platform(p);
    if (!pt->oldtermRead) {
        return TTYD_ERR_NOERROR;
    }
    if (tcsetattr(pt->fd, TCSANOW, &pt->oldterm) != 0) {
        const int error = errno;
        DBG_E_OF("ttyd_end", "dev:%s tcsetattr() %d %s\n", p->dev, error, strerror(error));
        return isDeviceGone(error) ? TTYD_ERR_NOERROR : TTYD_ERR_CONFIG;
    }
    return TTYD_ERR_NOERROR;
}

void ttyd_discard(ttyd_port_t* p) {
    ttyd_linux_t* const pt = platform(p);
    if (p->status == TTYD_PORT_OPEN) {
        while (ttyd_close(p) != TTYD_ERR_NOERROR && errno != EBADF) {
        }
    } else if (pt->fd >= 0) {
        close(pt->fd);
    }
    std::free(pt);
    std::free(p);
}

int32 ttyd_open(ttyd_port_t* p, bool withDBG) {
    ttyd_linux_t* const pt = platform(p);
    if (pt->fd >= 0) {
        close(pt->fd);  // of an opening that failed half way
    }
    pt->oldtermRead = false;
    pt->fd = open(p->dev, O_RDWR | O_EXCL | O_NOCTTY | O_SYNC);
    if (pt->fd < 0) {
        const int error = errno;
        lDBG_E(p, "open() %d %s\n", error, strerror(error));
        return TTYD_ERR_OPEN;
    }
    if (pt->fd >= FD_SETSIZE) {
        lDBG_E(p, "open() descrittore %d oltre il limite %d\n", pt->fd, FD_SETSIZE - 1);
        close(pt->fd);
        pt->fd = -1;
        return TTYD_ERR_OPEN;
    }
    // A flush may fall between the question how many bytes are waiting and their read, which must not block then.
    const int flags = fcntl(pt->fd, F_GETFL);
    if (flags >= 0) {
        fcntl(pt->fd, F_SETFL, flags | O_NONBLOCK);
    }
    if (tcflush(pt->fd, TCIOFLUSH) != 0) {
        const int error = errno;
        lDBG_E(p, "tcflush() %d %s\n", error, strerror(error));
        return TTYD_ERR_CONFIG;
    }
    p->wDBG = withDBG;
    int32 ret = ttyd_set_baud(p, p->baud);
    if (ret == TTYD_ERR_NOERROR) {
        ret = ttyd_set_data(p, p->data);
    }
    if (ret == TTYD_ERR_NOERROR) {
        ret = ttyd_set_parity(p, p->parity);
    }
    if (ret == TTYD_ERR_NOERROR) {
        ret = ttyd_set_stop(p, p->stop);
    }
    if (ret == TTYD_ERR_NOERROR) {
        ret = ttyd_set_flow(p, p->flow);
    }
    if (ret == TTYD_ERR_NOERROR) {
        p->status = TTYD_PORT_OPEN;
    }
    return ret;
}

int32 ttyd_close(ttyd_port_t* p) {
    if (p->status != TTYD_PORT_OPEN) {
        return TTYD_ERR_PORT_CLOSED;
    }
    ttyd_linux_t* const pt = platform(p);
    const int fd = pt->fd;
    // Linux has released the descriptor whatever close() says: a second try must not hit the one that another thread
    // has got meanwhile.
    pt->fd = -1;
    if (close(fd) != 0) {
        const int error = errno;
        lDBG_E(p, "close() %d %s\n", error, strerror(error));
        errno = error;
        return TTYD_ERR_CLOSE;
    }
    p->status = TTYD_PORT_CLOSED;
    return TTYD_ERR_NOERROR;
}

int32 ttyd_read_timeout(ttyd_port_t* p, uint8* buf, uint32 buf_len, uint32* read_len, uint32 timeout) {
    *read_len = 0;
    if (p->status != TTYD_PORT_OPEN) {
        return TTYD_ERR_PORT_CLOSED;
    }
    lPROFILE(p, "ttyd_read_timeout", "Start");
    const int fd = platform(p)->fd;
    // Filled once: after the first expiry select() leaves it empty, and is a pause from there on.
    fd_set readSet;
    FD_ZERO(&readSet);
    if (fd >= 0) {
        FD_SET(fd, &readSet);
    }
    struct timespec start = monotonicNow();
    if (buf_len == 0) {
        return TTYD_ERR_NOERROR;
    }
    bool woken = false;
    for (;;) {
        const int waiting = bytesWaiting(fd);
        if (waiting < 0) {
            const int error = errno;
            lDBG_E(p, "ioctl error -> errno: %d strerror: %s\n", error, strerror(error));
            return TTYD_ERR_IOCTL;
        }
        if (waiting > 0) {
            const size_t wanted = MIN<size_t>(static_cast<size_t>(waiting), buf_len - *read_len);
            const ssize_t n = read(fd, buf, wanted);
            if (n > 0) {
                *read_len += static_cast<uint32>(n);
                buf += n;
                start = monotonicNow();
                woken = false;
                if (*read_len == buf_len) {
                    lPROFILE(p, "ttyd_read_timeout", "Stop");
                    return TTYD_ERR_NOERROR;
                }
                continue;
            }
            if (n < 0 && errno != EAGAIN) {
                const int error = errno;
                lDBG_E(p, "read error -> errno: %d strerror: %s\n", error, strerror(error));
                if (error != EINTR) {
                    return TTYD_ERR_READ;
                }
                continue;
            }
            // Taken away since the question: as if nothing had been waiting.
        }
        if (woken) {
            FD_ZERO(&readSet);  // "readable" without a byte to read must not turn into a loop without a pause
        }
        // Linux counts the limit down: it is set anew in each pass.
        struct timeval pause = {0, READ_PAUSE_US};
        const int ready = select(fd + 1, &readSet, nullptr, nullptr, &pause);
        const int error = errno;
        const struct timespec stop = monotonicNow();
        if (static_cast<std::int64_t>(timeout) <= elapsedMs(start, stop)) {
            lPROFILE(p, "ttyd_read_timeout", "Stop");
            return TTYD_ERR_TIMEOUT;
        }
        if (ready < 0 && error != EINTR) {
            lDBG_E(p, "select error - > errno:%d strerror: %s\n", error, strerror(error));
            return TTYD_ERR_SELECT;
        }
        woken = ready > 0;
    }
}

int32 ttyd_write(ttyd_port_t* p, const uint8* buf, uint32 buf_len, uint32* write_len) {
    if (p->status != TTYD_PORT_OPEN) {
        return TTYD_ERR_PORT_CLOSED;
    }
    lPROFILE(p, "ttyd_write", "Start");
    const int waiting = bytesWaiting(platform(p)->fd);
    if (waiting < 0) {
        const int error = errno;
        lDBG_E(p, "ioctl error -> errno: %d strerror: %s\n", error, strerror(error));
        return TTYD_ERR_IOCTL;
    }
    if (waiting > 0) {
        lDBG_E(p, "%s", "Risposta preparata in ritardo, altri caratteri sono nel frattempo arrivati in ingresso!!\n");
        return TTYD_ERR_WRITE;
    }
    const ssize_t n = writeWaiting(platform(p)->fd, buf, buf_len);
    if (n < 0) {
        const int error = errno;
        lDBG_E(p, "errno: %d strerror: %s %s\n", error, strerror(error), "TTYD_ERR_WRITE");
        *write_len = 0;
        return TTYD_ERR_WRITE;
    }
    *write_len = static_cast<uint32>(n);
    lPROFILE(p, "ttyd_write", "Stop");
    return TTYD_ERR_NOERROR;
}

int32 ttyd_write_complete(ttyd_port_t* p) {
    int ret = 0;
    do {
        ret = tcdrain(platform(p)->fd);
    } while (ret < 0 && errno == EINTR);
    if (ret < 0) {
        const int error = errno;
        lDBG_E(p, "tcdrain() errno: %d strerror: %s\n", error, strerror(error));
    }
    return ret;
}

int32 ttyd_termios(ttyd_port_t* p) {
    ttyd_linux_t* const pt = platform(p);
    struct termios settings;
    if (getSettings(__func__, p, &settings) != TTYD_ERR_NOERROR ||
        getSettings(__func__, p, &pt->oldterm) != TTYD_ERR_NOERROR) {
        return TTYD_ERR_CONFIG;
    }
    pt->oldtermRead = true;
    // A BREAK raises SIGINT where the port is the controlling terminal; bytes with a parity error are dropped.
    settings.c_iflag = BRKINT | IGNPAR;
    settings.c_oflag = 0;
    settings.c_cflag |= CLOCAL | CREAD;
    settings.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE);
    settings.c_lflag |= ISIG;
    // VMIN and VTIME stay as found.
    static constexpr int disabled[] = {VINTR, VQUIT, VSTART, VSTOP, VSUSP, VEOF, VEOL, VERASE, VKILL};
    for (const int index : disabled) {
        settings.c_cc[index] = 0;
    }
    return putSettings(__func__, p, settings);
}

int32 ttyd_ioctl(ttyd_port_t* p, uint32 cmd, void* param) {
    return ioctl(platform(p)->fd, cmd, param);
}

int32 ttyd_SetCtrlTerm(ttyd_port_t* p) {
    if (ioctl(platform(p)->fd, TIOCSCTTY, 0) != 0) {
        const int error = errno;
        lDBG_E(p, "TIOCSCTTY error (%d): %s\n", error, strerror(error));
        return -1;
    }
    return 0;
}

void ttyd_set_device(ttyd_port_t* p, const char* device) {
    const size_t length = strnlen(device, TTYD_STRLEN_DEVICE);
    std::memcpy(p->dev, device, length);
    p->dev[length] = '\0';
}

int32 ttyd_set_baud(ttyd_port_t* p, ttyd_baud_e value) {
    if (value >= TTYD_BAUD_MAX) {
        return TTYD_ERR_UNKNOWN;
    }
    return changeSettings(__func__, p, &p->baud, value, [value](struct termios& settings) {
        cfsetispeed(&settings, BAUDS[value].speed);
        cfsetospeed(&settings, BAUDS[value].speed);
    });
}

int32 ttyd_set_data(ttyd_port_t* p, ttyd_data_e value) {
    if (value >= TTYD_DATA_MAX) {
        return TTYD_ERR_UNKNOWN;
    }
    return changeSettings(__func__, p, &p->data, value, [value](struct termios& settings) {
        settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE);
        settings.c_cflag |= DATA_BITS[value].flags;
    });
}

int32 ttyd_set_parity(ttyd_port_t* p, ttyd_parity_e value) {
    if (value >= TTYD_PARITY_MAX) {
        return TTYD_ERR_UNKNOWN;
    }
    return changeSettings(__func__, p, &p->parity, value, [value](struct termios& settings) {
        settings.c_cflag &= ~PARITIES[value].cleared;
        settings.c_cflag |= PARITIES[value].set;
    });
}

int32 ttyd_set_stop(ttyd_port_t* p, ttyd_stop_e value) {
    if (value >= TTYD_STOP_MAX) {
        return TTYD_ERR_UNKNOWN;
    }
    return changeSettings(__func__, p, &p->stop, value, [value](struct termios& settings) {
        settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
        settings.c_cflag |= STOP_BITS[value].flags;
    });
}

int32 ttyd_set_flow(ttyd_port_t* p, ttyd_flow_e value) {
    if (value >= TTYD_FLOW_MAX) {
        return TTYD_ERR_UNKNOWN;
    }
    return changeSettings(__func__, p, &p->flow, value, [value](struct termios& settings) {
        settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
        settings.c_cflag |= FLOWS[value].control;
        settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
        settings.c_iflag |= FLOWS[value].input;
    });
}

int32 ttyd_sendbreak(ttyd_port_t* p) {
    if (p->status != TTYD_PORT_OPEN) {
        return TTYD_ERR_PORT_CLOSED;
    }
    if (tcsendbreak(platform(p)->fd, 0) != 0) {
        lDBG_E(p, "errno:%d %s\n", errno, ERRORS[-TTYD_ERR_BREAK]);
        return TTYD_ERR_BREAK;
    }
    return TTYD_ERR_NOERROR;
}

int32 ttyd_flush(ttyd_port_t* p) {
    if (p->status != TTYD_PORT_OPEN) {
        return TTYD_ERR_PORT_CLOSED;
    }
    return tcflush(platform(p)->fd, TCIOFLUSH) != 0 ? TTYD_ERR_FLUSH : TTYD_ERR_NOERROR;
}

int32 ttyd_break_count(ttyd_port_t* p) {
    struct serial_icounter_struct counters;
    std::memset(&counters, 0, sizeof(counters));
    if (p->status != TTYD_PORT_OPEN || ioctl(platform(p)->fd, TIOCGICOUNT, &counters) != 0) {
        return -1;
    }
    return counters.brk;
}

int ttyd_fd(const ttyd_port_t* p) {
    return p->status == TTYD_PORT_OPEN ? platform(p)->fd : -1;
}

const char* ttyd_strerror(int32 error) {
    DBG_E("error=%ld\n", static_cast<long>(error));
    return error <= TTYD_ERR_NOERROR && error > TTYD_ERR_MAX ? ERRORS[-error] : nullptr;
}

const char* ttyd_strbaud(uint32 value) {
    return nameOf(BAUDS, value);
}

const char* ttyd_strdata(uint32 value) {
    return nameOf(DATA_BITS, value);
}

const char* ttyd_strparity(uint32 value) {
    return nameOf(PARITIES, value);
}

const char* ttyd_strstop(uint32 value) {
    return nameOf(STOP_BITS, value);
}

const char* ttyd_strflow(uint32 value) {
    return nameOf(FLOWS, value);
}

ttyd_status_e ttyd_port_open(const ttyd_port_t* p) {
    return p->status;
}
