// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_STATISTICS_H
#define QTOVELMIXER_DSP_STATISTICS_H

#include <base/export.h>

#include <cstdint>

/// Loudness and peaks of interleaved audio, after ITU-R BS.1770-4 and EBU R 128.
///
/// Loudness is measured over all channels of the handle together: K-weighting, mean square over a
/// sliding window (400 ms momentary, 3 s short-term), weighted sum, in LUFS. A window that is not
/// yet full counts the missing time as silence. The weights follow from the channel count:
///
/// | channels | order | weights |
/// |---|---|---|
/// | 4 | L R Ls Rs | 1 1 1.41 1.41 |
/// | 5 | L R C Ls Rs | 1 1 1 1.41 1.41 |
/// | 6 | L R C LFE Ls Rs | 1 1 1 0 1.41 1.41 |
/// | 8 | L R C LFE Ls Rs Lb Rb | 1 1 1 0 1.41 1.41 1.41 1.41 |
/// | any other | | 1 each |
///
/// A level meter uses two handles: one with the measure set 0x7C00 (momentary and short-term
/// loudness, sample peaks) and, where true peaks are wanted, one with 0x200 (true peaks only).
///
/// Peaks are measured per channel, as linear amplitude, over the frames of the last
/// DSPB_StatisticsAddFrames alone. The true peak is found by oversampling (BS.1770-4 Annex 2): 4
/// times below 96 kHz, 2 times below 192 kHz; from there on it is the sample peak.
///
/// Threads: any, one at a time per handle.
struct DSPB_Statistics;

/// What a handle measures; bits may be combined. Only the bits set cost time.
///
/// A query whose measure was not asked for writes the value of silence.
enum DSPB_StatisticsMeasure : uint32_t {
    /// Per-channel momentary true peak (0x200).
    DSPB_MeasureTruePeak = 0x0200,
    /// Momentary loudness.
    DSPB_MeasureMomentaryLoudness = 0x0400,
    /// Short-term loudness.
    DSPB_MeasureShortTermLoudness = 0x0800,
    /// Per-channel momentary sample peak.
    DSPB_MeasureSamplePeak = 0x1000,
    /// What a level meter asks for: momentary and short-term loudness and sample peaks. The two
    /// highest bits of the group (0x2000, 0x4000) are accepted and measure nothing.
    DSPB_MeasureLevels = 0x7C00,
};

extern "C" {

/// Makes a handle for frames of `channels` floats.
///
/// `sampleRate` is 1 … 1 536 000 Hz (the K-weighting is faithful from 8000 Hz on), `channels` is
/// 1 … 128. `reserved` is not used. `measures` is a set of DSPB_StatisticsMeasure.
/// Errors: null, which every call below tolerates, for anything outside these ranges, in
/// particular for 0 channels.
/// Threads: any. Real-time: no.
QTOVELMIXER_EXPORT DSPB_Statistics *DSPB_StatisticsCreate(int32_t sampleRate, int32_t channels,
                                                          int32_t reserved, uint32_t measures);

/// Adds interleaved frames. Samples that are not finite count as 0, those beyond ±1e30 as ±1e30.
///
/// Peaks afterwards are those of these frames. A null handle, null frames or a count below 1 are
/// ignored, and the peaks stay.
/// Threads: the handle's user. Real-time: yes (no allocation, no lock).
QTOVELMIXER_EXPORT void DSPB_StatisticsAddFrames(DSPB_Statistics *statistics, const float *frames,
                                                 int32_t frameCount);

/// Sets what the energy of a channel is multiplied by in the loudness sums, 0 or more, instead of
/// the weight that follows from the channel count; what was added before keeps its own.
///
/// Errors: ignored for a null handle, a channel that the handle does not have, and a weight that is
/// negative or not finite.
/// Threads: the handle's user. Real-time: yes.
QTOVELMIXER_EXPORT void DSPB_StatisticsSetChannelWeight(DSPB_Statistics *statistics,
                                                        int32_t channel, double weight);

/// Writes the loudness of the last 400 ms.
///
/// Units: LUFS, never below -120.0 (which stands for silence); always finite.
/// Errors: -120.0 for a null handle; nothing is written through a null pointer.
/// Threads: the handle's user. Real-time: yes.
QTOVELMIXER_EXPORT void DSPB_StatisticsMomentaryLoudness(const DSPB_Statistics *statistics,
                                                         double *lufs);

/// Writes the loudness of the last 3 s; otherwise as DSPB_StatisticsMomentaryLoudness.
QTOVELMIXER_EXPORT void DSPB_StatisticsShortTermLoudness(const DSPB_Statistics *statistics,
                                                         double *lufs);

/// Writes the largest absolute sample of a channel in the last frames added.
///
/// Units: linear amplitude, 1.0 is full scale, at least 0.
/// Errors: 0.0 for a null handle or a channel that the handle does not have; nothing is written
/// through a null pointer.
/// Threads: the handle's user. Real-time: yes.
QTOVELMIXER_EXPORT void DSPB_StatisticsMomentarySamplePeak(const DSPB_Statistics *statistics,
                                                           int32_t channel, double *peak);

/// Writes the largest absolute value that the band-limited signal of a channel takes in the last
/// frames added, between the samples too; otherwise as DSPB_StatisticsMomentarySamplePeak. The
/// oversampled values come half a filter late (6 frames at 4 times, 12 at 2 times), so a peak at
/// the very end of one call may show in the next one as well.
QTOVELMIXER_EXPORT void DSPB_StatisticsMomentaryTruePeak(const DSPB_Statistics *statistics,
                                                         int32_t channel, double *peak);

/// Frees the handle that the variable holds, if any, and sets the variable to null. A null
/// pointer to the variable is ignored.
///
/// Threads: any, after the last use. Real-time: no.
QTOVELMIXER_EXPORT void DSPB_StatisticsDestroy(DSPB_Statistics **statistics);
}

#endif
