// SPDX-License-Identifier: MIT
#include "peers/miniaudio.h"

#ifdef QTOVELMIXER_BENCH_MINIAUDIO

#define MA_NO_DEVICE_IO
#define MA_NO_GENERATION
#define MINIAUDIO_IMPLEMENTATION
#include QTOVELMIXER_BENCH_MINIAUDIO

#include <cmath>

namespace Bench {

namespace {

class Mixer final : public MiniaudioMixer
{
public:
    Mixer(const std::vector<const float *> &clips, unsigned clipFrames, unsigned channels,
          unsigned frames, float volume)
        : m_buffers(clips.size()), m_sounds(clips.size()), m_out(size_t(frames) * 2),
          m_frames(frames)
    {
        ma_engine_config config = ma_engine_config_init();
        config.noDevice = MA_TRUE;
        config.channels = 2;
        config.sampleRate = 48000;
        config.periodSizeInFrames = frames;
        m_made = ma_engine_init(&config, &m_engine) == MA_SUCCESS;
        for (; m_made && m_soundCount < clips.size(); ++m_soundCount)
            m_made = play(clips[m_soundCount], clipFrames, channels, volume);
    }
    ~Mixer() override
    {
        for (size_t i = 0; i < m_soundCount; ++i)
            ma_sound_uninit(&m_sounds[i]);
        ma_engine_uninit(&m_engine);
    }

    void block() override { ma_engine_read_pcm_frames(&m_engine, m_out.data(), m_frames, nullptr); }

    bool plays()
    {
        if (!m_made)
            return false;
        block();
        for (const ma_sound &sound : m_sounds) {
            if (!ma_sound_is_playing(&sound))
                return false;
        }
        float peak = 0.0f;
        for (const float sample : m_out)
            peak = std::fmax(peak, std::fabs(sample));
        return peak > 0.0f;
    }

private:
    bool play(const float *clip, unsigned clipFrames, unsigned channels, float volume)
    {
        ma_audio_buffer_ref &buffer = m_buffers[m_soundCount];
        ma_sound &sound = m_sounds[m_soundCount];
        const ma_uint32 plainly = MA_SOUND_FLAG_NO_PITCH | MA_SOUND_FLAG_NO_SPATIALIZATION;
        if (ma_audio_buffer_ref_init(ma_format_f32, channels, clip, clipFrames, &buffer) !=
            MA_SUCCESS)
            return false;
        buffer.sampleRate = 48000;
        if (ma_sound_init_from_data_source(&m_engine, &buffer, plainly, nullptr, &sound) !=
            MA_SUCCESS)
            return false;
        ma_sound_set_looping(&sound, MA_TRUE);
        ma_sound_set_volume(&sound, volume);
        return ma_sound_start(&sound) == MA_SUCCESS;
    }

    ma_engine m_engine{};
    std::vector<ma_audio_buffer_ref> m_buffers;
    std::vector<ma_sound> m_sounds;
    size_t m_soundCount = 0;
    std::vector<float> m_out;
    unsigned m_frames;
    bool m_made = false;
};

class Decoder final : public MiniaudioDecoder
{
public:
    explicit Decoder(const std::vector<char> &wav)
    {
        const ma_decoder_config config = ma_decoder_config_init(ma_format_f32, 2, 48000);
        isValid = ma_decoder_init_memory(wav.data(), wav.size(), &config, &m_decoder) == MA_SUCCESS;
    }
    ~Decoder() override
    {
        if (isValid)
            ma_decoder_uninit(&m_decoder);
    }

    void read(float *frames, unsigned count) override
    {
        while (count > 0) {
            ma_uint64 some = 0;
            ma_decoder_read_pcm_frames(&m_decoder, frames, count, &some);
            frames += some * 2;
            count -= unsigned(some);
            if (count > 0 && ma_decoder_seek_to_pcm_frame(&m_decoder, 0) != MA_SUCCESS)
                return;
        }
    }

    bool isValid = false;

private:
    ma_decoder m_decoder{};
};

} // namespace

std::unique_ptr<MiniaudioMixer> MiniaudioMixer::create(const std::vector<const float *> &clips,
                                                       unsigned clipFrames, unsigned channels,
                                                       unsigned frames, float volume)
{
    auto mixer = std::make_unique<Mixer>(clips, clipFrames, channels, frames, volume);
    return mixer->plays() ? std::move(mixer) : nullptr;
}

std::unique_ptr<MiniaudioDecoder> MiniaudioDecoder::create(const std::vector<char> &wav)
{
    auto decoder = std::make_unique<Decoder>(wav);
    return decoder->isValid ? std::move(decoder) : nullptr;
}

ConvertShorts miniaudioToFloat()
{
    return [](float *out, const short *in, unsigned long count) {
        ma_pcm_s16_to_f32(out, in, count, ma_dither_mode_none);
    };
}

} // namespace Bench

#else

namespace Bench {

std::unique_ptr<MiniaudioMixer> MiniaudioMixer::create(const std::vector<const float *> &, unsigned,
                                                       unsigned, unsigned, float)
{
    return nullptr;
}

std::unique_ptr<MiniaudioDecoder> MiniaudioDecoder::create(const std::vector<char> &)
{
    return nullptr;
}

ConvertShorts miniaudioToFloat()
{
    return nullptr;
}

} // namespace Bench

#endif
