// SPDX-License-Identifier: MIT
#include <QTovelMixer>

#include <QtCore/QCoreApplication>
#include <QtCore/QSemaphore>

#include <cstdio>

extern "C" {
void beginWatch();
int endWatch();
Q_DECL_EXPORT int play();
}

namespace {

class Silence : public QTovelMixer::Source
{
public:
    explicit Silence(QTovelMixer::Engine *engine) : Source(engine, 48000, 2, 5.0f) {}
    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 100.0; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int channels, double) override
    {
        std::fill_n(buffer, frames * channels, 0.0f);
        return frames;
    }
};

} // namespace

// Answers 0 when 50 blocks came and the audio thread allocated in none of them. Where the order of
// locks is checked, each thread has a list of its own, which its first block makes.
int play()
{
#if !defined(QT_NO_DEBUG) || defined(QT_FORCE_ASSERTS)
    constexpr int warmUp = 1;
#else
    constexpr int warmUp = 0;
#endif
    int argc = 1;
    char name[] = "module";
    char *argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    QTovelMixer::Engine::Initialize();
    auto *api = new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::RealTime);
    QSemaphore blocks;
    int count = 0;
    int allocations = 0;
    api->plug({.name = "Speaker", .inputChannels = 1, .outputChannels = 2});
    api->setGenerator([](float *, unsigned, unsigned, quint64) { beginWatch(); });
    api->setOutputHandler([&](const float *, unsigned, unsigned, quint64) {
        const int more = endWatch();
        if (count++ >= warmUp)
            allocations += more;
        blocks.release();
    });
    api->updateDeviceList();
    QTovelMixer::Engine engine(api);
    engine.activate();
    if (!engine.addSource(new Silence(&engine)) || !engine.start() ||
        !blocks.tryAcquire(50, 20000)) {
        std::fputs("no blocks\n", stderr);
        return 1;
    }
    engine.deactivate();
    if (allocations > 0)
        std::fprintf(stderr, "the audio thread allocated %d times\n", allocations);
    return allocations == 0 ? 0 : 1;
}
