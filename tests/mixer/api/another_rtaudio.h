// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_ANOTHER_RTAUDIO_H
#define QTOVELMIXER_TESTS_MIXER_API_ANOTHER_RTAUDIO_H

#include <atomic>
#include <memory>

/// The RtAudio that the system packages, of another version, playing one value on every channel. A
/// file of its own: nobody can include two headers of one name.
class AnotherRtAudio
{
public:
    AnotherRtAudio(float value, unsigned rate, unsigned channels);
    ~AnotherRtAudio();
    AnotherRtAudio(const AnotherRtAudio &) = delete;
    AnotherRtAudio &operator=(const AnotherRtAudio &) = delete;

    bool start();
    int blocks() const { return m_blocks; }

private:
    struct Library;
    static int play(void *output, void *input, unsigned frames, double time, unsigned status,
                    void *self);

    const float m_value;
    const unsigned m_rate;
    const unsigned m_channels;
    std::atomic<int> m_blocks{0};
    std::unique_ptr<Library> m_library;
};

#endif
