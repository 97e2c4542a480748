// SPDX-License-Identifier: MIT
// Renders a second of a tone into a buffer, without a sound card.
#include <QTovelMixer>

#include <QtCore/QCoreApplication>

#include <cmath>
#include <cstdio>
#include <vector>

using namespace QTovelMixer;

class Tone : public Source
{
public:
    explicit Tone(Engine *engine) : Source(engine, 48000, 1, 5.0f) {}
    ~Tone() override
    {
        stop(NoReason);
        wait();
    }

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1.0; }
    bool acceptPause(PauseMode mode) override { return mode == PauseSoft; }

    int readSamples(float *buffer, int frames, int, double time) override
    {
        for (int i = 0; i < frames; ++i)
            buffer[i] = 0.5f * float(std::sin(6.283185307 * 440.0 * (time + i / 48000.0)));
        return frames;
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Engine::Initialize();
    std::vector<float> mix; // filled on the audio thread, and so outlives the engine

    auto *api = new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::FreeWheel);
    Engine engine(api);
    api->plug({.name = "Mix", .outputChannels = 2, .sampleRates = {48000}});
    api->setOutputHandler(
        [&mix](const float *samples, unsigned frames, unsigned channels, quint64) {
            mix.insert(mix.end(), samples, samples + size_t(frames) * channels);
        });
    api->updateDeviceList();
    engine.activate();

    auto *tone = new Tone(&engine);
    if (!engine.addSource(tone)) {
        delete tone;
        return 1;
    }
    QObject::connect(&engine, &Engine::stopped, &app, &QCoreApplication::quit,
                     Qt::QueuedConnection);
    engine.start();
    QCoreApplication::exec();
    engine.deactivate();
    std::printf("%zu frames\n", mix.size() / 2);
    return mix.size() / 2 >= 48000 ? 0 : 1;
}
