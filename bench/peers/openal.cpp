// SPDX-License-Identifier: MIT
#include "peers/openal.h"

#ifdef QTOVELMIXER_BENCH_OPENAL

#include <AL/al.h>
#include <AL/alc.h>
#include <AL/alext.h>

namespace Bench {

namespace {

template <class Function>
Function address(const char *name)
{
    return reinterpret_cast<Function>(alcGetProcAddress(nullptr, name));
}

struct Loopback final : OpenAlMixer
{
    ALCdevice *device = nullptr;
    ALCcontext *context = nullptr;
    std::vector<ALuint> sources;
    std::vector<ALuint> buffers;
    std::vector<float> out;
    LPALCRENDERSAMPLESSOFT render = nullptr;

    Loopback(const std::vector<const float *> &clips, unsigned clipFrames, unsigned frames)
        : sources(clips.size()), buffers(clips.size()), out(size_t(frames) * 2)
    {
        const auto open = address<LPALCLOOPBACKOPENDEVICESOFT>("alcLoopbackOpenDeviceSOFT");
        render = address<LPALCRENDERSAMPLESSOFT>("alcRenderSamplesSOFT");
        device = open ? open(nullptr) : nullptr;
        const ALCint attributes[] = {ALC_FORMAT_CHANNELS_SOFT,
                                     ALC_STEREO_SOFT,
                                     ALC_FORMAT_TYPE_SOFT,
                                     ALC_FLOAT_SOFT,
                                     ALC_FREQUENCY,
                                     48000,
                                     0};
        context = device ? alcCreateContext(device, attributes) : nullptr;
        if (!context || !alcMakeContextCurrent(context))
            return;
        alGenBuffers(ALsizei(buffers.size()), buffers.data());
        alGenSources(ALsizei(sources.size()), sources.data());
        for (size_t i = 0; i < clips.size(); ++i) {
            alBufferData(buffers[i], AL_FORMAT_STEREO_FLOAT32, clips[i],
                         ALsizei(clipFrames * 2 * sizeof(float)), 48000);
            alSourcei(sources[i], AL_BUFFER, ALint(buffers[i]));
            alSourcei(sources[i], AL_LOOPING, AL_TRUE);
            alSourcei(sources[i], AL_DIRECT_CHANNELS_SOFT, AL_TRUE);
            alSourcef(sources[i], AL_GAIN, 0.25f);
        }
        alSourcePlayv(ALsizei(sources.size()), sources.data());
    }
    ~Loopback() override
    {
        if (context) {
            alDeleteSources(ALsizei(sources.size()), sources.data());
            alDeleteBuffers(ALsizei(buffers.size()), buffers.data());
            alcMakeContextCurrent(nullptr);
            alcDestroyContext(context);
        }
        if (device)
            alcCloseDevice(device);
    }
    Loopback(const Loopback &) = delete;
    Loopback &operator=(const Loopback &) = delete;

    void block() override { render(device, out.data(), ALCsizei(out.size() / 2)); }

    /// All of them sound.
    bool plays()
    {
        if (!context || !render)
            return false;
        block();
        ALint playing = 0;
        for (const ALuint source : sources) {
            ALint state = 0;
            alGetSourcei(source, AL_SOURCE_STATE, &state);
            playing += state == AL_PLAYING;
        }
        return size_t(playing) == sources.size() && alGetError() == AL_NO_ERROR;
    }
};

} // namespace

std::unique_ptr<OpenAlMixer> OpenAlMixer::create(const std::vector<const float *> &clips,
                                                 unsigned clipFrames, unsigned frames)
{
    auto mixer = std::make_unique<Loopback>(clips, clipFrames, frames);
    return mixer->plays() ? std::move(mixer) : nullptr;
}

} // namespace Bench

#else

namespace Bench {

std::unique_ptr<OpenAlMixer> OpenAlMixer::create(const std::vector<const float *> &, unsigned,
                                                 unsigned)
{
    return nullptr;
}

} // namespace Bench

#endif
