// Driver of one serial port on top of termios: raw mode fit for a half-duplex bus, reads with a gap timeout, no
// transmission over arriving input. Only the channel layer (ComDev) uses it. A port has no lock: callers serialise.
#ifndef DEVMGR_TTYDEV_H
#define DEVMGR_TTYDEV_H

#include "Common/Common.h"

constexpr int TTYD_STRLEN = 512;
constexpr int TTYD_STRLEN_DEVICE = 30;

enum ttyd_baud_e : uint32 {
    TTYD_BAUD_1200 = 0,
    TTYD_BAUD_2400,
    TTYD_BAUD_4800,
    TTYD_BAUD_9600,
    TTYD_BAUD_19200,
    TTYD_BAUD_38400,
    TTYD_BAUD_57600,
    TTYD_BAUD_115200,
    TTYD_BAUD_MAX
};
enum ttyd_data_e : uint32 { TTYD_DATA_5 = 0, TTYD_DATA_6, TTYD_DATA_7, TTYD_DATA_8, TTYD_DATA_MAX };
enum ttyd_parity_e : uint32 { TTYD_PARITY_NONE = 0, TTYD_PARITY_ODD, TTYD_PARITY_EVEN, TTYD_PARITY_MAX };
enum ttyd_stop_e : uint32 { TTYD_STOP_1 = 0, TTYD_STOP_2, TTYD_STOP_MAX };
enum ttyd_flow_e : uint32 { TTYD_FLOW_OFF = 0, TTYD_FLOW_HW, TTYD_FLOW_XON_XOFF, TTYD_FLOW_MAX };
enum ttyd_status_e : uint32 { TTYD_PORT_CLOSED = 0, TTYD_PORT_OPEN = 1 };

enum ttyd_err_e : int32 {
    TTYD_ERR_NOERROR = 0,
    TTYD_ERR_UNKNOWN = -1,
    TTYD_ERR_OPEN = -2,
    TTYD_ERR_CLOSE = -3,
    TTYD_ERR_FLUSH = -4,
    TTYD_ERR_CONFIG = -5,
    TTYD_ERR_READ = -6,
    TTYD_ERR_WRITE = -7,
    TTYD_ERR_SELECT = -8,
    TTYD_ERR_TIMEOUT = -9,
    TTYD_ERR_IOCTL = -10,
    TTYD_ERR_PORT_CLOSED = -11,
    TTYD_ERR_BREAK = -12,
    TTYD_ERR_MAX = -13
};

struct ttyd_port_t {
    char dev[TTYD_STRLEN_DEVICE + 1];
    void* pt;  // platform part, a ttyd_linux_t, owned
    ttyd_baud_e baud;
    ttyd_data_e data;
    ttyd_stop_e stop;
    ttyd_flow_e flow;
    ttyd_parity_e parity;
    ttyd_status_e status;
    bool wDBG;
};

// Results are the codes above, 0 is success, unless told otherwise.

/// A new closed port ("/dev/null", 9600 8N1, no flow control), or null.
ttyd_port_t* ttyd_init();
/// Restores the settings found at start, closes and frees: ttyd_give_back and ttyd_discard. On a port that isn't open:
/// nothing at all. A failed restore leaves the port open and allocated, unless the device is gone: then it is closed
/// and freed all the same.
void ttyd_end(ttyd_port_t* p);
/// First half of the end, for a port that others still read from: empties the queues and restores the settings found
/// at start, if they were ever read. 0, also if the device is gone; TTYD_ERR_CONFIG if the restore failed otherwise.
int32 ttyd_give_back(ttyd_port_t* p);
/// Second half of the end: closes and frees without touching the line. Also for a port that never came to work, which
/// ttyd_end leaves alone: its descriptor, if it has one, is closed silently.
void ttyd_discard(ttyd_port_t* p);
/// Opens `dev` with the port's settings. On failure the port stays closed; a descriptor it got stays open until the
/// next ttyd_open or ttyd_discard.
int32 ttyd_open(ttyd_port_t* p, bool withDBG);
int32 ttyd_close(ttyd_port_t* p);
/// Reads up to `buf_len` bytes. `timeout` (ms) is the longest gap without a byte, not a limit of the whole call.
int32 ttyd_read_timeout(ttyd_port_t* p, uint8* buf, uint32 buf_len, uint32* read_len, uint32 timeout);
/// One write, waiting for room where the driver's buffer is full; refuses (TTYD_ERR_WRITE, `*write_len` untouched)
/// while input is waiting.
int32 ttyd_write(ttyd_port_t* p, const uint8* buf, uint32 buf_len, uint32* write_len);
/// Waits until all output has left.
int32 ttyd_write_complete(ttyd_port_t* p);
/// Puts the port into its working mode: raw, BREAK as signal.
int32 ttyd_termios(ttyd_port_t* p);
/// ioctl() as it is.
int32 ttyd_ioctl(ttyd_port_t* p, uint32 cmd, void* param);
int32 ttyd_SetCtrlTerm(ttyd_port_t* p);
/// Copies at most TTYD_STRLEN_DEVICE characters.
void ttyd_set_device(ttyd_port_t* p, const char* device);
int32 ttyd_set_baud(ttyd_port_t* p, ttyd_baud_e value);
int32 ttyd_set_data(ttyd_port_t* p, ttyd_data_e value);
int32 ttyd_set_parity(ttyd_port_t* p, ttyd_parity_e value);
int32 ttyd_set_stop(ttyd_port_t* p, ttyd_stop_e value);
int32 ttyd_set_flow(ttyd_port_t* p, ttyd_flow_e value);
int32 ttyd_sendbreak(ttyd_port_t* p);
/// Empties both queues, silently.
int32 ttyd_flush(ttyd_port_t* p);
/// Number of BREAKs the driver has counted since the port exists, negative where the driver doesn't tell (silently).
int32 ttyd_break_count(ttyd_port_t* p);
/// The open port's descriptor, -1 otherwise; for the one flush that a signal handler makes.
int ttyd_fd(const ttyd_port_t* p);
const char* ttyd_strerror(int32 error);
const char* ttyd_strbaud(uint32 value);
const char* ttyd_strdata(uint32 value);
const char* ttyd_strparity(uint32 value);
const char* ttyd_strstop(uint32 value);
const char* ttyd_strflow(uint32 value);
ttyd_status_e ttyd_port_open(const ttyd_port_t* p);

#endif
