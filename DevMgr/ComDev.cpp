#define TRACELEVEL_WARNING
#include "DevMgr/ComDev.h"

#include <linux/serial.h>
#include <sys/ioctl.h>

#include <cstring>
#include <mutex>
#include <new>

#include "DevMgr/TTYDev.h"

namespace {

constexpr uint8 CHANNELS = 4;
constexpr uint8 NO_CHANNEL = 255;
constexpr char DEVICE_PREFIX[] = "/dev/tty";
constexpr std::size_t DEVICE_PREFIX_LEN = sizeof(DEVICE_PREFIX) - 1;

/// RTS delays of a configured RS-485 port, in the driver's unit (ms).
constexpr uint32 RS485_DELAY = 1;

struct rs485Row_t {
    const char* device;
    const char* message;  ///< null: the driver's settings stay as found
    uint32 flags;
};
// QX4 drives its direction line the other way round.
constexpr rs485Row_t RS485_PORTS[] = {
    {"/dev/ttyQX1", "ttyQX1 in uso\n", SER_RS485_ENABLED | SER_RS485_RTS_AFTER_SEND},
    {"/dev/ttyQX2", "ttyQX2 in uso\n", SER_RS485_ENABLED | SER_RS485_RTS_AFTER_SEND},
    {"/dev/ttyQX3", nullptr, 0},
    {"/dev/ttyQX4", "ttyQX4 in uso\n", SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND},
};

struct baudRow_t {
    int baudrate;
    ttyd_baud_e value;
};
constexpr baudRow_t BAUDS[] = {{1200, TTYD_BAUD_1200},   {2400, TTYD_BAUD_2400},    {4800, TTYD_BAUD_4800},
                               {9600, TTYD_BAUD_9600},   {19200, TTYD_BAUD_19200},  {38400, TTYD_BAUD_38400},
                               {57600, TTYD_BAUD_57600}, {115200, TTYD_BAUD_115200}};

/// A port and the calls that are using it. It stays allocated until the last of them has left, even if its channel has
/// been given up, or has got another port, meanwhile.
struct portUse_t {
    ttyd_port_t* port;
    unsigned users;  ///< calls in progress; the channel's own hold counts as one
    bool leftOpen;   ///< its settings couldn't be given back: the port is neither closed nor freed
};

struct chDescr_t {
    portUse_t* pPortDescr;  ///< null: no port
    bool taken;             ///< in use, or being opened
};

chDescr_t chDescr[CHANNELS];

/// Guards `chDescr` and the `users` of every port. Taken last, never held over a call.
std::mutex mutexChDescr;

void leave(portUse_t* use) {
    {
        const std::lock_guard<std::mutex> lock(mutexChDescr);
        if (--use->users > 0) {
            return;
        }
    }
    if (!use->leftOpen) {
        ttyd_discard(use->port);
    }
    delete use;
}

/// One call's use of a channel's port; null where the channel has none.
class PortUser {
  public:
    explicit PortUser(uint8 ch) : use_(nullptr) {
        if (ch < CHANNELS) {
            const std::lock_guard<std::mutex> lock(mutexChDescr);
            use_ = chDescr[ch].pPortDescr;
            if (use_ != nullptr) {
                ++use_->users;
            }
        }
    }
    ~PortUser() {
        if (use_ != nullptr) {
            leave(use_);
        }
    }
    PortUser(const PortUser&) = delete;
    PortUser& operator=(const PortUser&) = delete;

    ttyd_port_t* port() const { return use_ == nullptr ? nullptr : use_->port; }

  private:
    portUse_t* use_;
};

bool isTty(const char* name) {
    return name != nullptr && std::strncmp(name, DEVICE_PREFIX, DEVICE_PREFIX_LEN) == 0;
}

uint8 takeFreeChannel() {
    const std::lock_guard<std::mutex> lock(mutexChDescr);
    for (uint8 ch = 0; ch < CHANNELS; ++ch) {
        if (!chDescr[ch].taken) {
            chDescr[ch].taken = true;
            return ch;
        }
    }
    return NO_CHANNEL;
}

void publish(uint8 ch, portUse_t* use) {
    const std::lock_guard<std::mutex> lock(mutexChDescr);
    chDescr[ch].pPortDescr = use;
}

// Frees the channel and hands its hold on the port to the caller; null if it had none.
portUse_t* detach(uint8 ch) {
    if (ch >= CHANNELS) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(mutexChDescr);
    portUse_t* const use = chDescr[ch].pPortDescr;
    if (use != nullptr) {
        chDescr[ch] = {nullptr, false};
    }
    return use;
}

void freeChannel(uint8 ch) {
    const std::lock_guard<std::mutex> lock(mutexChDescr);
    chDescr[ch] = {nullptr, false};
}

const baudRow_t* findBaud(int baudrate) {
    for (const baudRow_t& row : BAUDS) {
        if (row.baudrate == baudrate) {
            return &row;
        }
    }
    return nullptr;
}

const rs485Row_t* findRs485(const char* device) {
    for (const rs485Row_t& row : RS485_PORTS) {
        if (std::strcmp(row.device, device) == 0) {
            return &row;
        }
    }
    return nullptr;
}

// Zeros on a port that doesn't know the request.
struct serial_rs485 readRs485(ttyd_port_t* port) {
    struct serial_rs485 record;
    std::memset(&record, 0, sizeof(record));
    ttyd_ioctl(port, TIOCGRS485, &record);
    return record;
}

}  // namespace

// The two tests of a channel before its use, logged under the name of the operation.
#define CHECK_CHANNEL_(ch, user, ...)             \
    do {                                          \
        if ((ch) >= CHANNELS) {                   \
            DBG_E("Canale non valido!\n");        \
            return __VA_ARGS__;                   \
        }                                         \
        if ((user).port() == nullptr) {           \
            DBG_E("Canale non inizializzato!\n"); \
            return __VA_ARGS__;                   \
        }                                         \
    } while (0)

uint8 ComDev_Init(const char* name, int baudrate, bool wDBG) {
    if (!isTty(name)) {
        DBG_E("Tipo di dispositivo non supportato!\n");
        return NO_CHANNEL;
    }
    const uint8 ch = takeFreeChannel();
    if (ch == NO_CHANNEL) {
        DBG_E("Non e' disponibile un canale libero!\n");
        return NO_CHANNEL;
    }
    DBG_P("Trovato canale libero, indice:%d\n", ch);
    portUse_t* const use = new (std::nothrow) portUse_t{ttyd_init(), 1, false};
    if (use == nullptr || use->port == nullptr) {
        DBG_E("Errore inizializzazione tty\n");
        delete use;
        freeChannel(ch);
        return NO_CHANNEL;
    }
    ttyd_port_t* const port = use->port;
    ttyd_set_device(port, name);
    if (ttyd_open(port, wDBG) != TTYD_ERR_NOERROR) {
        DBG_E("Errore apertura device\n");
        freeChannel(ch);
        leave(use);
        return NO_CHANNEL;
    }
    const baudRow_t* const baud = findBaud(baudrate);
    if (baud == nullptr) {
        DBG_E("Valore non contemplato! Imposto 9600\n");
    }
    if (ttyd_set_baud(port, baud != nullptr ? baud->value : TTYD_BAUD_9600) != TTYD_ERR_NOERROR) {
        DBG_E("Errore impostazione Baudrate\n");
        ttyd_close(port);
        freeChannel(ch);
        leave(use);
        return NO_CHANNEL;
    }
    const rs485Row_t* const row = findRs485(name);
    if (row == nullptr) {
        DBG_W("Nessuna ttyQX in uso!!!\n");
    } else if (row->message != nullptr) {
        DBG_P("%s", row->message);
        struct serial_rs485 record = readRs485(port);
        DBG_P("ANTE - flags:%u delay_before_send:%u delay_after_send:%u\n", record.flags, record.delay_rts_before_send,
              record.delay_rts_after_send);
        record.flags = row->flags;
        record.delay_rts_before_send = RS485_DELAY;
        record.delay_rts_after_send = RS485_DELAY;
        ttyd_ioctl(port, TIOCSRS485, &record);
        record = readRs485(port);
        DBG_P("POST - flags:%u delay_before_send:%u delay_after_send:%u\n", record.flags, record.delay_rts_before_send,
              record.delay_rts_after_send);
    }
    ttyd_termios(port);
    publish(ch, use);
    return ch;
}

int ComDev_End(uint8 ch) {
    portUse_t* const use = detach(ch);
    if (use == nullptr) {
        DBG_E("Canale non inizializzato, ch:%d\n", ch);
        return -1;
    }
    // At once, though other calls may be reading still: by the time they leave, another port may stand for the device.
    if (ttyd_give_back(use->port) != TTYD_ERR_NOERROR) {
        use->leftOpen = true;
    }
    leave(use);
    return 0;
}

int ComDev_Send(uint8 ch, const uint8* stream, uint16 len) {
    const PortUser user(ch);
    CHECK_CHANNEL_(ch, user, -1);
    if (ttyd_write_complete(user.port()) < 0) {
        DBG_E("tcdrain FAIL\n");
        return -1;
    }
    uint32 remaining = len;
    uint32 written = 0;
    while (remaining > 0) {
        // The offset is the latest count, not a running total: a frame goes out in one write.
        if (ttyd_write(user.port(), stream + written, remaining, &written) < 0) {
            DBG_E("errore in scrittura\n");
            return -1;
        }
        remaining -= written;
    }
    if (ttyd_write_complete(user.port()) < 0) {
        DBG_E("tcdrain FAIL\n");
        return -1;
    }
    return 0;
}

int ComDev_Rcv(uint8 ch, uint8* stream, uint16 desired_len, uint32 timeout) {
    const PortUser user(ch);
    CHECK_CHANNEL_(ch, user, -1);
    uint32 count = 0;
    const int32 ret = ttyd_read_timeout(user.port(), stream, desired_len, &count, timeout);
    if (ret == TTYD_ERR_NOERROR) {
        return static_cast<int>(count);
    }
    if (count > 0) {
        DBG_W("attesi:%d effettivi:%ld\n", desired_len, static_cast<long>(count));
        dumphex("rcvBuff", static_cast<int>(count), stream);
    }
    return ret;
}

void ComDev_FlushQueue(uint8 ch) {
    const PortUser user(ch);
    if (user.port() == nullptr) {
        return;
    }
    const int32 ret = ttyd_flush(user.port());
    if (ret != TTYD_ERR_NOERROR) {
        DBG_E("flush error:%d\n", ret);
    }
}

void ComDev_RecoveryBus(uint8 ch) {
    const PortUser user(ch);
    CHECK_CHANNEL_(ch, user);
    if (!isTty(user.port()->dev)) {
        DBG_E("comando non supportato!\n");
        return;
    }
    DBG_P("Invio del carattere BREAK!!!\n");
    ttyd_sendbreak(user.port());
    ComDev_FlushQueue(ch);
}

int ComDev_SetCtrlTerm(uint8 ch) {
    const PortUser user(ch);
    CHECK_CHANNEL_(ch, user, -1);
    return ttyd_SetCtrlTerm(user.port());
}

int32 ComDev_BreakCount(uint8 ch) {
    const PortUser user(ch);
    return user.port() == nullptr ? -1 : ttyd_break_count(user.port());
}

int ComDev_Descriptor(uint8 ch) {
    const PortUser user(ch);
    return user.port() == nullptr ? -1 : ttyd_fd(user.port());
}
