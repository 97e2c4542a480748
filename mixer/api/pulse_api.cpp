// SPDX-License-Identifier: MIT
// RtAudio's PulseAudio interface, on the client library's asynchronous one: it has no call that
// waits for the server for ever, and hears of its end by its own connection.
#include <mixer/api/pulse_api_p.h>

#include <mixer/api/pulse_devices_p.h>
#include <mixer/api/pulse_stream_p.h>

#include <memory>

namespace QTovelMixer {

namespace {

constexpr int listTimeout = 1000; // ms
constexpr int openTimeout = 1500; // ms, less than its callers wait

class PulseApi final : public RtApi, private PulseStreamUser
{
public:
    PulseApi() = default;
    ~PulseApi() override { PulseApi::closeStream(); }
    PulseApi(const PulseApi &) = delete;
    PulseApi &operator=(const PulseApi &) = delete;

    RtAudio::Api getCurrentApi() override { return RtAudio::LINUX_PULSE; }
    void closeStream() override;
    RtAudioErrorType startStream() override;
    RtAudioErrorType stopStream() override { return endStream(true); }
    RtAudioErrorType abortStream() override { return endStream(false); }

private:
    void probeDevices() override;
    bool probeDeviceOpen(unsigned id, StreamMode mode, unsigned channels, unsigned firstChannel,
                         unsigned rate, RtAudioFormat format, unsigned *frames,
                         RtAudio::StreamOptions *options) override;
    RtAudioErrorType endStream(bool drained);
    RtAudioErrorType fail(RtAudioErrorType type, const std::string &text)
    {
        errorText_ = "RtApiPulse: " + text;
        return error(type);
    }

    int streamBlock(float *output, float *input, unsigned frames, double time, bool inputLost,
                    bool outputDry) override;
    void streamBegun() override { stream_.state = STREAM_RUNNING; }
    void streamEnded() override { stream_.state = STREAM_STOPPED; }
    void streamLost(const std::string &text) override;

    std::vector<PulseDevice> m_devices;
    std::unique_ptr<PulseStream> m_stream;
};

void PulseApi::probeDevices()
{
    PulseDevices found = pulseDevices(listTimeout);
    if (!found.reason.empty()) {
        fail(RTAUDIO_WARNING, "cannot list the devices: " + found.reason);
        return;
    }
    numberDevices(found.devices, m_devices, currentDeviceId_);
    m_devices = std::move(found.devices);
    deviceList_.clear();
    for (const PulseDevice &device : m_devices)
        deviceList_.push_back(device.info);
}

bool PulseApi::probeDeviceOpen(unsigned id, StreamMode mode, unsigned channels,
                               unsigned firstChannel, unsigned rate, RtAudioFormat format,
                               unsigned *frames, RtAudio::StreamOptions *options)
{
    const auto refuse = [this](const std::string &text) {
        errorText_ = "RtApiPulse: " + text;
        m_stream.reset();
        clearStreamInfo();
        return false;
    };
    const PulseDevice *device = nullptr;
    for (const PulseDevice &each : m_devices) {
        if (each.info.ID == id)
            device = &each;
    }
    const unsigned flags = options ? options->flags : 0;
    if (!device || firstChannel != 0 || format != RTAUDIO_FLOAT32 || *frames == 0 ||
        (flags & RTAUDIO_NONINTERLEAVED) != 0)
        return refuse("the stream's parameters are not supported");
    if (!m_stream) {
        PulseStream::Format wanted;
        wanted.rate = rate;
        wanted.frames = *frames;
        wanted.buffers = options ? options->numberOfBuffers : 0;
        wanted.realtime = (flags & RTAUDIO_SCHEDULE_REALTIME) != 0;
        wanted.priority = options ? options->priority : 0;
        PulseStreamUser &self = *this;
        m_stream = std::make_unique<PulseStream>(self, wanted);
        const bool named = options && !options->streamName.empty();
        if (!m_stream->connect(named ? options->streamName : "RtAudio", openTimeout))
            return refuse("cannot connect: " + m_stream->reason());
        stream_.sampleRate = rate;
        stream_.bufferSize = *frames;
        stream_.nBuffers = wanted.buffers;
        stream_.userFormat = format;
    }
    const bool isOutput = mode == OUTPUT;
    if (!(isOutput ? m_stream->openOutput(device->sink, channels)
                   : m_stream->openInput(device->source, channels)))
        return refuse(std::string("cannot open the ") + (isOutput ? "output" : "input") + " \"" +
                      device->info.name + "\": " + m_stream->reason());
    stream_.mode = stream_.mode == UNINITIALIZED ? mode : DUPLEX;
    stream_.deviceId[mode] = id;
    stream_.nUserChannels[mode] = channels;
    stream_.nDeviceChannels[mode] = channels;
    return true;
}

void PulseApi::closeStream()
{
    m_stream.reset();
    clearStreamInfo();
}

RtAudioErrorType PulseApi::startStream()
{
    if (!m_stream || stream_.state != STREAM_STOPPED)
        return fail(RTAUDIO_WARNING,
                    m_stream ? "the stream is running already" : "the stream is closed");
    if (!m_stream->start())
        return fail(RTAUDIO_SYSTEM_ERROR, "cannot start: " + m_stream->reason());
    return RTAUDIO_NO_ERROR;
}

RtAudioErrorType PulseApi::endStream(bool drained)
{
    if (!m_stream || stream_.state != STREAM_RUNNING)
        return fail(RTAUDIO_WARNING, m_stream ? "the stream does not run" : "the stream is closed");
    m_stream->stop(drained);
    return RTAUDIO_NO_ERROR;
}

int PulseApi::streamBlock(float *output, float *input, unsigned frames, double time, bool inputLost,
                          bool outputDry)
{
    const auto callback = reinterpret_cast<RtAudioCallback>(stream_.callbackInfo.callback);
    const RtAudioStreamStatus status =
        (inputLost ? RTAUDIO_INPUT_OVERFLOW : 0u) | (outputDry ? RTAUDIO_OUTPUT_UNDERFLOW : 0u);
    return callback(output, input, frames, time, status, stream_.callbackInfo.userData);
}

// The text of the last error belongs to the thread that calls.
void PulseApi::streamLost(const std::string &text)
{
    if (stream_.state != STREAM_CLOSED && errorCallback_)
        errorCallback_(RTAUDIO_DEVICE_DISCONNECT, "RtApiPulse: the device is lost: " + text);
}

} // namespace

RtApi *makePulseApi()
{
    return new PulseApi;
}

} // namespace QTovelMixer
