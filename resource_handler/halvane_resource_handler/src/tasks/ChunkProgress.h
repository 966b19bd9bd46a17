#pragma once

#include <QtGlobal>

namespace orx {

//! What one progress signal of the chunk task adds to the progress of the upload: value * 100 / maximum, in
//! 32 bits and truncating, less \a lastValue, which then becomes the raw value of this signal, not its
//! percentage. The two coincide for a maximum of 100, which is what the chunk task counts up to. A signal
//! with the maximum 0 adds nothing and leaves \a lastValue alone. What does not fit 32 bits wraps around.
inline int chunkProgressDifference(int value, int maximum, int& lastValue) {
    if (maximum == 0)
        return 0;
    const int hundredfold = int(quint32(value) * 100U);
    const int percentage = int(qint64(hundredfold) / maximum);
    const int difference = int(quint32(percentage) - quint32(lastValue));
    lastValue = value;
    return difference;
}

} // namespace orx
