// SPDX-License-Identifier: MIT
// The stream's callback, block by block.
#include <mixer/api/api_rtaudio_p.h>

#include "scripted_driver.h"

#include <base/trace_p.h>
#include <mixer/engine.h>
#include <mixer/engine_p.h>
#include <support/callback_watch.h>
#include <support/log_capture.h>
#include <support/rtguard.h>

#include <QtTest/QTest>

#include <numeric>
#include <thread>

using namespace QTovelMixer;

class tst_ApiRtAudioCallback : public QObject
{
    Q_OBJECT

private slots:
    void callback_returns2_withoutBackend();
    void callback_isSilent_whileClosing();
    void callback_isSilent_withoutVectors();
    void callback_isSilent_whenTheBlockIsLargerThanTheVectors();
    void callback_handsSamplesThrough_interleaved();
    void callback_zeroesTheInput_whenRtAudioGivesNone();
    void callback_isSilent_whenTheEngineLetsABlockPass();
    void callback_returns2_withoutEngine();
    void callback_countsWhatItSees();
    void callback_doesNothingForbidden();
};

namespace {

using HardwareApi = QTovelMixerApiRtAudio;

/// A backend whose engine has opened both devices, and whose stream runs.
struct Stream
{
    explicit Stream(unsigned frames = 16)
        : api(new HardwareApi(Alsa, QStringLiteral("Test"), {}, frames)), engine(api)
    {
        api->updateDeviceList();
        engine.activate();
        ready = engine.open(api->defaultDevice(DeviceKind::Output),
                            api->defaultDevice(DeviceKind::Input), 48000, true) &&
                api->isRunning();
    }

    LogCapture log;
    Script script;
    HardwareApi *api; ///< the engine's
    Engine engine;
    bool ready = false;
};

auto &data(const Stream &stream)
{
    return RtAudioAccess::data(*stream.api);
}

int callBack(const Stream &stream, float *output, float *input, unsigned frames,
             unsigned status = 0)
{
    return HardwareApi::MixerCallback(output, input, frames, 1.5, status, stream.api);
}

bool allZero(const std::vector<float> &samples)
{
    return std::all_of(samples.begin(), samples.end(), [](float sample) { return sample == 0.0f; });
}

QString traced(const Stream &stream, const QString &event)
{
    flushTrace();
    for (const QString &text : stream.log.texts()) {
        if (text.startsWith("[TOVEL_DEBUG_MIXER_CRASH_TRACE] " + event))
            return text;
    }
    return {};
}

} // namespace

void tst_ApiRtAudioCallback::callback_returns2_withoutBackend()
{
    float sample = 0.5f;
    QCOMPARE(HardwareApi::MixerCallback(&sample, nullptr, 1, 0.0, 0, nullptr), 2);
    QCOMPARE(sample, 0.5f);
}

void tst_ApiRtAudioCallback::callback_isSilent_whileClosing()
{
    Stream stream;
    QVERIFY(stream.ready);
    data(stream).closing = 1;
    std::vector<float> output(32, 0.5f);
    QCOMPARE(callBack(stream, output.data(), nullptr, 16), 2);
    QVERIFY(allZero(output));
    QCOMPARE(data(stream).callbacksInFlight.load(), 0);
    const QString line = traced(stream, "RtAudio::MixerCallback abort closing");
    QVERIFY2(line.contains(" api=0x") && line.contains(" frames=16 ") &&
                 line.contains(" streamTime=1.5 ") && line.endsWith(" callbacks=1"),
             qPrintable(line));
    data(stream).closing = 0;
}

void tst_ApiRtAudioCallback::callback_isSilent_withoutVectors()
{
    Stream stream;
    QVERIFY(stream.ready);
    auto *block = data(stream).outputBlock.exchange(nullptr);
    std::vector<float> output(32, 0.5f);
    QCOMPARE(callBack(stream, output.data(), nullptr, 16), 0);
    QVERIFY(allZero(output));
    QCOMPARE(data(stream).callbacksInFlight.load(), 0);
    const QString line = traced(stream, "RtAudio::MixerCallback null-vectors");
    QVERIFY2(line.contains(" api=0x") && line.contains(" inVector=0x") &&
                 line.contains(" outVector=0x0 ") && line.endsWith(" frames=16"),
             qPrintable(line));
    QCOMPARE(stream.api->streamStatus().droppedBlocks, 1u);
    data(stream).outputBlock = block;
}

void tst_ApiRtAudioCallback::callback_isSilent_whenTheBlockIsLargerThanTheVectors()
{
    // The least block that a device is asked for has 32 frames.
    Stream stream(32);
    QVERIFY(stream.ready);
    std::vector<float> output(66, 0.5f);
    std::vector<float> input(66, 0.25f);
    QCOMPARE(callBack(stream, output.data(), input.data(), 33), 0);
    QVERIFY(allZero(output));
    QCOMPARE(data(stream).callbacksInFlight.load(), 0);
    QCOMPARE(stream.log.count(QtWarningMsg,
                              "QTovelMixerApiRtAudio::MixerCallback: callback buffer size differs "
                              "from stream buffer size"),
             1);
    const QString line = traced(stream, "RtAudio::MixerCallback size-mismatch");
    QVERIFY2(line.contains(" inSize=64 outSize=64 expectedIn=66 expectedOut=66"), qPrintable(line));
    // On the thread that made the backend the warning is written at once.
    QCOMPARE(CallbackWatch::forgive() > 0, CallbackWatch::isOn());
}

void tst_ApiRtAudioCallback::callback_handsSamplesThrough_interleaved()
{
    Stream stream(32);
    QVERIFY(stream.ready);
    // The engine routes each input channel to the output of the same number.
    QVERIFY(EngineAccess::shipped(stream.engine).numInputChannels == 2);
    std::vector<float> input(64);
    std::iota(input.begin(), input.end(), 1.0f);
    std::vector<float> output(64, 0.5f);
    QCOMPARE(callBack(stream, output.data(), input.data(), 32), 0);
    const float *in = data(stream).inputBlock.load()->constData();
    for (int i = 0; i < 64; ++i)
        QCOMPARE(in[i], float(i + 1));
    const float *out = data(stream).outputBlock.load()->constData();
    for (int i = 0; i < 64; ++i)
        QCOMPARE(output[size_t(i)], out[i]);
}

void tst_ApiRtAudioCallback::callback_zeroesTheInput_whenRtAudioGivesNone()
{
    Stream stream(32);
    QVERIFY(stream.ready);
    std::vector<float> input(64, 1.0f);
    std::vector<float> output(64);
    QCOMPARE(callBack(stream, output.data(), input.data(), 32), 0);
    QCOMPARE(callBack(stream, output.data(), nullptr, 16), 0);
    const float *in = data(stream).inputBlock.load()->constData();
    for (int i = 0; i < 64; ++i)
        QCOMPARE(in[i], 0.0f);
    // No output buffer: the block is mixed, and goes nowhere.
    QCOMPARE(callBack(stream, nullptr, input.data(), 32), 0);
}

void tst_ApiRtAudioCallback::callback_isSilent_whenTheEngineLetsABlockPass()
{
    Stream stream(32);
    QVERIFY(stream.ready);
    *data(stream).outputBlock.load() = 0.75f; // what the block before left
    std::vector<float> output(64, 0.5f);
    {
        const QMutexLocker locker(&EngineAccess::shipped(stream.engine).updateLock);
        int answer = -1;
        std::thread audio([&] { answer = callBack(stream, output.data(), nullptr, 32); });
        audio.join();
        QCOMPARE(answer, 0);
    }
    QVERIFY(allZero(output));
    QCOMPARE(stream.api->streamStatus().droppedBlocks, 1u);
    QCOMPARE(stream.engine.droppedBlocks(), 1u);
}

void tst_ApiRtAudioCallback::callback_returns2_withoutEngine()
{
    const LogCapture log;
    Script script;
    HardwareApi api(Alsa, QStringLiteral("Test"), {}, 32);
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.open(api.defaultDevice(DeviceKind::Output), nullptr, 48000));
    std::vector<float> output(64, 0.5f);
    QCOMPARE(HardwareApi::MixerCallback(output.data(), nullptr, 32, 2.5, 0, &api), 2);
    QVERIFY(allZero(output));
    QCOMPARE(RtAudioAccess::data(api).callbacksInFlight.load(), 0);
    flushTrace();
    QVERIFY(log.contains("[TOVEL_DEBUG_MIXER_CRASH_TRACE] RtAudio::MixerCallback mixer requested "
                         "abort api=0x"));
    QVERIFY(log.contains(" frames=32 streamTime=2.5"));
}

void tst_ApiRtAudioCallback::callback_countsWhatItSees()
{
    Stream stream(32);
    QVERIFY(stream.ready);
    std::vector<float> output(64);
    for (unsigned status : {0u, 1u, 2u, 3u})
        QCOMPARE(callBack(stream, output.data(), nullptr, 32, status), 0);
    const HardwareApi::StreamStatus status = stream.api->streamStatus();
    QCOMPARE(status.blocks, 4u);
    QCOMPARE(status.overflows, 2u);
    QCOMPARE(status.underflows, 2u);
    QCOMPARE(status.droppedBlocks, 0u);
    QCOMPARE(status.inputLatency, 32u);
    QVERIFY(status.outputLatency >= 32u);
}

void tst_ApiRtAudioCallback::callback_doesNothingForbidden()
{
    Stream stream(32);
    QVERIFY(stream.ready);
    std::vector<float> output(128);
    std::vector<float> input(128);
    int violations = -1;
    QString first;
    std::thread audio([&] {
        Script::Driver *driver = stream.script.last;
        const auto run = [&](unsigned frames) {
            return driver->stream(output.data(), input.data(), frames, 0.0, 3, driver->streamData);
        };
        run(32);
        RealtimeGuard::resetTotal();
        RealtimeGuard guard;
        for (int i = 0; i < 1000; ++i)
            run(32);
        run(33); // warns
        data(stream).closing = 1;
        run(32); // traces
        data(stream).closing = 0;
        // Fails: eight blocks with a warning each.
        for (int i = 0; i < 10; ++i) {
            {
                const RealtimeGuardExemption text; // RtAudio's own
                stream.script.error(RTAUDIO_WARNING, "dead");
            }
            run(32);
        }
        guard.end();
        violations = guard.violations();
        first = RealtimeGuard::first();
    });
    audio.join();
    QVERIFY2(violations == 0, qPrintable(first));
}

QTEST_GUILESS_MAIN(tst_ApiRtAudioCallback)
#include "tst_api_rtaudio_callback.moc"
