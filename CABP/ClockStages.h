// The stages of the clock synchronisation, without state and without a clock of their own. All of them work in 64 bits:
// a table comes from a wire and may hold anything.
#ifndef CABP_CLOCKSTAGES_H
#define CABP_CLOCKSTAGES_H

#include <sys/time.h>

#include <cstdint>

#include "CABP/CABPTypes.h"

namespace clockstages {

constexpr int PRIORITY_S = 300;                 // a clock set by hand keeps its priority for so long
constexpr std::uint64_t LARGEOFFSET_MS = 1500;  // from here on nothing is slewed
constexpr int ADJINTERVAL_S = 60;               // shortest interval between two adjustments
constexpr int DEADBAND_MS = 26;                 // smallest weighted offset that is looked at
constexpr int CORRECTION_MS = 76;               // smallest weighted offset that is corrected
constexpr uint32 MAXTFTTIME = 100000;           // microseconds
constexpr int EPOCHSHIFT = 16;                  // from epochT to weight
constexpr int FILTERSHIFT = 5;                  // scale of the filter of delta, 1/32 ms

struct RawOffset {
    bool isPositive;     // the own clock is ahead
    std::uint64_t msec;  // unsigned: a difference that microseconds out of their range made negative is a large one
};

/// Sum of the offsets of the clocks that take part, in ms, and their number.
struct GroupSum {
    std::int64_t accT;
    uint8 countMCU;
};

/// Highest epochT of the entries other than `own`, not below 0.
time32_t highestOtherEpoch(const clkStruct& table, int own);
/// Difference of two stamps.
RawOffset rawOffset(const clkTime_t& own, const clkTime_t& remote);
/// A clock other than `own` has stamped its entry later than `remote` has, by the second.
bool isStampedAfter(const clkStruct& table, int own, int remote);
/// 1 for an ordinary clock, over 20000 for one set by hand.
std::int64_t weightOf(time32_t epochT);
/// The filter's state after an offset (ms) from `remote`; `previous` and the result are in 1/32 ms.
int32 filtered(const clkStruct& table, int remote, std::int64_t offset, int32 previous);
/// What the filter believes, ms.
int32 smoothed(int32 state);
GroupSum sumOfDeltas(const clkStruct& table);
/// The group's filtered mean offset in microseconds, at most MAXTFTTIME; left alone while no clock takes part.
uint32 groupMean(const GroupSum& sum, uint32 TftTime);
/// The part of the own offset that the group doesn't share, ms.
std::int64_t weightedOffset(int32 delta, uint32 TftTime);
/// The adjustment that takes an offset (ms) away. Seconds and microseconds have the same sign.
timeval slewAgainst(std::int64_t offset);

}  // namespace clockstages

#endif
