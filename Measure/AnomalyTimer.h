// A condition that counts as an anomaly only once it has lasted: both aggregations judge so what may be seen for a
// moment while records of different age are compared.
#ifndef MEASURE_ANOMALYTIMER_H
#define MEASURE_ANOMALYTIMER_H

#include "Common/Common.h"

enum AnomalyState_e : int {
    AnomalyNotPresent = 0,
    AnomalyAnalizing = 1,  // present, not for long enough
    AnomalyDetected = 2
};

/// Result of a look. The log line of an anomaly belongs to JustDetected.
enum class AnomalyVerdict { No, JustDetected, StillDetected };

class AnomalyTimer {
  public:
    /// The anomaly counts once it has been present for more than `limit` seconds.
    explicit AnomalyTimer(int limit, time32_t now);
    /// Takes in whether the condition is present at `now` (wall time).
    AnomalyVerdict look(bool present, time32_t now);
    AnomalyState_e state() const { return state_; }

  private:
    int limit_;
    AnomalyState_e state_;
    time32_t start_;  // when it was first seen
};

#endif
