// SPDX-License-Identifier: MIT
// A host that links the shared library and the packaged RtAudio of another version.
#include "another_rtaudio.h"

#include <QTovelMixer>
#include <mixer/api/rtaudio_device.h>
#include <support/sound_server.h>
#include <support/take_sink.h>

#include <QtTest/QTest>

#include <algorithm>
#include <cmath>

using QTovelMixer::DeviceKind;
using QTovelMixer::Engine;

namespace {

constexpr float ours = 0.5f;
constexpr float theirs = 0.25f;

class Constant : public QTovelMixer::Source
{
public:
    Constant(Engine *engine, int rate) : Source(engine, rate, 2, 5.0f) {}

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int channels, double) override
    {
        std::fill_n(buffer, size_t(frames) * size_t(channels), ours);
        return frames;
    }
};

} // namespace

class tst_RtAudioBesideAnother : public QObject
{
    Q_OBJECT

private slots:
    void both_play();
};

void tst_RtAudioBesideAnother::both_play()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    auto *api = new QTovelMixerApiRtAudio(QTovelMixer::Pulse, {}, 512);
    QVERIFY(api->updateDeviceList());
    auto *device = dynamic_cast<QTovelMixerRtAudioDevice *>(api->devices().constFirst());
    QVERIFY(device);
    const RtAudio::DeviceInfo record = device->info();
    QCOMPARE(QString::fromStdString(record.name), device->name());

    Engine engine(api);
    engine.activate();
    QVERIFY(api->isOpen());
    auto *source = new Constant(&engine, int(engine.sampleRate()));
    auto *take = new TakeSink(&engine, int(engine.sampleRate()), 2);
    QVERIFY(engine.addSource(source));
    QVERIFY(engine.addSink(take));
    QVERIFY(engine.start());

    AnotherRtAudio other(theirs, engine.sampleRate(), 2);
    QVERIFY(other.start());
    // The sink adds what both play, and its monitor hears it.
    const auto hears = [take](float value) {
        const std::vector<float> samples = take->samples();
        return std::count_if(samples.begin(), samples.end(), [value](float sample) {
                   return std::abs(sample - value) < 0.01f;
               }) > 4800;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hears(ours + theirs), 10000);
    QVERIFY(other.blocks() > 8);
    QVERIFY(api->streamStatus().blocks > 8);
    engine.deactivate();
    QTRY_VERIFY(!api->isOpen());
}

QTEST_GUILESS_MAIN(tst_RtAudioBesideAnother)
#include "tst_rtaudio_beside_another.moc"
