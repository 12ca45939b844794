// What travels through the bus for a module of another cabinet: a frame of the module link as the data of a QT frame.
// Shared by the sources of the bus protocol, by the bus manager and by their tests.
#ifndef CABP_CABPTUNNEL_H
#define CABP_CABPTUNNEL_H

#include "CABP/CABPTypes.h"

inline bool CABP_IsTunnel(const pckStruct& qcs) {
    return qcs.MainCmd == 'Q' && qcs.SubCmd == 'T';
}
/// Takes the inner frame apart. False, and `inner` all zero, where the data can't hold a head and a tail.
bool CABP_ExtractTunnelled(const pckStruct& qcs, pckStruct& inner);
/// Data bytes of the reply to a QT query.
uint16 CABP_GetTunnelReplyDataLen(const pckStruct& qcs);
/// Answers a QT query. 0 sent, -1 not.
int CABP_QTReply(const pckStruct& qcs);
/// Hands a QT reply on to the module decoder, with the time stamp that it carries; one of 0 is dropped. The caller
/// holds mutexCABPData.
void CABP_QTGetData(time_t timestamp, const pckStruct& reply);

#endif
