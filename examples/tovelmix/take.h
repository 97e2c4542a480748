// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_TAKE_H
#define TOVELMIX_TAKE_H

#include <QtCore/QString>

#include <vector>

namespace tovelmix {

/// The file backend runs at this rate, Hz, whatever it is given.
inline constexpr int sampleRate = 44100;

/// What the mixer carries at most.
inline constexpr int maxChannels = 128;

/// What decibel readings stop at.
inline constexpr double silenceDb = -120.0;

/// What a take may last, seconds.
inline constexpr double maxSeconds = 24.0 * 3600.0;

/// Seconds as frames, rounded.
qint64 framesOf(double seconds, int rate = sampleRate);

/// Sample value for a 16-bit file: full scale 1.0 is 32768, rounded, clamped; 0 for what is no
/// number. Exact for every value that came from a 16-bit file.
short toSample16(float value);

/// A linear amplitude in decibels, not below `silenceDb`.
double decibels(double amplitude);

/// "1 channel", "2 channels".
QString channelCount(int channels);

/// What is known about a finished take.
struct Take
{
    qint64 frames = 0;
    int rate = sampleRate;               ///< Hz
    std::vector<float> samplePeaks;      ///< linear, per channel, over every sample of the take
    std::vector<double> truePeakDb;      ///< per channel, highest reading of the meter; ends at 0.0
    double momentary = silenceDb;        ///< LUFS, last reading: 400 ms
    double shortTerm = silenceDb;        ///< LUFS, last reading: 3 s
    double highestMomentary = silenceDb; ///< LUFS
    double highestShortTerm = silenceDb; ///< LUFS
    QString error;                       ///< one line; empty when the take is whole
};

/// The table that ends a recording, lines with line feeds.
QString table(const Take &take);

} // namespace tovelmix

#endif
