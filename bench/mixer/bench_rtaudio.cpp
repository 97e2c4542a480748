// SPDX-License-Identifier: MIT
// What a block costs on its way through the backend for real devices, beside the engine's part.
#include <mixer/api/api_rtaudio.h>
#include <mixer/api/rtaudio_driver_p.h>
#include <mixer/engine.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>

#include <array>
#include <vector>

using namespace QTovelMixer;

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
            [] { return std::vector<RtAudio::Api>{RtAudio::UNIX_JACK}; },
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

void deviceBlock(benchmark::State &state)
{
    Hardware hardware;
    if (!hardware.ready)
        return state.SkipWithError("the stream does not open");
    BenchDriver *driver = BenchDriver::current;
    for (auto _ : state)
        driver->stream(hardware.output.data(), hardware.input.data(), blockFrames, 0.0, 0,
                       driver->data);
    state.SetItemsProcessed(state.iterations() * blockFrames);
}

void engineBlock(benchmark::State &state)
{
    Hardware hardware;
    if (!hardware.ready)
        return state.SkipWithError("the stream does not open");
    aligned_vector<float, 16> input(blockFrames * 2);
    aligned_vector<float, 16> output(blockFrames * 2);
    for (auto _ : state) {
        input.zero();
        output.zero();
        hardware.api->mixerCallback(input, output, blockFrames, 0.0, 4);
    }
    state.SetItemsProcessed(state.iterations() * blockFrames);
}

BENCHMARK(deviceBlock)->Name("callback/through_hardware_backend");
BENCHMARK(engineBlock)->Name("callback/same_block_engine_alone");

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
