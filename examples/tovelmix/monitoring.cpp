// SPDX-License-Identifier: MIT
#include <tovelmix/monitoring.h>

#include <mixer/io/sink.h>

#include <QtCore/QTimerEvent>

namespace tovelmix {

namespace {

constexpr float ringSeconds = 5.0f;

/// Takes what it is given and forgets it: a stream runs as long as somebody listens.
class Listener : public QTovelMixer::Sink
{
public:
    explicit Listener(QTovelMixer::Engine *engine)
        : Sink(engine, ringSeconds), m_rate(int(engine->sampleRate()))
    {}
    // The worker asks for what is gone after this destructor.
    ~Listener() override
    {
        stop(QTovelMixer::NoReason);
        wait();
    }
    int numChannels() const override { return 1; }
    int sampleRate() const override { return m_rate; }
    void writeSamples(float *, int, int, double) override {}

private:
    int m_rate;
};

} // namespace

Monitoring::Monitoring(const DeviceOptions &options, bool through)
    : LiveCommand(options, through ? BothSides : RecordingSide), m_through(through)
{}

bool Monitoring::prepare()
{
    m_clock.start();
    if (options().seconds > 0.0)
        m_endTimer.start(int(options().seconds * 1000.0), Qt::PreciseTimer, this);
    return true;
}

void Monitoring::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != m_endTimer.timerId()) {
        LiveCommand::timerEvent(event);
        return;
    }
    m_endTimer.stop();
    m_timeIsUp = true;
    interrupt();
}

bool Monitoring::attach()
{
    auto *listener = new Listener(&engine());
    if (!engine().addSink(listener)) {
        delete listener;
        return fail(Failed, "the mixer refuses to listen");
    }
    if (m_through)
        engine().setMonitoring(true);
    return engine().start() || fail(Failed, "the mixer does not start");
}

void Monitoring::onDetached(double) {}

bool Monitoring::isComplete() const
{
    return m_timeIsUp;
}

QString Monitoring::progress() const
{
    return QString("%1 %2 s")
        .arg(m_through ? "passing through for" : "listening for")
        .arg(seconds(), 0, 'f', 1);
}

QString Monitoring::place() const
{
    return QString("after %1 s").arg(seconds(), 0, 'f', 1);
}

} // namespace tovelmix
