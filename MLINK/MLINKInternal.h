// What the sources of the module link share with one another and with their tests, and with no one else.
#ifndef MLINK_MLINKINTERNAL_H
#define MLINK_MLINKINTERNAL_H

#include "MLINK/MLINK.h"

/// Number in `n` nibble-coded characters, folded in 32 bits without looking at the characters.
uint32 MLINK_DCd2Dec(const uint8* str, int n);
/// True for the one command with an additive check.
inline bool MLINK_IsAdditive(uint8 MainCmd, uint8 SubCmd) {
    return MainCmd == 'G' && SubCmd == 'I';
}
void MLINK_SetAddrs(uint8* frame, uint8 Src, uint8 Dest);
void MLINK_SetCmds(uint8* frame, uint8 MainCmd, uint8 SubCmd);
/// Two characters, kept to 8 bits.
void MLINK_SetLen(uint8* frame, uint32 n);
void MLINK_SetData(uint8* frame, const void* data, uint32 n);
/// Check over n + 6 bytes from offset 1, four characters behind the data.
void MLINK_SetCRC(uint8* frame, uint32 n);
void MLINK_SetCHKSUM(uint8* frame, uint32 n);
uint16 MLINK_CalcCRC(const uint8* frame, uint32 n);
uint16 MLINK_CalcCHKSUM(const uint8* frame, uint32 n);
/// The two length characters as they fold, without the cut to 8 bits.
uint32 MLINK_GetLen(const uint8* frame);

int MLINK_Send(const uint8* stream, uint16 len);
/// Hunts for a reply of at most `*len` bytes in all. 0 or -1.
int MLINK_Rcv(uint8* stream, const uint8* len);
/// Judges a reply (`replyLen`: size of its buffer) against its query. 0 or -1; sets errnoMLink.
int MLINK_Decode(const uint8* Query, const uint8* Reply, uint16 replyLen);
/// The empty answer: Src and Dest swapped, no data. Length 12, or 0.
uint8 MLINK_ACKBuildReply(const pckStruct& qcs, uint8*& reply, time_t& timestamp);
/// Only logs.
void MLINK_ACKVerify(uint8 boxId, time_t timestamp, const pckStruct& reply);

namespace mlink {
/// A module's start values; a cabinet's identification differs.
void InitValueIdentification(identification_t* ptr);
/// Measures; leaves Temp1 to Temp6, Cent_kwh and statusDetail alone.
void InitValueUPSStatus(descModule_t* ptr);
/// All of statusDetail to zero.
void InitValueUPSData(statusCoding_t* ptr);
/// The whole record of a module as a registration leaves it: identification, nominal, measures, status bits, and at
/// last bit 3 of the byte that is switchStatus in a cabinet's view of the node (the high byte of Load[0] here, which
/// therefore reads 2048 until the first RS). Deliberate.
void ResetModuleNode(virtualNode_t& node);
}  // namespace mlink

#endif
