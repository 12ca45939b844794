// Slow mutual synchronisation of the cards' clocks over the CN frame: corrections are slews, filtered and at least a
// minute apart, and a node corrects only towards the clock with the highest priority, the one set by hand last.
#ifndef CABP_CLOCKMGR_H
#define CABP_CLOCKMGR_H

#include "CABP/CABPTypes.h"
#include "CABP/ClockStages.h"
#include "Common/myMutex.h"

class ClockMgr {
  public:
    ClockMgr();
    ~ClockMgr();
    ClockMgr(const ClockMgr&) = delete;
    ClockMgr& operator=(const ClockMgr&) = delete;

    /// Stamps the own entry before a CN frame is sent. Takes mutexClk.
    void prepareClkData(clkStruct& clkData);
    /// Works on a received table: updates the own entry and TftTime in place, may call adjtime(). `MCUrf` is the
    /// cabinet index of the sender. Takes mutexClk.
    void elaborateClkData(uint8 MCUrf, clkStruct& remClks);
    /// Declared for changing the clock by hand, which has no source in this system.
    int setClock(uint8 year, uint8 month, uint8 day, uint8 hour, uint8 minute, uint8 second, bool legal);
    int setClock(time_t when);

  protected:
    myMutex* mutexClk;             // guards this object
    time_t epochWhenClockChanged;  // when this clock was set by hand; 0 if not, or once its priority has run out
    time_t lastAdj;                // last successful adjtime()
    static int32 prevdelta;        // state of the filter, 1/32 ms; one for the process

  private:
    // The stages that touch members, logs or the system clock; the caller holds mutexClk. `ownId` and `remoteId` are
    // indices of the table.
    bool adjustedLately() const;
    /// Gives the own entry the mark of a clock set by hand, or ends its priority.
    void updatePriority(clkStruct& table, int ownId, time32_t maxEpoch);
    /// An offset too large for a slew: the filter starts over, the clock is left alone.
    void restartFilter(clkStruct& table, int ownId, int remoteId);
    void correct(const clkStruct& table, int ownId, int remoteId, const clockstages::GroupSum& sum);
    /// Asks for the adjustment that takes an offset (ms) away.
    void slew(std::int64_t offset);
};

#endif
