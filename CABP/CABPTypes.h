// Records and constants of the cabinet bus protocol.
#ifndef CABP_CABPTYPES_H
#define CABP_CABPTYPES_H

#include "Common/Globals.h"
#include "Common/QueuesMgr.h"
#include "Common/VirtualUPSTypes.h"

// The module link has constants of the same names: each protocol keeps its own.
namespace cabp {
constexpr uint8 STX = 0x02;
constexpr uint8 ETX = 0x03;
constexpr uint8 ACK = 0x06;
constexpr uint8 NCK = 0x15;
}  // namespace cabp

// Offsets in a frame.
constexpr int CABP_SOURCEOFFSET = 0x01;
constexpr int CABP_DESTOFFSET = 0x02;
constexpr int CABP_MAINCMDOFFSET = 0x03;
constexpr int CABP_SUBCMDOFFSET = 0x04;
constexpr int CABP_LENGTHOFFSET = 0x05;
constexpr int CABP_DATAOFFSET = 0x07;
constexpr int CABP_HEAD_QUEUE_LEN = 0x0A;  // bytes of a frame besides its data
constexpr int CABP_MAXPCKLEN = 1024;       // largest frame received

// Address plan.
constexpr uint8 GROUPMASTER = 0xE0;                // group of the MCUs; as LastMaster: no master known
constexpr uint8 FIRSTUPSBOX = GROUPMASTER + 0x0A;  // MCU of the first cabinet
constexpr uint8 GROUPSKBOX = 0x00;                 // group of the SK boards
constexpr uint8 FIRSTSKBOX = GROUPSKBOX + 0x0A;    // SK board of the first cabinet
constexpr int MAXMCU = MAXUPSBOX;
constexpr uint8 BROADCAST = 0xFF;

constexpr uint8 MCU2id(uint8 addr) {
    return static_cast<uint8>(addr - FIRSTUPSBOX);
}

/// Cabinet index 0 to 3 of an MCU address, -1 for any other address. Every use of an index that comes from a wire or
/// from the own address goes through here.
constexpr int boxIndex(uint8 addr) {
    return addr >= FIRSTUPSBOX && addr < FIRSTUPSBOX + MAXMCU ? addr - FIRSTUPSBOX : -1;
}
/// Index of the own cabinet, -1 on a card whose module ID was none of the plant's.
inline int ownIndex() {
    return boxIndex(CABPAddr);
}
/// Letter of a cabinet by its MCU's address: 0xEA prints 'A'.
constexpr char boxLetter(uint8 addr) {
    return static_cast<char>(addr - 0xA9);
}

/// errnoCABP: below 0x10 faults of a frame, NAK frames among them; from 0x10 faults of receiving.
enum CABP_errno_e : uint8 {
    STXFAIL = 0x01,
    ADDRSFAIL = 0x02,
    GENFAIL = 0x04,
    MAINCMDFAIL = 0x05,
    SUBCMDFAIL = 0x06,
    DATALENFAIL = 0x07,
    ERRCODEFAIL = 0x08,
    BUSYFAIL = 0x09,
    SECURITYPINFAIL = 0x0A,
    CMDSFAIL = 0x0B,
    CRCRCVFAIL = 0x0C,
    RCV_NOSTXDETECT = 0x10,
    RCV_LONGTIMEOUT = 0x11,
    RCV_NOPCKLENDETECT = 0x12,
    RCV_TIMEOUT = 0x13,
    RCV_FAIL = 0x14,
    RCV_NOETXDETECT = 0x15,
    RCV_CRCFAIL = 0x16
};

// Data lengths, in bytes.
constexpr int BNDATALEN = 20;
constexpr int BSDATALEN = 268;  // the cabinet record and one byte more
constexpr int BIDATALEN = 98;
constexpr int CNDATALEN = 93;
constexpr int REPLYGILEN = 64;
constexpr int REPLYGSLEN = 109;
constexpr int REPLYEXTERRLEN = 30;
constexpr int SIPARAMLEN = 16;

constexpr int WAIT_CABPSQC = 10;  // ms of each wait on a single-shot query

// ---------------------------------------------------------------------------------------------------------------
// Clock table of the CN frame.

/// Time of a clock in 32 bits on every platform.
struct clkTime_t {
    int32 tv_sec;
    int32 tv_usec;
} PACKED;

/// One clock as seen on the bus.
struct clockData {
    clkTime_t T;      // when this clock last stamped its entry
    time32_t epochT;  // priority: 0 no entry yet, 1 ordinary, above when it was set by hand
    int32 delta;      // ms, filtered offset from the reference, positive if ahead
} PACKED;

struct clkStruct {
    clockData clkValue[MAXUPSBOX];
    uint32 TftTime;  // microseconds, the group's filtered mean offset
} PACKED;

/// Data of the CN frame.
struct CNData_t {
    int32 build;       // firmware build of the sender
    uint8 nextMaster;  // node that takes the master role
    union {
        uint32 bitStatus;
        struct {
            int32 forcedOnBypass : 2;  // -1 no order, 0 off, 1 on
        } PACKED;
    } PACKED;
    time32_t remoteTimeSuspended[MAXUPSBOX];  // carried, not read
    clkStruct clksData;
} PACKED;

// ---------------------------------------------------------------------------------------------------------------
// Records of an SK board; in memory only.

struct information_t {
    time_t timestamp;  // when the GI data were received, 0: none yet
    struct {
        uint16 Address;
        uint16 SkCfg;  // type of the board
        char FWVersion[13];
        char SerialNumber[17];
        char UpsConfig[17];
    } ro;
    struct {
        uint16 cfg1, cfg2, cfg3;
        // Low byte first: the delays of two relays, and at last the relays' rest states.
        union {
            uint16 cfg4;
            struct {
                uint8 delayActR2, delayActR1;
            };
        };
        union {
            uint16 cfg5;
            struct {
                uint8 delayActR4, delayActR3;
            };
        };
        union {
            uint16 cfg6;
            struct {
                uint8 delayActR6, delayActR5;
            };
        };
        union {
            uint16 cfg7;
            struct {
                uint8 delayActR8, delayActR7;
            };
        };
        union {
            uint16 cfg8;
            struct {
                uint8 spare, normalON;
            };
        };
    } rw;
};

union InSr_t {
    uint16 word;
    struct {
        uint16 spare0 : 1, spare1 : 1, spare2 : 1, spare3 : 1, spare4 : 1, spare5 : 1, POWER_ON_ALIM_BB : 1,
            autoritenuta : 1, OPTCOM_IN1 : 1, OPTCOM_IN2 : 1, OPTCOM_IN3 : 1, OPTCOM_IN4 : 1, spare12 : 1, spare13 : 1,
            spare14 : 1, SWOUT : 1;
    };
};

union OutSr_t {
    uint8 byte;
    struct {
        uint8 OPTCOM_OUT1 : 1, OPTCOM_OUT2 : 1, OPTCOM_OUT3 : 1, OPTCOM_OUT4 : 1, OPTCOM_OUT5 : 1, OPTCOM_OUT6 : 1,
            OPTCOM_OUT7 : 1, OPTCOM_OUT8 : 1;
    };
};

struct StatusSK_t {
    InSr_t InSr;
    OutSr_t OutSr;
    bool Config_Update;  // the board asks to be configured
    bool Fault_Hardware_MU;
    bool Fault_Temp_4;
    bool Fault_Temp_3;
    bool Fault_Temp_2;
    bool Fault_Temp_1;
    bool Fault_Hygro;
    bool Humidity_High;
    bool Cabinet_Overtemp;
};

/// Counters of the board, by name or as arrays.
union ErrCnt_t {
    struct {
        uint16 brk, frame, overrun, parity, BufferOverrunError, MainCmdErr, SubCmdErr, LengthErr, chksum;
        uint32 pckTx, pckRx, pckRxBroadcast;
    } PACKED;
    struct {
        uint16 err16[9];
        uint32 err32[3];
    } PACKED;
};

struct extendedBoardBox_t {
    information_t inf;
    StatusSK_t Status;
    ErrCnt_t Err;
    uint8 idu;  // last byte of the cabinet status reply
};

/// What the bus knows of a cabinet apart from its node.
struct upsBoxQueriesData_t {
    commStatus_t MCUcommStatus;
    extendedBoardBox_t extendedBoardBox;
    virtualNode_t* pVN;        // the cabinet's node in the tree, or null
    bool remoteUpdaterequest;  // the cabinet has asked for the configuration
};

NAIL_SIZE(clkTime_t, 8);
NAIL_SIZE(clockData, 16);
NAIL(clockData, T, 0, 8);
NAIL(clockData, epochT, 8, 4);
NAIL(clockData, delta, 12, 4);
NAIL_SIZE(clkStruct, 68);
NAIL(clkStruct, clkValue, 0, 64);
NAIL(clkStruct, TftTime, 64, 4);
NAIL_SIZE(CNData_t, CNDATALEN);
NAIL(CNData_t, build, 0, 4);
NAIL(CNData_t, nextMaster, 4, 1);
NAIL(CNData_t, bitStatus, 5, 4);
NAIL(CNData_t, remoteTimeSuspended, 9, 16);
NAIL(CNData_t, clksData, 25, 68);
NAIL_SIZE(ErrCnt_t, 30);

#endif
