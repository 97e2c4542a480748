// SPDX-License-Identifier: MIT
// The meters of a running engine: what reaches them, and what the engine tells them of the device.
#include <support/session.h>

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/peak_reading.h>

#include <QtTest/QTest>

#include <cmath>
#include <functional>
#include <numbers>

using namespace QTovelMixer;

namespace {

struct NamedDevice : TestDevice
{
    using TestDevice::TestDevice;

    QStringList channelNames(DeviceKind kind) const override
    {
        return kind == DeviceKind::Input ? inputNames : outputNames;
    }

    QStringList inputNames;
    QStringList outputNames;
};

/// Feeds a signal into the input of an engine as fast as its meter takes it.
class Feed
{
public:
    explicit Feed(Session &session) : m_session(session), m_meter(session.engine.inputMeter())
    {
        m_meter->start();
        m_session.engine.setStreaming(true);
    }

    /// `signal` gives each frame of the first channel; the others are silent.
    bool run(int frames, const std::function<double(int)> &signal)
    {
        const int channels = int(m_session.api->numInputChannels());
        for (int done = 0; done < frames; done += Session::blockFrames) {
            for (int i = 0; i < Session::blockFrames; ++i, ++m_fed)
                m_session.api->input[i * channels] = float(signal(done + i));
            m_session.api->runBlock();
            if (!waitFor(m_fed / 48000.0 - 0.4))
                return false;
        }
        // What is left is less than a measured block.
        return waitFor(m_fed / 48000.0 - 0.042);
    }

private:
    bool waitFor(double seconds)
    {
        return QTest::qWaitFor([&] {
            m_meter->getPeaks(m_peaks);
            return m_peaks.seconds > seconds;
        });
    }

    Session &m_session;
    Meter *m_meter;
    PeakReading m_peaks;
    qint64 m_fed = 0;
};

} // namespace

class tst_EngineMeters : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void layout_isTheDevices();
    void layout_isUnknown_withoutNames();
    void truePeak_aboveFullScale();
    void momentary_ofAShortTone();
};

void tst_EngineMeters::layout_isTheDevices()
{
    auto *api = new TestApi;
    Engine engine(api);
    auto *device = new NamedDevice(api);
    device->deviceName = device->fullDeviceName = "Desk";
    device->inputs = 2;
    device->outputs = 6;
    device->defaultInput = device->defaultOutput = true;
    device->inputNames = {"aux0", "aux1"};
    device->outputNames = {"front-left", "front-right",  "rear-left",
                           "rear-right", "front-center", "lfe"};
    api->beginDeviceUpdate();
    api->addDevice(device);
    api->endDeviceUpdate();
    engine.activate();
    QVERIFY(engine.outputMeter());
    QVERIFY(engine.inputMeter());
    const ChannelLayout layout = engine.outputMeter()->layout();
    QCOMPARE(layout.count(), 6);
    const double weights[] = {1.0, 1.0, 1.41, 1.41, 1.0, 0.0};
    for (int channel = 0; channel < 6; ++channel)
        QCOMPARE(layout.weight(channel), weights[channel]);
    QVERIFY(!engine.inputMeter()->layout().isKnown());
}

void tst_EngineMeters::layout_isUnknown_withoutNames()
{
    Session session(2, 6);
    QVERIFY(session.engine.outputMeter());
    QVERIFY(!session.engine.outputMeter()->layout().isKnown());
    QVERIFY(!session.engine.inputMeter()->layout().isKnown());
}

void tst_EngineMeters::truePeak_aboveFullScale()
{
    // EBU Tech 3341, signal 19: +3.0 dBTP, +0.2/-0.4 dB.
    Session session(2, 2);
    Meter *const meter = session.engine.inputMeter();
    meter->setTruePeakEnabled(true);
    Feed feed(session);
    QVERIFY(feed.run(24000, [](int frame) {
        const double fade = std::min(1.0, frame / 1000.0);
        return fade * 1.41 * std::sin(std::numbers::pi * (frame / 2.0 + 0.25));
    }));
    PeakReading peaks;
    meter->getPeaks(peaks);
    const double decibels = PeakReading::decibels(peaks.channels.at(0).truePeakHoldLevel);
    QVERIFY2(decibels <= 3.2 && decibels >= 2.6, qPrintable(QString::number(decibels)));
    QVERIFY(std::abs(PeakReading::decibels(peaks.channels.at(0).maxTruePeak) - decibels) < 0.01);
    QCOMPARE(peaks.channels.at(1).maxTruePeak, 0.0);
}

void tst_EngineMeters::momentary_ofAShortTone()
{
    // EBU Tech 3341, signal 13, off the beat of blocks and hops; in one channel, 3.01 LU less.
    Session session(2, 2);
    Meter *const meter = session.engine.inputMeter();
    meter->startMeasurement();
    Feed feed(session);
    constexpr int begin = 4801;
    QVERIFY(feed.run(48000, [](int frame) {
        const bool isOn = frame >= begin && frame < begin + 19200;
        return isOn ? std::pow(10.0, -20.0 / 20.0) * std::sin(2.0 * std::numbers::pi * frame / 48.0)
                    : 0.0;
    }));
    const LoudnessReading reading = meter->loudness();
    QVERIFY2(std::abs(reading.maxMomentary + 23.01) <= 0.06,
             qPrintable(QString::number(reading.maxMomentary)));
    QVERIFY(std::abs(reading.maxMomentaryTime - (begin + 19200) / 48000.0) <= 0.01);
}

QTEST_GUILESS_MAIN(tst_EngineMeters)
#include "tst_engine_meters.moc"
