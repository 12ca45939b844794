// Records and constants of the module link.
#ifndef MLINK_MLINKTYPES_H
#define MLINK_MLINKTYPES_H

#include "Common/Globals.h"
#include "Common/QueuesMgr.h"
#include "Common/VirtualUPSTypes.h"

// The cabinet bus has constants of the same names: each protocol keeps its own.
namespace mlink {
constexpr uint8 STX = 0x02;
constexpr uint8 ETX = 0x03;
constexpr uint8 ACK = 0x06;  // never on the wire: an acknowledgement echoes the command with an empty data field
constexpr uint8 NCK = 0x15;
}  // namespace mlink

// Offsets in a frame.
constexpr int MLINK_SOURCEOFFSET = 0x01;
constexpr int MLINK_DESTOFFSET = 0x02;
constexpr int MLINK_MAINCMDOFFSET = 0x03;
constexpr int MLINK_SUBCMDOFFSET = 0x04;
constexpr int MLINK_LENGTHOFFSET = 0x05;
constexpr int MLINK_DATAOFFSET = 0x07;
constexpr int MLINK_HEAD_QUEUE_LEN = 0x0C;  // bytes of a frame besides its data
constexpr int MLINK_MAXDATALEN = 243;       // lengths are kept in 8 bits: n + 12 must stay below 256

constexpr uint8 MasterAdd = 0x20;   // source of the polling queries on the own line
constexpr uint8 FIRSTMODULE = '1';  // modules answer at '1' to '7'
constexpr uint8 LASTMODULE = '7';
constexpr uint8 BYPASSUNIT = '8';  // the cabinet's bypass unit

// Commands of this system.
#define DCPCKSUPPORTED
#define CRPCKSUPPORTED
#define CSPCKSUPPORTED
#define GIPCKSUPPORTED
#define GEPCKSUPPORTED
#define GNPCKSUPPORTED
#define RCPCKSUPPORTED
#define RXPCKSUPPORTED
#define STPCKSUPPORTED
#define SVPCKSUPPORTED
#define RBPCKSUPPORTED
#define GMPCKSUPPORTED
#define SMPCKSUPPORTED

// Data lengths, in characters. RCDATALENGTH stands with the status bits.
constexpr int REDATALENGTH = 58;  // also of DE and DS
constexpr int RKDATALENGTH = 58;
constexpr int RSDATALENGTH_TT = 58;
constexpr int RSDATALENGTH_MM = 36;  // of another type of unit: not asked for here
constexpr int GEDATALENGTH = 16;
constexpr int GIDATALENGTH = 56;
constexpr int GNDATALENGTH = 22;
constexpr int GMPARAMLENGTH = 4;
constexpr int GMDATALENGTH = 4;
constexpr int RBDATALENGTH = 109;
constexpr int RXDATALENGTH = 169;
constexpr int SMPARAMLENGTH = 8;
constexpr int SMDATALENGTH = 0;
constexpr int SVDATALENGTH = 4;

constexpr int WAIT_MLINKSQC = 50;  // ms of each wait on a single query

/// errnoMLink: 0 none, 1 to 6 the refusal's code (any other refusal is stored just as well), or one of these.
constexpr uint8 MLINK_LENGTHMISMATCH = 254;  // good frame, but not of the expected length
constexpr uint8 MLINK_NOTRECEIVED = 255;

/// One module slot.
struct ModuleQueriesData_t {
    commStatus_t commStatus;
    virtualNode_t* pVN;  // the module's node, null when not registered
};

/// Flat index of the slot of a module, by cabinet index and module address, or -1 where there is none. In int
/// arithmetic: neither argument is trusted.
constexpr int slotIndex(int boxId, int modAdd) {
    const int index = boxId + (modAdd - '1');
    return boxId >= 0 && boxId < MAXUPSBOX && modAdd >= '1' && index >= 0 && index < MAXUPSBOX * MAXUPSxUPSBOX ? index
                                                                                                               : -1;
}

#endif
