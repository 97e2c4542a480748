// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_SESSION_H
#define QTOVELMIXER_TESTS_SUPPORT_SESSION_H

#include <mixer/engine_p.h>
#include <support/ramp_source.h>
#include <support/take_sink.h>
#include <support/test_api.h>

#include <QtCore/QMap>

#include <map>
#include <vector>

/// A mixer on a device that a test drives block by block, with its signals counted.
///
/// The clock is virtual: it moves by one block when the test runs one, after every playing source
/// has that block buffered, however long its worker takes.
class Session
{
    /// Lines that blocks have left behind are out before the test is over.
    struct TraceEnd
    {
        ~TraceEnd();
    };

    TraceEnd m_traceEnd; // goes after the engine

public:
    static constexpr int blockFrames = 256;

    explicit Session(int inputs = 0, int outputs = 2, int rate = 48000);

    /// A stereo ramp of `seconds` in the mix.
    RampSource *addRamp(int rate, double seconds, float gain = 1.0f);

    /// Starts the engine and waits until every sink's worker takes blocks.
    bool startRecording();

    /// Runs blocks and answers the samples of the first output. The device input carries its
    /// running frame number on every channel.
    std::vector<float> run(qint64 blocks);
    /// Runs blocks as a device would, whether sources have delivered or not.
    void runWithoutWaiting(int blocks);

    /// Says that the material of a source ends at this frame of the clock (by default at the
    /// timeline's end), so that `run` does not wait for more.
    void expectEnd(RampSource *source, qint64 mixerFrame = -1);

    void stopAll() { engine.stop(true, QTovelMixer::UserStopAction); }

    /// How often a signal of the engine was emitted.
    int count(const QString &signal) const { return m_counts.value(signal); }

    /// Which counter has not come back to rest; empty when all have.
    QString restFault();
    /// Fails the test unless every counter has come back to rest.
    void checkAtRest();
    /// What of buses and matrices does not fit what is attached; empty when all does.
    QString mappingFault();
    /// Fails the test unless buses and matrices fit what is attached.
    void checkMapping();

    TestApi *api;
    QTovelMixer::Engine engine;
    QTovelMixer::StopReason lastReason = QTovelMixer::NoReason;
    QString failure;

private:
    bool waitForBlock();

    QMap<QString, int> m_counts;
    std::map<const QTovelMixer::Source *, qint64> m_ends;
    qint64 m_inputFrame = 0;
};

#endif
