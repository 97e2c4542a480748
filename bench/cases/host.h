// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_CASES_HOST_H
#define QTOVELMIXER_BENCH_CASES_HOST_H

#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>
#include <mixer/io/source.h>

#include <atomic>
#include <vector>

namespace Bench {

constexpr unsigned mixerRate = 48000; // Hz

/// A device whose blocks the benchmark asks for, on whatever thread and at whatever pace it likes.
class DrivenApi : public QTovelMixerApiVirtual
{
public:
    DrivenApi(unsigned frames, unsigned outputs);

    bool start() override;
    bool stop() override;
    bool close() override;
    bool isRunning() const override { return m_running; }

    /// One block; lost when the mix is being changed, as with a device that cannot wait.
    void block() { mixerCallback(m_input, m_output, bufferFrames(), 0.0, 0x4); }
    /// One block that waits for whoever changes the mix.
    void waitingBlock() { mixerCallback(m_input, m_output, bufferFrames(), 0.0, 0); }
    /// Waits for whoever changes the mix, and finds its block too small to be mixed.
    void waitForLock() { mixerCallback(m_input, m_none, bufferFrames(), 0.0, 0); }

private:
    QTovelMixer::aligned_vector<float, 16> m_input;
    QTovelMixer::aligned_vector<float, 16> m_output;
    QTovelMixer::aligned_vector<float, 16> m_none;
    std::atomic<bool> m_running{false};
};

/// Interleaved noise: the samples are neither denormal nor predictable.
std::vector<float> noise(size_t samples, unsigned seed);

/// A clip out of memory in a loop: one copy for each read.
class ClipSource : public QTovelMixer::Source
{
public:
    /// The clip stays the caller's.
    ClipSource(QTovelMixer::Engine *engine, const float *clip, unsigned clipFrames,
               unsigned channels, int rate);

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1.0e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int channels, double time) override;

private:
    const float *const m_clip;
    const qint64 m_clipFrames;
};

/// Blocks come when the benchmark likes, which nobody is to take for a dead device.
class HostEngine : public QTovelMixer::Engine
{
public:
    using Engine::Engine;
    int monitorTimerInverval() const override { return 0; }
};

/// What a host has: an engine with a device, and sources with the default options.
class Host
{
public:
    struct Setup
    {
        int sources = 0;
        unsigned channels = 2;      ///< of each source
        unsigned outputs = 2;       ///< of the device
        unsigned frames = 256;      ///< of a block
        unsigned clipFrames = 2048; ///< of each source's material
        int rate = mixerRate;       ///< of the sources, Hz
    };

    /// Makes the engine and adds the sources; nothing plays yet.
    explicit Host(const Setup &setup);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    /// Gives every channel of every source a gain into every output.
    void fillMatrix();
    /// Plays, and waits until all rings are full.
    void play(double from = 0.0);
    /// Until every ring is as full as its worker makes it.
    void waitUntilFull() const;
    /// Until every source has `frames` frames to mix.
    void waitUntilBuffered(qint64 frames) const;
    /// Has the objects deleted that wait for it.
    static void processEvents();

    std::vector<const float *> clips() const;

    static constexpr float gain = 0.02f;

    const Setup setup;

private:
    std::vector<std::vector<float>> m_material; ///< for as long as the sources read

public:
    DrivenApi *api; ///< the engine's
    HostEngine engine;
    std::vector<QTovelMixer::Source *> sources; ///< the engine's
};

/// Nanoseconds of processor time that all threads of this process have had.
double processTime();
/// The same for this thread alone.
double threadTime();

/// Memory of the process in MiB, each page counted once: rings are mapped twice. 0 where the system
/// does not tell.
double memoryInUse();

} // namespace Bench

#endif
