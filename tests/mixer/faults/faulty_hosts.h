// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_FAULTS_FAULTY_HOSTS_H
#define QTOVELMIXER_TESTS_MIXER_FAULTS_FAULTY_HOSTS_H

#include <support/session.h>

#include <QtCore/QSemaphore>
#include <QtTest/QTest>

#include <stdexcept>

/// Milliseconds after which a test gives up: nothing may hang for longer.
constexpr int longest = 5000;

/// Holds a host up inside a call of the mixer's until the test lets it go on.
class Barrier
{
public:
    void close() { m_closed = true; }
    void open()
    {
        if (m_closed.exchange(false))
            m_gate.release();
    }
    /// For the host.
    void pass()
    {
        if (!m_closed)
            return;
        m_reached.release();
        m_gate.acquire();
    }
    bool waitUntilReached() { return m_reached.tryAcquire(1, longest); }

private:
    std::atomic<bool> m_closed{false};
    QSemaphore m_reached;
    QSemaphore m_gate;
};

/// A ramp whose host does what hosts should not.
class FaultySource : public RampSource
{
public:
    enum Fault { None, ThrowsException, ThrowsNumber, Answers };

    FaultySource(QTovelMixer::Engine *engine, double seconds)
        : RampSource(engine, 48000, 2, seconds)
    {}
    ~FaultySource() override
    {
        barrier.open();
        stop(QTovelMixer::NoReason);
        wait();
    }

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        barrier.pass();
        if (framesRead >= faultAfter) {
            switch (fault) {
            case None:
                break;
            case ThrowsException:
                throw std::runtime_error("disk gone");
            case ThrowsNumber:
                throw 7;
            case Answers:
                RampSource::readSamples(buffer, frames, channels, time);
                return answer;
            }
        }
        return RampSource::readSamples(buffer, frames, channels, time);
    }

    Barrier barrier;
    std::atomic<Fault> fault{None};
    std::atomic<qint64> faultAfter{0}; ///< frames
    std::atomic<int> answer{0};
};

/// A take whose host does what hosts should not.
class FaultySink : public TakeSink
{
public:
    enum Fault { None, ThrowsException, ThrowsNumber };

    FaultySink(QTovelMixer::Engine *engine, int channels, int rate = 48000)
        : TakeSink(engine, rate, channels)
    {}
    ~FaultySink() override
    {
        barrier.open();
        stop(QTovelMixer::NoReason);
        wait();
    }

    void writeSamples(float *buffer, int frames, int channels, double time) override
    {
        barrier.pass();
        if (fault == ThrowsException)
            throw std::runtime_error("disk full");
        if (fault == ThrowsNumber)
            throw 7;
        TakeSink::writeSamples(buffer, frames, channels, time);
    }

    Barrier barrier;
    std::atomic<Fault> fault{None};
};

/// Waits for a condition on any thread, without an event loop.
template <typename Condition>
bool waitUntil(Condition condition)
{
    const QDeadlineTimer deadline(longest);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

/// Everything that plays or records leaves, and a ramp then comes out frame by frame.
inline void playsAgain(Session &session)
{
    session.stopAll();
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 0, longest);
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSinks(), 0, longest);
    session.engine.activate();
    QCoreApplication::processEvents();
    session.checkAtRest();
    if (QTest::currentTestFailed())
        return;
    QVERIFY(session.addRamp(48000, 2.0));
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(100);
    QCOMPARE(heard.size(), size_t(100 * Session::blockFrames));
    for (size_t frame = 0; frame < heard.size(); ++frame)
        QCOMPARE(heard[frame], float(frame));
    session.stopAll();
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 0, longest);
    session.checkAtRest();
}

#endif
