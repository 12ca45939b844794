// Numbered channels over the port driver, and the RS-485 set-up of the card's UARTs. A channel is 0 to 3; 255 is none.
// Calls on one channel are serialised by the link's channel mutex; opening and closing may come from another thread at
// any time: a private leaf lock guards the table, and a port in use is only freed by its last user.
#ifndef DEVMGR_COMDEV_H
#define DEVMGR_COMDEV_H

#include "Common/Common.h"

/// Opens a device whose name begins with "/dev/tty"; `baudrate` in bit/s, an unknown one counts as 9600. Returns the
/// channel, or 255.
uint8 ComDev_Init(const char* name, int baudrate, bool wDBG);
/// 0, or -1 for a channel in no use.
int ComDev_End(uint8 ch);
/// Sends; returns when the last byte has left, since the bus turns around by that. 0 or -1.
int ComDev_Send(uint8 ch, const uint8* stream, uint16 len);
/// Reads; `timeout` (ms) limits each gap. Number of bytes read (`desired_len`), or a negative driver code, -9 being the
/// ordinary time-out; -1 for a channel in no use. What arrived before a failure stays in `stream`.
int ComDev_Rcv(uint8 ch, uint8* stream, uint16 desired_len, uint32 timeout);
/// Empties both queues of the port; silently nothing on a channel in no use.
void ComDev_FlushQueue(uint8 ch);
/// Sends a BREAK and empties the queues.
void ComDev_RecoveryBus(uint8 ch);
/// Makes the port the controlling terminal. Nothing calls it at present.
int ComDev_SetCtrlTerm(uint8 ch);
/// BREAKs counted by the driver of the channel's port; negative where the channel is in no use or the driver doesn't
/// tell, as a pseudo-terminal's.
int32 ComDev_BreakCount(uint8 ch);
/// Descriptor of the channel's port for a flush by a signal handler, -1 if none.
int ComDev_Descriptor(uint8 ch);

#endif
