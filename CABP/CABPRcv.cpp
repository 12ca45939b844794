// The bus port, the BREAK on the line, and the two receivers: one hunts for whatever comes, the other reads the one
// answer that a query must get.
#define TRACELEVEL_WARNING
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

#include "CABP/CABPInternal.h"
#include "Common/LogStep.h"
#include "Common/Monotonic.h"
#include "DevMgr/ComDev.h"
#include "DevMgr/TTYDev.h"

namespace {

constexpr int DEVICEBAUDRATE = 9600;
constexpr uint8 CHANNELCLOSED = 0xFF;

// All in ms but where told otherwise.
constexpr uint32 READTIMEOUT = 3000;
constexpr uint32 DELAYUNIT = READTIMEOUT * 10;         // a slave's wait per step of distance from the last master
constexpr uint32 READTIMEOUTNOISE = READTIMEOUT * 20;  // shortest overall limit of the hunt
constexpr int64_t REPLYLIMIT = 59999;                  // longest search for the header of a reply
constexpr uint32 UNDIVIDEDWAIT = 120000;               // longest wait of a slave that is used as it stands
constexpr uint32 WAITDIVISOR = 5;
constexpr int FARTHESTSLOT = MAXMCU;
constexpr int64_t FAULTINTERVAL = 1000;        // a port that fails more often than this is paced
constexpr useconds_t FAULTPAUSE_US = 1000000;  // by so much
constexpr useconds_t PAUSEBEFOREBREAK_US = 2000;

constexpr int HEADERLEN = CABP_DATAOFFSET;  // bytes up to the length, with it
constexpr int TAILLEN = CABP_HEAD_QUEUE_LEN - HEADERLEN;

constexpr uint16 FIFOSIZE = CABP_MAXPCKLEN * 2;
constexpr uint16 FIFOMASK = FIFOSIZE - 1;
static_assert((FIFOSIZE & FIFOMASK) == 0, "indices are reduced by a mask");

// Held while the port is opened or closed and while its BREAKs are counted: all three may come from two threads. A
// leaf, but for the channel table's own lock.
std::mutex mutexPort;
// BREAKs that the driver had counted at the last look, negative where it doesn't count. Under mutexPort.
int32 breaksSeen = -1;

// What the signal handler works with: nothing else is safe there.
std::atomic<int> flushDescriptor{-1};
std::atomic<int> handlersRunning{0};
std::atomic<bool> handlerFlushFailed{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a signal handler must not wait for a lock");

void CABP_BreakDetected(int /*sig*/) {
    const int savedErrno = errno;
    ++handlersRunning;
    cntBreakDetect = cntBreakDetect + 1;
    const int fd = flushDescriptor;
    if (fd >= 0 && tcflush(fd, TCIOFLUSH) != 0) {
        handlerFlushFailed = true;  // told by the bus thread
    }
    --handlersRunning;
    errno = savedErrno;
}

// Takes the descriptor away from the signal handler; when it returns no handler is using it any more.
void withdrawDescriptor() {
    flushDescriptor = -1;
    while (handlersRunning != 0) {
        std::this_thread::yield();
    }
}

void reopenPort() {
    CABP_End();
    CABP_Init();
}

// A port that is gone, or that fails again at once, must not turn its reader into a loop without a pause. On the bus
// thread only.
void paceFaults() {
    static struct timespec lastFault;
    static bool hasFailed = false;
    const bool isRepeated = hasFailed && elapsedMs(lastFault, monotonicNow()) < FAULTINTERVAL;
    if (CABP_ch == CHANNELCLOSED || isRepeated) {
        usleep(FAULTPAUSE_US);
    }
    hasFailed = true;
    lastFault = monotonicNow();
}

// What was received since the hunt began and hasn't been passed over yet.
class FrameHunter {
  public:
    // Room for what the next read is to bring: not beyond the end of the array, where a frame is split.
    uint8* room() { return &fifo[fifoHead]; }
    uint16 wanted() const { return MIN<uint16>(static_cast<uint16>(FIFOSIZE - fifoHead), blockLen); }
    void store(int count) { fifoHead = static_cast<uint16>((fifoHead + count) & FIFOMASK); }

    // True once a good frame of at most `size` bytes stands in `stream`; otherwise more bytes are wanted. Whatever
    // can't be the beginning of a frame costs a byte, and the search goes on inside of what is there.
    bool scan(uint8* stream, uint16 size) {
        for (;; pass()) {
            if (fifoTail == fifoHead) {
                return want(1);
            }
            if (fifo[fifoTail] != cabp::STX) {
                continue;
            }
            if (length() < HEADERLEN) {
                return want(HEADERLEN - length());
            }
            const int datalen = at(CABP_LENGTHOFFSET) << 8 | at(CABP_LENGTHOFFSET + 1);
            if (datalen > size - CABP_HEAD_QUEUE_LEN) {
                continue;
            }
            const int pckLen = datalen + CABP_HEAD_QUEUE_LEN;
            if (length() < pckLen) {
                return want(pckLen - length());
            }
            // At the end of what was received, wherever the frame's own end is.
            if (fifo[(fifoHead - 1) & FIFOMASK] != cabp::ETX) {
                continue;
            }
            if (copy(stream, size, pckLen) && isControlGood(stream, datalen)) {
                return true;
            }
        }
    }

  private:
    int length() const { return (fifoHead - fifoTail) & FIFOMASK; }
    uint8 at(int offset) const { return fifo[(fifoTail + offset) & FIFOMASK]; }

    bool want(int count) {
        blockLen = static_cast<uint16>(count);
        return false;
    }

    void pass() {
        fifo[fifoTail] = 0;
        fifoTail = (fifoTail + 1) & FIFOMASK;
    }

    bool copy(uint8* stream, uint16 size, int pckLen) const {
        const int len_1 = MIN(FIFOSIZE - fifoTail, pckLen);
        const int len_2 = pckLen - len_1;
        if (len_1 + len_2 > size) {
            DBG_E_OF("CABP_Rcv", "Errore calcolo lunghezze  len_1:%d len_2:%d\n", len_1, len_2);
            return false;
        }
        std::memcpy(stream, &fifo[fifoTail], static_cast<std::size_t>(len_1));
        std::memcpy(stream + len_1, fifo, static_cast<std::size_t>(len_2));
        return true;
    }

    static bool isControlGood(const uint8* stream, int datalen) {
        return CABP_CalcCtrl(stream + CABP_SOURCEOFFSET, datalen + CABP_DATAOFFSET - CABP_SOURCEOFFSET) ==
               CABP_Get16(stream + CABP_DATAOFFSET + datalen);
    }

    uint8 fifo[FIFOSIZE] = {};
    uint16 fifoHead = 0;  // where the next byte is stored
    uint16 fifoTail = 0;  // the byte that is examined
    uint16 blockLen = 1;  // bytes the next read asks for
};

bool isHeaderOf(const uint8* stream, const pckStruct& qcs) {
    return stream[0] == cabp::STX && stream[CABP_SOURCEOFFSET] == qcs.Dest &&
           stream[CABP_MAINCMDOFFSET] == qcs.MainCmd && stream[CABP_SUBCMDOFFSET] == qcs.SubCmd;
}

// Moves the next STX of a header that isn't the one searched for to the front. Returns the number of header bytes that
// are missing then.
uint16 skipToStx(uint8* header) {
    const void* const next = std::memchr(header + 1, cabp::STX, HEADERLEN - 1);
    if (next == nullptr) {
        return HEADERLEN;
    }
    const std::ptrdiff_t skipped = static_cast<const uint8*>(next) - header;
    std::memmove(header, next, static_cast<std::size_t>(HEADERLEN - skipped));
    return static_cast<uint16>(skipped);
}

}  // namespace

void CABP_Init() {
    const std::lock_guard<std::mutex> lock(mutexPort);
    if (CABP_ch == CHANNELCLOSED) {
        struct sigaction action;
        std::memset(&action, 0, sizeof(action));
        action.sa_handler = CABP_BreakDetected;
        action.sa_flags = 0;
        sigfillset(&action.sa_mask);
        sigaction(SIGINT, &action, nullptr);
        CABP_ch = ComDev_Init(serialPortCABP, DEVICEBAUDRATE, true);
        breaksSeen = ComDev_BreakCount(CABP_ch);
        flushDescriptor = ComDev_Descriptor(CABP_ch);
    }
    if (CABP_ch == CHANNELCLOSED) {
        DBG_E("Errore inizializzazione!\n");
        return;
    }
    ComDev_FlushQueue(CABP_ch);
}

int CABP_End() {
    const std::lock_guard<std::mutex> lock(mutexPort);
    if (CABP_ch != CHANNELCLOSED) {
        DBG_P("Chiude il canale di comunicazione\n");
        withdrawDescriptor();
        // The number first: once the channel is free, the other link may be given it.
        ComDev_End(CABP_ch.exchange(CHANNELCLOSED));
    }
    return SUCC;
}

void CABP_RecoveryBus() {
    usleep(PAUSEBEFOREBREAK_US);
    const std::lock_guard<std::mutex> lock(mutexPort);
    ComDev_RecoveryBus(CABP_ch);
    breaksSeen = ComDev_BreakCount(CABP_ch);  // the own BREAK is none that was received
}

void CABP_CheckBreak() {
    if (handlerFlushFailed.exchange(false)) {
        DBG_E("flush error:%d\n", TTYD_ERR_FLUSH);
    }
    const std::lock_guard<std::mutex> lock(mutexPort);
    const int32 count = ComDev_BreakCount(CABP_ch);
    const int32 rise = count >= 0 && breaksSeen >= 0 ? count - breaksSeen : 0;
    breaksSeen = count;
    if (rise > 0) {
        cntBreakDetect = cntBreakDetect + rise;
        ComDev_FlushQueue(CABP_ch);
    }
}

void CABP_UpdateLastMaster(uint8 Src) {
    if (Src != BROADCAST && (Src & 0xF0) == GROUPMASTER) {
        LastMaster = Src;
    }
}

uint32 CABP_SlaveWait(uint8 addr, uint8 lastMaster, bool& divided) {
    int distance;
    if (addr < FIRSTUPSBOX) {
        distance = lastMaster - addr;
    } else {
        distance = addr > lastMaster ? addr - lastMaster : addr + MAXMCU - lastMaster;
    }
    // An address that the plan doesn't have, there or here, must not lead to a wait of nothing or of days.
    if (distance < 1) {
        distance = FARTHESTSLOT;
    }
    const uint32 timeout = static_cast<uint32>(distance) * DELAYUNIT;
    divided = timeout > UNDIVIDEDWAIT;
    return divided ? timeout / WAITDIVISOR : timeout;
}

int CABP_waitPck(uint8* data, uint16 len) {
    const uint8 lastMaster = LastMaster;
    bool divided;
    const uint32 timeout = CABP_SlaveWait(CABPAddr, lastMaster, divided);
    if (divided) {
        DBG_P("UPSBOX:0X%02X attende per %ld millisecondi  --- LastMaster:0x%02X\n", CABPAddr,
              static_cast<long>(timeout), lastMaster);
    }
    const int ret = CABP_Rcv(data, &len, timeout);
    if (ret == SUCC) {
        CABP_UpdateLastMaster(data[CABP_SOURCEOFFSET]);
    }
    return ret;
}

int CABP_Rcv(uint8* stream, uint16* len, uint32 timeout) {
    const struct timespec timeStart = monotonicNow();
    const int64_t limit = MAX(timeout, READTIMEOUTNOISE);
    FrameHunter hunter;
    do {
        const int count = ComDev_Rcv(CABP_ch, hunter.room(), hunter.wanted(), timeout);
        CABP_CheckBreak();
        if (cntBreakDetect != 0) {
            return FAIL;
        }
        if (count < 1) {
            if (count == TTYD_ERR_TIMEOUT) {
                DBG_W("Errore ricezione: manca il carattere di inizio pacchetto!\n");
                return NOACTIVITY;
            }
            errnoCABP = RCV_NOSTXDETECT;
            DBG_E("Errore (%d) Provo a resettare la seriale\n", RCV_NOSTXDETECT);
            reopenPort();
            paceFaults();
            return FAIL;
        }
        const struct timespec timeNow = monotonicNow();
        if (elapsedMs(timeStart, timeNow) >= limit) {
            DBG_E("Errore ricezione: TIMEOUT!\n");
            DBG_E("timeStart:%8ld.%06ld timeNow:%8ld.%06ld\n", static_cast<long>(timeStart.tv_sec),
                  static_cast<long>(timeStart.tv_nsec / 1000), static_cast<long>(timeNow.tv_sec),
                  static_cast<long>(timeNow.tv_nsec / 1000));
            errnoCABP = RCV_LONGTIMEOUT;
            return FAIL;
        }
        hunter.store(count);
    } while (!hunter.scan(stream, *len));
    return SUCC;
}

int CABP_RcvReply(uint8* stream, uint16* len, const pckStruct& qcs) {
    if (*len < CABP_HEAD_QUEUE_LEN) {
        DBG_E("Errore lunghezza attesa della risposta:%d\n", *len);
        return FAIL;
    }
    const struct timespec timeStart = monotonicNow();
    uint16 wanted = HEADERLEN;
    for (;;) {
        const int count = ComDev_Rcv(CABP_ch, stream + HEADERLEN - wanted, wanted, READTIMEOUT);
        CABP_CheckBreak();
        if (count < 1) {
            if (count == TTYD_ERR_TIMEOUT) {
                DBG_E("Errore ricezione: manca il carattere di inizio pacchetto della risposta timeout:%d!\n",
                      static_cast<int>(READTIMEOUT));
                return FAIL;
            }
            DBG_E("Errore (%d) Provo a resettare la seriale\n", count);
            reopenPort();
            return FAIL;
        }
        if (elapsedMs(timeStart, monotonicNow()) > REPLYLIMIT) {
            DBG_E("Errore ricezione: TIMEOUT!\n");
            return TIMEOUT;
        }
        if (isHeaderOf(stream, qcs)) {
            break;
        }
        wanted = skipToStx(stream);
    }
    const int datalen = MIN<int>(CABP_Get16(stream + CABP_LENGTHOFFSET), *len - CABP_HEAD_QUEUE_LEN);
    const int rest = datalen + TAILLEN;
    const int count = ComDev_Rcv(CABP_ch, stream + HEADERLEN, static_cast<uint16>(rest), READTIMEOUT);
    CABP_CheckBreak();
    if (count < rest) {
        DBG_E("Errore ricezione: non sono presenti tutti i byte descritti in lenght!\n");
        DBG_E("Len:%d MainCmd:0x%02X SubCmd:0x%02X\n", datalen, stream[CABP_MAINCMDOFFSET], stream[CABP_SUBCMDOFFSET]);
        return FAIL;
    }
    *len = static_cast<uint16>(datalen + CABP_HEAD_QUEUE_LEN);
    return SUCC;
}
