#include "Common/VirtualUPSTypes.h"

double SCALE(double meas, int scale) {
    static constexpr double multiplier[] = {1.0, 2.0, 4.0, 5.0, 8.0, 10.0, 100.0, 1000.0};
    static constexpr double divisor[] = {2.0, 4.0, 5.0, 8.0, 10.0, 100.0, 1000.0};  // of the scales -1 to -7
    if (scale >= 0) {
        return scale < static_cast<int>(sizeofarray(multiplier)) ? meas * multiplier[scale] : 0.0;
    }
    return scale >= -static_cast<int>(sizeofarray(divisor)) ? meas / divisor[-1 - scale] : meas;
}
