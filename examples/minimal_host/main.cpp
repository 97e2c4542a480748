// SPDX-License-Identifier: MIT
// Plays a raw 16-bit stereo file (44100 Hz) and records a second of what it plays, through a device
// without hardware whose output is plugged into its input; prints the level of the recording.
#include <QTovelMixer>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QTextStream>

#include <vector>

using namespace QTovelMixer;

class Player : public Source
{
public:
    Player(Engine *engine, QFile &file) : Source(engine, 44100, 2, 5.0f), m_file(file) {}
    ~Player() override
    {
        stop(NoReason); // the worker must not call a class that is gone
        wait();
    }
    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return double(m_file.size() / 4) / 44100; }
    bool acceptPause(PauseMode mode) override { return mode == PauseSoft; }
    int readSamples(float *samples, int frames, int channels, double time) override
    {
        std::vector<short> raw(size_t(frames) * channels);
        m_file.seek(qint64(time * 44100 + 0.5) * 4);
        const qint64 got =
            m_file.read(reinterpret_cast<char *>(raw.data()), qint64(raw.size()) * 2);
        for (size_t i = 0; i < raw.size(); ++i)
            samples[i] = float(raw[i]) / 32768.0f;
        return int(got / 4);
    }

private:
    QFile &m_file;
};

class Recorder : public Sink
{
public:
    explicit Recorder(Engine *engine) : Sink(engine, 5.0f) {}
    int numChannels() const override { return 2; }
    int sampleRate() const override { return 44100; }
    void writeSamples(float *samples, int frames, int channels, double time) override
    {
        float peak = 0.0f;
        for (int i = 0; i < frames * channels; ++i)
            peak = std::max(peak, std::abs(samples[i]));
        QTextStream(stdout) << time << " s: peak " << peak << Qt::endl;
        if (time >= 0.75)
            stop(StopReason::UserStopAction);
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QFile file(app.arguments().value(1));
    if (!file.open(QIODevice::ReadOnly)) {
        QTextStream(stderr) << "usage: minimal_host FILE.raw" << Qt::endl;
        return 1;
    }
    Engine::Initialize();
    auto *backend = new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::RealTime);
    Engine engine(backend); // owns the backend
    backend->plug(
        {.name = "Cable", .inputChannels = 2, .outputChannels = 2, .sampleRates = {44100}});
    backend->setLoopback(0); // one block later
    backend->updateDeviceList();
    engine.activate();
    if (!engine.addSource(new Player(&engine, file)) || !engine.addSink(new Recorder(&engine)))
        return 1;
    QObject::connect(&engine, &Engine::sinkFinished, &app, &QCoreApplication::quit);
    engine.start();
    return app.exec();
}
