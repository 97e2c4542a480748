// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SOAK_SESSION_H
#define QTOVELMIXER_TESTS_SOAK_SESSION_H

#include "hosts.h"

#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>

#include <QtCore/QMap>
#include <QtCore/QPointer>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <vector>

/// How long the blocks took, in a table of microseconds.
class CallbackTimes
{
public:
    CallbackTimes() : m_counts(100001) {}

    /// The audio thread's: at the beginning and at the end of a block.
    void begin() { m_begin = std::chrono::steady_clock::now(); }
    void end();

    qint64 worst() const;              ///< microseconds
    qint64 percentile(double p) const; ///< microseconds, 0 < p ≤ 100

private:
    std::chrono::steady_clock::time_point m_begin;
    std::vector<qint64> m_counts; ///< the last one: that and more
};

/// Without a watchdog where no device paces the blocks: a machine with other work may leave them
/// waiting for a second, and then they go on.
class SoakEngine : public QTovelMixer::Engine
{
public:
    SoakEngine(QTovelMixer::Api *api, QTovelMixerApiVirtual::Pacing pacing)
        : Engine(api), m_watched(pacing == QTovelMixerApiVirtual::Pacing::RealTime)
    {}
    int monitorTimerInverval() const override
    {
        return m_watched ? Engine::monitorTimerInverval() : 0;
    }

private:
    const bool m_watched;
};

/// A mixer with 32 sources of three rates and four sinks, operated at random.
class SoakSession
{
public:
    using Pacing = QTovelMixerApiVirtual::Pacing;
    static constexpr size_t sinkCount = 4;

    struct Setup
    {
        Pacing pacing = Pacing::RealTime;
        quint32 seed = 1;
        bool plantFault = false; ///< one chunk of one source comes a frame late
    };

    explicit SoakSession(const Setup &setup);

    /// Builds the first session. Errors: false, reported.
    bool begin();
    /// Does one operation. Errors: false, reported.
    bool operate();
    /// Stops everything. Errors: false, reported.
    bool end();

    /// What the mixer is doing, for whoever wonders why it does nothing.
    QString describe() const;
    /// Frames that the device has played.
    qint64 mixedFrames() const { return m_mixed; }

    Ledger ledger;
    CallbackTimes times;
    QMap<QString, qint64> operations; ///< by name
    quint64 lateBlocks = 0;
    qint64 worstDelay = 0; ///< nanoseconds
    quint64 droppedBlocks() const { return m_engine.droppedBlocks(); }

private:
    using Operation = bool (SoakSession::*)();

    bool build();
    void compose();
    bool addSource(int slot, bool playing);
    bool addSink(size_t index, bool playing);
    bool leave();

    bool changeRoute();
    bool changeGain();
    bool pauseAndResume();
    bool seek();
    bool startAgain();
    bool replaceSource();
    bool replaceSink();
    bool toggleLooping();
    bool changeMaster();
    bool rebuild();

    bool route(SoakSink *sink, int channel, const Expectation::Route &wanted);
    bool setCell(SoakSink *sink, int channel, int slot, float gain);
    double anyPosition();
    qint64 clock() const;
    int pick(int count) { return int(m_random() % unsigned(count)); }
    float anyGain();
    SoakSink *anySink();
    bool waitFor(const char *what, const std::function<bool()> &condition);
    bool failed(const char *what) const;

    const Setup m_setup;
    std::mt19937 m_random;
    std::atomic<qint64> m_mixed{0};
    QString m_stopped; ///< when the mixer has come to an end by itself
    std::array<QPointer<SoakSource>, sourceSlots> m_sources;
    std::array<QPointer<SoakSink>, sinkCount> m_sinks;
    QTovelMixerApiVirtual *m_api;
    SoakEngine m_engine;
};

#endif
