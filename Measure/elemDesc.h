// The state of an element of the plant as the aggregations report it.
#ifndef MEASURE_ELEMDESC_H
#define MEASURE_ELEMDESC_H

#include "Common/Common.h"

enum alarmStatus_t : uint8 {
    commLostAlarm = 0,
    noneAlarm = 1,
    warningAlarm = 2,
    anomalyAlarm = 3,
    faultAlarm = 4,
    lockAlarm = 5
};

/// State of an element; the upper bits have no meaning and stay as found. Work on it through elemAlarm() and
/// setElemAlarm(), which say what a bit field of an enumeration can't.
union elemDesc_t {
    uint8 desc;
    struct {
        uint8 alarmSt : 3;  // alarmStatus_t
    } PACKED;
};

inline alarmStatus_t elemAlarm(const elemDesc_t& elem) {
    return static_cast<alarmStatus_t>(elem.alarmSt);
}
inline void setElemAlarm(elemDesc_t& elem, alarmStatus_t state) {
    elem.alarmSt = static_cast<uint8>(state & 0x07);
}

#endif
