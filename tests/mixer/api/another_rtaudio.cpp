// SPDX-License-Identifier: MIT
#include "another_rtaudio.h"

#include <RtAudio.h>

#include <algorithm>

struct AnotherRtAudio::Library
{
    RtAudio audio{RtAudio::LINUX_PULSE};
};

AnotherRtAudio::AnotherRtAudio(float value, unsigned rate, unsigned channels)
    : m_value(value), m_rate(rate), m_channels(channels), m_library(std::make_unique<Library>())
{}

AnotherRtAudio::~AnotherRtAudio()
{
    if (m_library->audio.isStreamRunning())
        m_library->audio.abortStream();
    if (m_library->audio.isStreamOpen())
        m_library->audio.closeStream();
}

bool AnotherRtAudio::start()
{
    RtAudio::StreamParameters parameters;
    parameters.deviceId = m_library->audio.getDefaultOutputDevice();
    parameters.nChannels = m_channels;
    parameters.firstChannel = 0;
    unsigned frames = 512;
    try {
        m_library->audio.openStream(&parameters, nullptr, RTAUDIO_FLOAT32, m_rate, &frames, &play,
                                    this);
        m_library->audio.startStream();
    } catch (...) {
        return false;
    }
    return true;
}

int AnotherRtAudio::play(void *output, void *, unsigned frames, double, unsigned, void *self)
{
    auto &player = *static_cast<AnotherRtAudio *>(self);
    std::fill_n(static_cast<float *>(output), size_t(frames) * player.m_channels, player.m_value);
    ++player.m_blocks;
    return 0;
}
