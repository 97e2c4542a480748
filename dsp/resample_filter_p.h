// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_RESAMPLE_FILTER_P_H
#define QTOVELMIXER_DSP_RESAMPLE_FILTER_P_H

#include <cstdint>
#include <memory>
#include <vector>

namespace QTovelMixer {

/// The coefficients of one pair of rates, one row per phase. Immutable once built, shared by every
/// converter of the pair.
///
/// Output frame n lies at input time n · step / phases. Its window ends `half` frames after the
/// input frame at or before that time.
struct ResampleFilter
{
    int64_t phases = 1; ///< output rate / greatest common divisor
    int64_t step = 1;   ///< input rate / greatest common divisor
    int half = 0;       ///< input frames on each side of an output frame
    int taps = 0;       ///< coefficients per row, a multiple of 16; the first ones may be padding
    /// 0: there is a row for each phase. Otherwise the number of equal parts into which one input
    /// frame is cut; rows are then interpolated, and one more row closes the last part.
    int64_t parts = 0;
    std::vector<float> rows;

    /// Builds the filter; rates are positive.
    static std::shared_ptr<const ResampleFilter> build(int32_t inRate, int32_t outRate);
    /// The same from a process-wide store of the pairs used last.
    static std::shared_ptr<const ResampleFilter> shared(int32_t inRate, int32_t outRate);
};

} // namespace QTovelMixer

#endif
