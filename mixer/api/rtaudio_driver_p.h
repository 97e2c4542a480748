// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_RTAUDIO_DRIVER_P_H
#define QTOVELMIXER_MIXER_API_RTAUDIO_DRIVER_P_H

#include <mixer/api/rtaudio_device.h> // and with it, the types of RtAudio

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace QTovelMixer {

/// What the backend uses of RtAudio, so that tests can stand in for what no server here does.
/// Every operation may block as long as the sound server likes, and may throw.
/// Threads: the control thread of its instance; `isStreamOpen` and `isStreamRunning`: any.
class RtAudioDriver
{
public:
    virtual ~RtAudioDriver() = default;

    virtual RtAudio::Api currentApi() = 0;
    /// Nothing when the server does not answer.
    virtual std::optional<std::vector<unsigned>> deviceIds() = 0;
    virtual RtAudio::DeviceInfo deviceInfo(unsigned id) = 0;
    virtual RtAudioErrorType openStream(RtAudio::StreamParameters *output,
                                        RtAudio::StreamParameters *input, unsigned rate,
                                        unsigned *frames, RtAudioCallback callback, void *userData,
                                        RtAudio::StreamOptions *options) = 0;
    virtual RtAudioErrorType startStream() = 0;
    virtual RtAudioErrorType abortStream() = 0;
    virtual void closeStream() = 0;
    virtual bool isStreamOpen() const = 0;
    virtual bool isStreamRunning() const = 0;
    /// Frames, input and output together; 0 where the interface does not tell.
    virtual long latency() = 0;
    /// Of the last call that failed.
    virtual std::string errorText() = 0;
};

/// The interfaces that RtAudio was compiled with, in its order. A type of the library's own: the
/// signature of a function that hands over RtAudio's would show its names.
struct RtAudioApis
{
    std::vector<RtAudio::Api> list;
};

/// Where drivers come from. Tests put their own functions here before they make a backend.
struct RtAudioSystem
{
    std::function<RtAudioApis()> compiledApis;
    std::function<std::unique_ptr<RtAudioDriver>(RtAudio::Api, RtAudioErrorCallback)> makeDriver;
};

RtAudioSystem &rtAudioSystem();
/// What `rtAudioSystem` holds at first: RtAudio itself.
RtAudioSystem realRtAudioSystem();

} // namespace QTovelMixer

#endif
