// SPDX-License-Identifier: MIT
// The sound systems through RtAudio.
#include <tovelmix/hardware.h>

#include <mixer/api/api_rtaudio.h>

namespace tovelmix {

QStringList hardwareBackends()
{
    return QTovelMixerApiRtAudio::getAvailableBackends();
}

std::unique_ptr<QTovelMixer::Api> createHardware(const DeviceOptions &options)
{
    using RtAudioApi = QTovelMixerApiRtAudio;
    auto api = std::make_unique<RtAudioApi>(options.backend, "tovelmix", RtAudioApi::Options(),
                                            options.bufferFrames);
    if (api->backend() == QTovelMixer::NoBackend)
        return nullptr;
    return api;
}

qint64 hardwareLatency(const QTovelMixer::Api &api)
{
    const auto *stream = dynamic_cast<const QTovelMixerApiRtAudio *>(&api);
    return stream ? qint64(stream->streamStatus().outputLatency) : 0;
}

} // namespace tovelmix
