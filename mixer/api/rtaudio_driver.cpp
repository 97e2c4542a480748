// SPDX-License-Identifier: MIT
#include <mixer/api/rtaudio_driver_p.h>

#include <mixer/api/pulse_server_p.h>

#include <thread>
#include <utility>

namespace QTovelMixer {

namespace {

constexpr int pulseTimeout = 1000; // ms

RtAudioApis compiledApis()
{
    RtAudioApis apis;
    RtAudio::getCompiledApi(apis.list);
    return apis;
}

class RealDriver : public RtAudioDriver
{
public:
    RealDriver(RtAudio::Api api, RtAudioErrorCallback callback)
        : audio(api, [this, callback = std::move(callback)](RtAudioErrorType type,
                                                            const std::string &message) {
              if (std::this_thread::get_id() == user)
                  text = message;
              callback(type, message);
          })
    {}

    RtAudio::Api currentApi() override { return audio.getCurrentApi(); }
    std::optional<std::vector<unsigned>> deviceIds() override;
    RtAudio::DeviceInfo deviceInfo(unsigned id) override { return audio.getDeviceInfo(id); }
    RtAudioErrorType openStream(RtAudio::StreamParameters *output, RtAudio::StreamParameters *input,
                                unsigned rate, unsigned *frames, RtAudioCallback callback,
                                void *userData, RtAudio::StreamOptions *options) override
    {
        return audio.openStream(output, input, RTAUDIO_FLOAT32, rate, frames, callback, userData,
                                options);
    }
    RtAudioErrorType startStream() override { return audio.startStream(); }
    RtAudioErrorType abortStream() override { return audio.abortStream(); }
    void closeStream() override { audio.closeStream(); }
    bool isStreamOpen() const override { return audio.isStreamOpen(); }
    bool isStreamRunning() const override { return audio.isStreamRunning(); }
    long latency() override { return audio.getStreamLatency(); }
    std::string errorText() override { return text; }

private:
    // RtAudio's own text of the last error may be written by its audio thread at any time. A call
    // that fails tells its error on the thread that made it.
    const std::thread::id user = std::this_thread::get_id();
    std::string text;
    RtAudio audio;
};

// RtAudio 6.0.1 ends the process when it asks a PulseAudio server without a default sink for its
// devices, and blocks for half a minute on one that is stopped: the server is asked first.
std::optional<std::vector<unsigned>> RealDriver::deviceIds()
{
    if (currentApi() == RtAudio::LINUX_PULSE) {
        switch (pulseServerState(pulseTimeout)) {
        case PulseServerState::NoServer:
        case PulseServerState::NoDefaults:
            return std::vector<unsigned>();
        case PulseServerState::NoAnswer:
            return std::nullopt;
        case PulseServerState::Ready:
        case PulseServerState::Unknown:
            break;
        }
    }
    std::vector<unsigned> ids = audio.getDeviceIds();
    // A busy JACK server refuses a client now and then.
    if (ids.empty() && currentApi() == RtAudio::UNIX_JACK)
        ids = audio.getDeviceIds();
    return ids;
}

// RtAudio's own choice, the first interface that shows a device, through the guard above.
std::unique_ptr<RtAudioDriver> makeDriver(RtAudio::Api api, RtAudioErrorCallback callback)
{
    if (api != RtAudio::UNSPECIFIED)
        return std::make_unique<RealDriver>(api, std::move(callback));
    std::unique_ptr<RtAudioDriver> driver;
    for (RtAudio::Api compiled : compiledApis().list) {
        driver = std::make_unique<RealDriver>(compiled, callback);
        const auto ids = driver->deviceIds();
        if (ids && !ids->empty())
            break;
    }
    return driver;
}

} // namespace

RtAudioSystem realRtAudioSystem()
{
    return {compiledApis, makeDriver};
}

RtAudioSystem &rtAudioSystem()
{
    static RtAudioSystem system = realRtAudioSystem();
    return system;
}

} // namespace QTovelMixer
