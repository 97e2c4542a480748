// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_EFFECT_H
#define QTOVELMIXER_MIXER_IO_EFFECT_H

#include <base/export.h>
#include <base/nonblocking.h>

#include <QtCore/QObject>
#include <QtCore/QString>

#include <memory>

namespace QTovelMixer {

/// An insert effect: works in place on interleaved float samples, inside the mix of a block.
///
/// The host subclasses it and hands it to the engine, which keeps a plain pointer: replace the
/// effect before deleting it (`onReplaced` tells when the mix has let go of it).
/// An effect whose channel count is not that of the source it stands on is skipped.
class QTOVELMIXER_EXPORT Effect : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Effect)

public:
    /// Units: Hz; interleaved channels per frame. Created without a parent. Threads: main.
    Effect(int sampleRate, unsigned int numChannels);
    ~Effect() override;

    /// The host's name of the effect, never asked by the mixer; the object name unless overridden.
    /// Threads: main.
    virtual QString name() const;

    /// Runs `processBuffers` with `buffer` as input and output, and returns its answer.
    /// Errors: 0 for a null buffer; nothing is processed.
    /// Threads: audio. Real-time: yes.
    virtual int process(float *buffer, int channels, int frames) QTOVELMIXER_NONBLOCKING;

    /// Processes `frames` (0 or more) interleaved frames of `channels` channels. `input` and
    /// `output` are the same memory when the mixer calls, valid during the call only.
    /// Returns non-zero on success. Must not block, lock, allocate or throw.
    /// Threads: audio. Real-time: yes.
    virtual int processBuffers(const float *input, float *output, int channels,
                               int frames) QTOVELMIXER_NONBLOCKING = 0;

    /// Forgets what the effect remembers of earlier audio. Threads: main.
    virtual void reset();

    /// Frames that still sound after the input has ended; 0 unless overridden. Threads: main.
    virtual int tailSize() const;

    /// Called when the mix has let go of the effect: from then on the host may delete it.
    /// Threads: main.
    virtual void onReplaced();

    /// Samples that the effect left in the mix and that were not finite: the mix took 0 instead,
    /// and logged it once. Threads: any. Real-time: yes.
    quint64 replacedSamples() const QTOVELMIXER_NONBLOCKING;

    /// The constructor's channel count. Threads: any. Real-time: yes.
    virtual unsigned int numChannels() const QTOVELMIXER_NONBLOCKING;

    /// The constructor's rate, Hz. Threads: any. Real-time: yes.
    virtual int sampleRate() const QTOVELMIXER_NONBLOCKING;

private:
    friend struct EffectAccess;
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
