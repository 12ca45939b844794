// The module link: queries to the UPS module of the own cabinet, and the answers that the card gives in its module's
// name to other cabinets' cards.
//
// The functions take no lock of their own, unless told otherwise. Whoever touches the port holds mutexMLinkChannel.
#ifndef MLINK_MLINK_H
#define MLINK_MLINK_H

#include <atomic>
#include <ctime>

#include "MLINK/MLINKTypes.h"

extern std::atomic<uint8> MLINK_ch;    ///< channel of the module line, 255 while closed
extern std::atomic<uint8> errnoMLink;  ///< result code of the last exchange

/// Texts of the 176 status bits: entry i names bit i mod 8 of states[i / 8]. Public data for readers of the record.
constexpr int NUMSTATUSBIT = NUMRCBIT - 16;  // conditions; the last 16 are events
extern const char* const statusDetailString[NUMRCBIT];

// Frames and channel.

// The two need no lock of their own, unlike the bus's: the manager's constructor and destructor run while no exchange
// can, and a port that failed is reopened by the exchange that met the failure, under mutexMLinkChannel.

/// Opens the channel if it is closed; on failure it stays closed.
void MLINK_Init();
/// Closes the channel if it is open. Always 0.
int MLINK_End();
/// Writes the low `strLen` nibbles of `data`, most significant first, each plus 0x30, without terminator. Lengths 2, 3,
/// 4, 5 and 8 only.
void MLINK_Dec2DCd(uint32 data, uint8* str, uint8 strLen);
/// Builds a frame of ParamLen + 12 bytes with malloc. On the line lengths are kept in 8 bits: the characters of the
/// data's, the bytes under the check, the bytes that are sent.
uint16 MLINK_BuildQuery(const pckStruct& qcs, uint8*& query);
/// Takes a frame apart; pParam then points into the frame. No check of any kind; reads 7 bytes.
void MLINK_ExtractQuery(pckStruct& query, uint8* pck);

// Asking.

/// Data length of the reply to a query, 0 for an unknown command.
uint16 MLINK_GetReplyDataLen(const pckStruct& qcs);
/// One exchange on the own line. 0, or -1 with errnoMLink set. The caller holds mutexMLinkChannel.
int MLINK_ManageQuery(QCMgr& q);

// Storing and answering.

/// Decodes a good reply into the node of the module that sent it. `boxId` is the cabinet index; a reply that names no
/// slot, or is shorter than its command's decoding reads, is dropped. `timestamp` is when the data were true.
void MLINK_ManageData(uint8 boxId, time_t timestamp, uint8* pckReply);
/// Builds the reply to a tunnelled query out of the records, or queues the command and builds its acknowledgement.
/// Length of the frame in `reply` (malloc, the caller's to free), or 0 and null. `timestamp` 0 means no valid data.
int MLINK_BuildReply(pckStruct& qcs, uint8*& reply, uint8& replyLen, time_t& timestamp);

#endif
