#include "Measure/AnomalyTimer.h"

AnomalyTimer::AnomalyTimer(int limit, time32_t now) : limit_(limit), state_(AnomalyNotPresent), start_(now) {}

AnomalyVerdict AnomalyTimer::look(bool present, time32_t now) {
    if (!present) {
        state_ = AnomalyNotPresent;
        return AnomalyVerdict::No;
    }
    switch (state_) {
        case AnomalyNotPresent:
            state_ = AnomalyAnalizing;
            start_ = now;
            return AnomalyVerdict::No;
        case AnomalyAnalizing:
            if (ageOf(now, start_) <= limit_) {
                return AnomalyVerdict::No;
            }
            state_ = AnomalyDetected;
            return AnomalyVerdict::JustDetected;
        case AnomalyDetected:
            return AnomalyVerdict::StillDetected;
    }
    return AnomalyVerdict::No;
}
