// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/pole_zero.h"

#include <algorithm>

namespace korvotoolbox {

bool discardZerosOutsideFreqInterval(std::vector<cplxZeroPolarForm>& zeros, int rate, double low, double high)
{
    const double nyquist = rate * 0.5;
    if (low < 0.0 || !(low < high) || low > nyquist)
        return false;
    std::erase_if(zeros, [lowest = low / nyquist, highest = high / nyquist](const cplxZeroPolarForm& zero) {
        return zero.angle < lowest || zero.angle > highest;
    });
    return true;
}

bool scalePolesToSafeMaxRadius(std::complex<double>* poles, int count, double maxRadius)
{
    if (poles == nullptr || count < 1 || !(maxRadius >= 0.0 && maxRadius <= 1.0))
        return false;
    double outermost = maxRadius;
    std::for_each(poles, poles + count, [&outermost](const std::complex<double>& pole) {
        outermost = std::max(outermost, std::abs(pole));
    });
    if (outermost > maxRadius)
        std::for_each(poles, poles + count,
                      [scale = maxRadius / outermost](std::complex<double>& pole) { pole *= scale; });
    return true;
}

} // namespace korvotoolbox
