// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_LOUDNESS_MAP_H
#define QTOVELMIXER_MIXER_METER_LOUDNESS_MAP_H

#include <base/export.h>
#include <mixer/meter/loudness_reading.h>

#include <memory>
#include <vector>

namespace QTovelMixer {

class ChannelLayout;

/// The loudness of material that is edited: its K-weighted energy and true peak in every tenth of a
/// second. Edits move tenths, so that nothing is decoded or filtered again.
///
/// `measure` takes all tenths anew and so equals a measurement of the edited material exactly, but
/// for three things. Edits are made at tenths. What the weighting filters remember across an edit,
/// some hundredths of a second, stays with the tenth that it came from. And windows move in hops of
/// 100 ms, as the gates want it: the largest momentary loudness of a burst can be up to 0.6 LU low.
///
/// A map is of one track. The loudness of a mix does not follow from the maps of its tracks, whose
/// sum depends on how alike they are: measure the rendered mix.
///
/// A value: a copy is another map. Threads: any, one at a time per value. Real-time: no.
class QTOVELMIXER_EXPORT LoudnessMap
{
public:
    /// The empty map.
    LoudnessMap();

    /// Makes a map from frames in their order.
    class QTOVELMIXER_EXPORT Builder
    {
    public:
        /// `sampleRate` is 1 … 1 536 000 Hz, `channels` 1 … 128; the layout weighs them, their
        /// count where it knows nothing. Errors: outside these ranges the map stays empty.
        Builder(int sampleRate, int channels, const ChannelLayout &layout);
        ~Builder();
        Builder(const Builder &) = delete;
        Builder &operator=(const Builder &) = delete;

        /// Takes `count` interleaved frames. Samples that are not finite count as 0.
        void add(const float *frames, int count);
        /// The map of what was added. A last tenth that is not whole is left out.
        LoudnessMap map() const;

    private:
        struct Data;
        std::unique_ptr<Data> d;
    };

    /// Number of tenths.
    int count() const;

    // Edits. Ranges are held to what there is: a part of it that lies outside is left out.

    /// Some tenths, as a map of their own.
    LoudnessMap part(int first, int count) const;
    /// Takes in the tenths of another map before tenth `at`.
    void insert(int at, const LoudnessMap &other);
    void remove(int first, int count);
    /// Puts tenths before the tenth that is number `to` once they are taken out.
    void move(int first, int count, int to);
    /// Multiplies samples by `gain`, linear. Errors: ignored when it is not finite.
    void applyGain(int first, int count, double gain);

    /// Integrated loudness, its gate, range, largest momentary and short-term loudness and true
    /// peak, with their times, and the peak to loudness ratio, as `Meter::loudness` gives them;
    /// momentary and short-term loudness are those of the end.
    LoudnessReading measure() const;

private:
    int clampedCount(int &first, int count) const;

    // By tenths.
    std::vector<double> m_meanSquares; // weighted, over all channels
    std::vector<double> m_truePeaks;   // linear, of any channel
};

} // namespace QTovelMixer

#endif
