// What the sources of the bus protocol share with one another and with their tests, and with no one else.
#ifndef CABP_CABPINTERNAL_H
#define CABP_CABPINTERNAL_H

#include "CABP/CABP.h"

/// Whether any command can begin so. 'F' is reserved: nothing comes under it.
constexpr bool CABP_IsMainCmd(uint8 main) {
    for (const char* known = "BCFGOQSTU"; *known != '\0'; ++known) {
        if (main == static_cast<uint8>(*known)) {
            return true;
        }
    }
    return false;
}

// Frames (CABP.cpp).

/// The words of head and tail stand high byte first.
inline void CABP_Put16(uint8* where, uint16 value) {
    where[0] = static_cast<uint8>(value >> 8);
    where[1] = static_cast<uint8>(value);
}
inline uint16 CABP_Get16(const uint8* where) {
    return static_cast<uint16>(where[0] << 8 | where[1]);
}
/// CRC over `n` bytes, stored high byte first.
void CABP_SetCRC(uint8* where, const uint8* bytes, int n);
/// CRC over `n` bytes.
uint16 CABP_CalcCRC(const uint8* bytes, int n);
// The protocol's control field is the CRC, the only method this system has.
inline void CABP_SetCtrl(uint8* where, const uint8* bytes, int n) {
    CABP_SetCRC(where, bytes, n);
}
inline uint16 CABP_CalcCtrl(const uint8* bytes, int n) {
    return CABP_CalcCRC(bytes, n);
}
/// Fills head and tail around `n` data bytes that are copied from `data` (null: they stand in the frame already).
/// `frame` holds n + 10 bytes. Src is the own address. Returns n + 10.
uint16 CABP_PutFrame(uint8* frame, uint8 Dest, uint8 MainCmd, uint8 SubCmd, const void* data, uint16 n);
/// Up to 4 tries with the whole frame. 0 or -1.
int CABP_Send(const uint8* frame, uint16 len);
/// Checks a reply of `pckLen` bytes against its query; sets errnoCABP. 0 or -1.
int CABP_Decode(const uint8* Query, const uint8* Reply, uint16 pckLen);
/// Sends an acknowledge frame. 0 or -1.
int CABP_ACKReply(uint8 Src, uint8 MainCmd, uint8 SubCmd);
/// Judges an acknowledge frame. 0 ACK, -1 otherwise. `timestamp` is not used.
int CABP_ACKControl(const pckStruct& reply, time_t timestamp);

// Receiving (CABPRcv.cpp).

/// Hunts for a frame. `*len` is the size of `stream`, `timeout` (ms) the limit of silence. 0, -1 or -5.
int CABP_Rcv(uint8* stream, uint16* len, uint32 timeout);
/// Reads the reply to `qcs`. `*len` is the size of `stream` on entry, of the frame on success. 0, -1 or -4.
int CABP_RcvReply(uint8* stream, uint16* len, const pckStruct& qcs);
/// How long a slave listens, ms, by the distance from the last master; 120000 at most, or a fifth of more.
uint32 CABP_SlaveWait(uint8 addr, uint8 lastMaster, bool& divided);

#endif
