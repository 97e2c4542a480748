// SPDX-License-Identifier: MIT
#include "session.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QTimer>

#include <algorithm>
#include <cstdio>

using namespace QTovelMixer;

namespace {

constexpr int hangMilliseconds = 20000;
constexpr qint64 patienceFrames = qint64{4} * Material::mixerRate;

// All on the grid, so that sources of every rate come in on a frame of their own.
unsigned blockFrames(SoakSession::Pacing pacing, quint32 seed)
{
    constexpr std::array<unsigned, 4> small = {160, 320, 480, 960};
    constexpr std::array<unsigned, 4> large = {480, 960, 1600, 3840};
    return (pacing == SoakSession::Pacing::RealTime ? small : large)[seed % 4];
}

} // namespace

// Callback times --------------------------------------------------------------------------------

void CallbackTimes::end()
{
    const auto spent = std::chrono::steady_clock::now() - m_begin;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(spent).count();
    ++m_counts[std::min(size_t(us), m_counts.size() - 1)];
}

qint64 CallbackTimes::worst() const
{
    const auto last =
        std::find_if(m_counts.rbegin(), m_counts.rend(), [](qint64 count) { return count > 0; });
    return std::max<qint64>(0, m_counts.rend() - last - 1);
}

qint64 CallbackTimes::percentile(double p) const
{
    qint64 all = 0;
    for (const qint64 count : m_counts)
        all += count;
    qint64 sum = 0;
    for (size_t us = 0; us < m_counts.size(); ++us) {
        sum += m_counts[us];
        if (double(sum) >= double(all) * p / 100.0)
            return qint64(us);
    }
    return 0;
}

// The session -----------------------------------------------------------------------------------

SoakSession::SoakSession(const Setup &setup)
    : m_setup(setup), m_random(setup.seed),
      m_api(new QTovelMixerApiVirtual(setup.pacing, blockFrames(setup.pacing, setup.seed))),
      m_engine(m_api, setup.pacing)
{
    ledger.patience = setup.pacing == Pacing::RealTime ? patienceFrames : 0;
    m_api->plug({.name = QStringLiteral("Soak"),
                 .inputChannels = 2,
                 .outputChannels = 2,
                 .sampleRates = {unsigned(Material::mixerRate)}});
    m_api->setGenerator([this](float *, unsigned, unsigned, quint64) { times.begin(); });
    m_api->setOutputHandler([this](const float *, unsigned frames, unsigned, quint64) {
        times.end();
        m_mixed += frames;
    });
    m_api->updateDeviceList();
    QObject::connect(&m_engine, &Engine::stopped, &m_engine, [this](StopReason reason) {
        m_stopped = QStringLiteral(", stopped for reason %1").arg(int(reason));
    });
    QObject::connect(&m_engine, &Engine::started, &m_engine, [this] { m_stopped.clear(); });
}

QString SoakSession::describe() const
{
    qint64 buffered = std::numeric_limits<qint64>::max();
    qint64 room = std::numeric_limits<qint64>::max();
    for (const QPointer<SoakSource> &source : m_sources)
        buffered = std::min(buffered, source ? source->bufferedFrames() : -1);
    for (const QPointer<SoakSink> &sink : m_sinks)
        room = std::min(room, sink ? sink->freeFrames() : -1);
    return QStringLiteral("%1 sources (least buffered %2), %3 sinks (least room %4), running %5, "
                          "paused %6, clock %7, after \"%8\"%9")
        .arg(m_engine.numActiveSources())
        .arg(buffered)
        .arg(m_engine.numActiveSinks())
        .arg(room)
        .arg(m_engine.isRunning())
        .arg(m_engine.isPaused())
        .arg(clock())
        .arg(QLatin1String(ledger.operation.load()), m_stopped);
}

bool SoakSession::failed(const char *what) const
{
    std::fprintf(stderr, "failed: %s\n", what);
    return false;
}

bool SoakSession::waitFor(const char *what, const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(hangMilliseconds);
    QTimer waker;
    waker.start(1);
    while (!condition()) {
        if (deadline.hasExpired())
            return failed(what);
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

qint64 SoakSession::clock() const
{
    return std::llround(m_engine.time() * Material::mixerRate);
}

bool SoakSession::begin()
{
    m_engine.activate();
    m_engine.setPauseMode(PauseSoft);
    return m_engine.isActive() && m_engine.canPlayback() ? build() : failed("activate");
}

bool SoakSession::end()
{
    return leave();
}

/// One stretch, or some with gaps between; in a loop short ones, so that there are many jumps.
void SoakSession::compose()
{
    const bool looping = pick(2) != 0;
    const int count = 1 + pick(3);
    const qint64 most = looping ? 10 * Material::mixerRate : Material::length / 4;
    const qint64 least = looping ? Material::mixerRate : Material::length / 5;
    ledger.score.looping = looping;
    ledger.score.stretches.clear();
    qint64 frame = 0;
    for (int i = 0; i < count; ++i) {
        frame += pick(Material::mixerRate) / Material::grid * Material::grid;
        const qint64 length = (least + pick(int(most - least))) / Material::grid * Material::grid;
        ledger.score.stretches.push_back({frame, frame + length});
        frame += length + Material::grid;
    }
}

bool SoakSession::build()
{
    compose();
    m_engine.setLooping(ledger.score.looping);
    for (int slot = 0; slot < sourceSlots; ++slot) {
        if (!addSource(slot, false))
            return false;
    }
    const auto seconds = [](qint64 frame) { return double(frame) / Material::mixerRate; };
    const auto &stretches = ledger.score.stretches;
    m_engine.setLimits(seconds(stretches.front().begin), seconds(stretches.back().end));
    for (const Score::Stretch &stretch : stretches) {
        if (stretches.size() > 1)
            m_engine.addSelection(seconds(stretch.begin), seconds(stretch.end));
    }
    for (size_t index = 0; index < sinkCount; ++index) {
        if (!addSink(index, false))
            return false;
    }
    for (const QPointer<SoakSink> &sink : m_sinks) {
        for (int channel = 0; channel < SoakSink::channels; ++channel) {
            if (!route(sink, channel, {pick(sourceSlots), anyGain()}))
                return false;
        }
    }
    if (m_setup.plantFault) {
        const int slot = m_sinks[0]->expected(0).route().source;
        m_sources[size_t(slot)]->faultAfterChunks = 20;
    }
    return m_engine.start(anyPosition()) || failed("start");
}

/// Stops all, and waits until all are gone.
bool SoakSession::leave()
{
    // The sources end first, the sinks then record silence until they end.
    for (const QPointer<SoakSink> &sink : m_sinks) {
        for (int channel = 0; channel < SoakSink::channels; ++channel)
            sink->expected(channel).announce({}, clock());
    }
    m_engine.stop(true, UserStopAction);
    if (!waitFor("everything stops", [this] {
            return m_engine.numActiveSources() + m_engine.numActiveSinks() == 0 &&
                   !m_api->isRunning();
        }))
        return false;
    const QTovelMixerApiVirtual::Statistics statistics = m_api->statistics();
    lateBlocks += statistics.lateBlocks;
    worstDelay = std::max(worstDelay, statistics.worstDelay);
    return true;
}

bool SoakSession::addSource(int slot, bool playing)
{
    auto *source = new SoakSource(&m_engine, slot, ledger);
    m_sources[size_t(slot)] = source;
    if (playing)
        return m_engine.play(source, 0.0f) || failed("play");
    if (m_engine.addSource(source, 0.0f))
        return true;
    delete source;
    return failed("addSource");
}

bool SoakSession::addSink(size_t index, bool playing)
{
    auto *sink = new SoakSink(&m_engine, ledger);
    m_sinks[index] = sink;
    if (!m_engine.addSink(sink)) {
        delete sink;
        return failed("addSink");
    }
    if (playing) {
        sink->setTime(m_engine.time());
        sink->start();
    }
    return true;
}

// Operations ------------------------------------------------------------------------------------

bool SoakSession::operate()
{
    struct Choice
    {
        const char *name;
        int weight;
        Operation operation;
    };
    static constexpr Choice choices[] = {
        {"route", 440, &SoakSession::changeRoute},
        {"gain", 300, &SoakSession::changeGain},
        {"pause and resume", 80, &SoakSession::pauseAndResume},
        {"seek", 50, &SoakSession::seek},
        {"start again", 10, &SoakSession::startAgain},
        {"replace a source", 40, &SoakSession::replaceSource},
        {"replace a sink", 30, &SoakSession::replaceSink},
        {"loop off and on", 10, &SoakSession::toggleLooping},
        {"master gain", 36, &SoakSession::changeMaster},
        {"new session", 4, &SoakSession::rebuild},
    };
    // What does not loop must not come to its end.
    const bool nearTheEnd =
        !ledger.score.looping && clock() > ledger.score.length() - qint64{60} * Material::mixerRate;
    int number = pick(1000);
    const Choice *choice = choices;
    while (number >= choice->weight)
        number -= choice++->weight;
    if (nearTheEnd)
        choice = &choices[3];
    ledger.operation = choice->name;
    ++operations[QString::fromLatin1(choice->name)];
    return (this->*choice->operation)();
}

float SoakSession::anyGain()
{
    return std::ldexp(1.0f, pick(4) - 2);
}

SoakSink *SoakSession::anySink()
{
    return m_sinks[size_t(pick(int(sinkCount)))];
}

/// A place in the material, not in the last minute of what does not loop.
double SoakSession::anyPosition()
{
    const qint64 length = ledger.score.length();
    const qint64 most = ledger.score.looping ? length : length - qint64{120} * Material::mixerRate;
    const qint64 frame = qint64(m_random()) % most / Material::grid * Material::grid;
    return double(ledger.score.placeAt(frame).frame) / Material::mixerRate;
}

bool SoakSession::setCell(SoakSink *sink, int channel, int slot, float gain)
{
    return m_engine.setGain(m_sources[size_t(slot)], 0, sink, channel, gain) || failed("setGain");
}

/// One source at a time: two would add up.
bool SoakSession::route(SoakSink *sink, int channel, const Expectation::Route &wanted)
{
    Expectation &expected = sink->expected(channel);
    const Expectation::Route before = expected.route();
    if (before.source >= 0 && before.source != wanted.source) {
        expected.announce({}, clock());
        if (!setCell(sink, channel, before.source, 0.0f))
            return false;
        expected.confirm(clock());
    }
    if (wanted.source >= 0) {
        expected.announce(wanted, clock());
        if (!setCell(sink, channel, wanted.source, wanted.gain))
            return false;
        expected.confirm(clock());
    }
    return true;
}

bool SoakSession::changeRoute()
{
    const int channel = pick(SoakSink::channels);
    const int source = pick(10) == 0 ? -1 : pick(sourceSlots);
    return route(anySink(), channel, {source, anyGain()});
}

bool SoakSession::changeGain()
{
    SoakSink *sink = anySink();
    const int channel = pick(SoakSink::channels);
    const Expectation::Route before = sink->expected(channel).route();
    return route(sink, channel, {before.source, anyGain()});
}

bool SoakSession::pauseAndResume()
{
    if (!m_engine.pause())
        return failed("pause");
    // The clock stands still: routes that change now change between two frames.
    return changeRoute() && (m_engine.resume() || failed("resume"));
}

bool SoakSession::seek()
{
    m_engine.setTime(anyPosition());
    return true;
}

bool SoakSession::startAgain()
{
    return m_engine.start(anyPosition()) || failed("start again");
}

bool SoakSession::replaceSource()
{
    const int slot = pick(sourceSlots);
    for (const QPointer<SoakSink> &sink : m_sinks) {
        for (int channel = 0; channel < SoakSink::channels; ++channel) {
            if (sink->expected(channel).route().source == slot && !route(sink, channel, {}))
                return false;
        }
    }
    const QPointer<SoakSource> leaving = m_sources[size_t(slot)];
    m_engine.stop(leaving, false, UserStopAction);
    return waitFor("a source leaves", [&] { return leaving.isNull(); }) && addSource(slot, true);
}

bool SoakSession::replaceSink()
{
    const size_t index = size_t(pick(int(sinkCount)));
    const QPointer<SoakSink> leaving = m_sinks[index];
    leaving->stop(UserStopAction);
    if (!waitFor("a sink leaves", [&] { return leaving.isNull(); }) || !addSink(index, true))
        return false;
    for (int channel = 0; channel < SoakSink::channels; ++channel) {
        if (!route(m_sinks[index], channel, {pick(sourceSlots), anyGain()}))
            return false;
    }
    return true;
}

/// What lies beyond the end of the pass is withdrawn and read again.
bool SoakSession::toggleLooping()
{
    if (!ledger.score.looping)
        return seek();
    if (!m_engine.pause())
        return failed("pause");
    m_engine.setLooping(false);
    m_engine.setLooping(true);
    // The clock may count from another pass on: what follows is expected from a new beginning.
    const bool sought = seek();
    return sought && (m_engine.resume() || failed("resume"));
}

bool SoakSession::changeMaster()
{
    m_engine.setMasterOutputGain(anyGain());
    return true;
}

bool SoakSession::rebuild()
{
    return leave() && build();
}
