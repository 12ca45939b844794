// The cabinet bus protocol: request and reply frames on the RS-485 bus of the plant.
//
// The functions take no lock of their own. Whoever sends or receives as master holds mutexCABPChannel; the slave's
// receiving and its replies hold nothing.
#ifndef CABP_CABP_H
#define CABP_CABP_H

#include <atomic>
#include <csignal>

#include "CABP/CABPTypes.h"
#include "Config/SysCfgMgr.h"

extern std::atomic<uint8> CABP_ch;                 ///< channel of the bus, 0xFF while closed
extern std::atomic<uint8> LastMaster;              ///< node last known to have acted as master, GROUPMASTER: none known
extern std::atomic<uint8> errnoCABP;               ///< last fault of a frame or of receiving, of whichever thread
extern volatile std::sig_atomic_t cntBreakDetect;  ///< BREAK conditions counted; cleared by the bus thread

// Frames.

/// Builds a frame of ParamLen + 10 bytes with the own address as source; free it with CABP_DestroyQuery.
uint16 CABP_BuildQuery(const pckStruct& qcs, uint8*& query);
/// Frees a built frame; the pointer is left as it is.
void CABP_DestroyQuery(uint8*& query);
/// Takes a frame apart; pParam then points into the frame. No check of any kind.
void CABP_ExtractQuery(pckStruct& query, uint8* pck);
/// Sends the busy NAK to `src`. 0 or -1. Nothing calls it at present.
int CABP_BusyReply(uint8 src);
/// Always 0xEA.
uint8 CABP_getAddr();

// Receiving.

/// Opens the channel and installs the SIGINT handler, if it is closed; empties its queues in any case. On failure
/// CABP_ch stays 0xFF.
void CABP_Init();
/// Closes the channel. Always 0.
int CABP_End();
/// Sends a BREAK after 2 ms.
void CABP_RecoveryBus();
/// Remembers `Src` as master if it is an MCU's.
void CABP_UpdateLastMaster(uint8 Src);
/// Waits for a valid frame of at most `len` bytes, as long as the distance from the last master tells. 0: a frame
/// stands in `data`; -1 fault, BREAK or overall limit; -5 silence.
int CABP_waitPck(uint8* data, uint16 len);
/// Counts the BREAKs that the port's driver has seen since the last look, and tells of a flush that failed in the
/// signal handler. Called at each return from the channel and on each pass of the bus thread.
void CABP_CheckBreak();

// Asking.

/// Data bytes of the reply to a query, 0 if the command isn't known.
uint16 CABP_GetReplyDataLen(const pckStruct& qcs);
/// One exchange. 0: good reply in q.pckReply; 1: nothing to wait for; -1: failed. The caller holds mutexCABPChannel.
int CABP_ManageQuery(const QCMgr& q);
/// Asks the SK board at `Dest` for its type. 0, or -1 with `type` 255. Nothing calls it at present.
int CABP_GetUnitBoardType(uint8 Dest, uint16& type);

// Storing and answering.

/// Stores a checked frame, reply or overheard, received at `timestamp`. The caller holds mutexCABPData.
void CABP_ManageData(time_t timestamp, uint8* pckReply);
/// Answers a query addressed to this node. 0 sent, -1 not.
int CABP_ManageReply(const pckStruct& qcs);

// Start values of the records.

/// Also resets moduleNotOnLoad and moduleUsed of the system manager.
void InitSysStatus(descSys_t& sys);
void InitUpsBox_UpsStatus(dataObject_t& ups);
void InitUpsBoxSubSystem(upsSubSystem_t& subSys, const upsBoxCfg_t& upsBoxCfg);
namespace cabp {
/// A cabinet's identification before any has been received; a module's differs.
void InitValueIdentification(identification_t* ptr);
}  // namespace cabp

#endif
