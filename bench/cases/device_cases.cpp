// SPDX-License-Identifier: MIT
// What a block costs on its way through the backend for real devices, beside the engine's part.
#include "cases/cases.h"

#ifdef QTOVELMIXER_WITH_RTAUDIO

#include <mixer/api/api_rtaudio.h>
#include <mixer/api/rtaudio_driver_p.h>
#include <mixer/engine.h>

#include <memory>
#include <vector>

using namespace QTovelMixer;

namespace Bench {

namespace {

constexpr unsigned blockFrames = 256;

/// One stereo device whose blocks the benchmark asks for. JACK's interface, which may run faster
/// than real time.
class BenchDriver final : public RtAudioDriver
{
public:
    BenchDriver() { current = this; }

    RtAudio::Api currentApi() override { return RtAudio::UNIX_JACK; }
    std::optional<std::vector<unsigned>> deviceIds() override { return std::vector<unsigned>{129}; }
    RtAudio::DeviceInfo deviceInfo(unsigned id) override
    {
        RtAudio::DeviceInfo info;
        info.ID = id;
        info.name = "bench";
        info.outputChannels = 2;
        info.inputChannels = 2;
        info.isDefaultOutput = true;
        info.sampleRates = {48000};
        info.preferredSampleRate = 48000;
        return info;
    }
    RtAudioErrorType openStream(RtAudio::StreamParameters *, RtAudio::StreamParameters *, unsigned,
                                unsigned *, RtAudioCallback callback, void *userData,
                                RtAudio::StreamOptions *) override
    {
        stream = callback;
        data = userData;
        open = true;
        return RTAUDIO_NO_ERROR;
    }
    RtAudioErrorType startStream() override
    {
        running = true;
        return RTAUDIO_NO_ERROR;
    }
    RtAudioErrorType abortStream() override
    {
        running = false;
        return RTAUDIO_NO_ERROR;
    }
    void closeStream() override { open = running = false; }
    bool isStreamOpen() const override { return open; }
    bool isStreamRunning() const override { return running; }
    long latency() override { return 0; }
    std::string errorText() override { return {}; }

    static inline BenchDriver *current = nullptr;
    std::atomic<bool> open{false};
    std::atomic<bool> running{false};
    RtAudioCallback stream = nullptr;
    void *data = nullptr;
};

struct Hardware
{
    Hardware()
    {
        rtAudioSystem() = {
            [] { return RtAudioApis{{RtAudio::UNIX_JACK}}; },
            [](RtAudio::Api, RtAudioErrorCallback) { return std::make_unique<BenchDriver>(); }};
        api = new QTovelMixerApiRtAudio(Jack, {}, blockFrames);
        engine = std::make_unique<Engine>(api);
        api->updateDeviceList();
        engine->activate();
        Device *device = api->defaultDevice(DeviceKind::Output);
        ready = engine->open(device, device, 48000, true);
        input.assign(blockFrames * 2, 0.25f);
        output.assign(blockFrames * 2, 0.0f);
    }
    ~Hardware()
    {
        engine.reset();
        rtAudioSystem() = realRtAudioSystem();
    }

    QTovelMixerApiRtAudio *api = nullptr; // the engine's
    std::unique_ptr<Engine> engine;
    std::vector<float> input;
    std::vector<float> output;
    bool ready = false;
};

Case throughDevice()
{
    const auto hardware = std::make_shared<Hardware>();
    Case result(QStringLiteral("F. Callback"),
                QStringLiteral("no sources, stereo in and out, through the hardware backend"));
    if (!hardware->ready)
        return result;
    result.ours([hardware] {
        BenchDriver *const driver = BenchDriver::current;
        driver->stream(hardware->output.data(), hardware->input.data(), blockFrames, 0.0, 0,
                       driver->data);
    });
    const auto input = std::make_shared<aligned_vector<float, 16>>(blockFrames * 2);
    const auto output = std::make_shared<aligned_vector<float, 16>>(blockFrames * 2);
    return result.add(QStringLiteral("the engine alone"), [hardware, input, output] {
        input->zero();
        output->zero();
        hardware->api->mixerCallback(*input, *output, blockFrames, 0.0, 4);
    });
}

} // namespace

void addDeviceCases(Suite &suite)
{
    suite.add(QStringLiteral("F. Callback"), throughDevice);
}

} // namespace Bench

#else

namespace Bench {

void addDeviceCases(Suite &) {}

} // namespace Bench

#endif
