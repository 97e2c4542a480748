// SPDX-License-Identifier: MIT
// Records one second of a raw 16-bit stereo file (44100 Hz) and prints its level.
#include <QTovelMixer>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QTextStream>

class Recorder : public QTovelMixer::Sink
{
public:
    explicit Recorder(QTovelMixer::Engine *engine) : Sink(engine, 5.0f) {}
    int numChannels() const override { return 2; }
    int sampleRate() const override { return 44100; }
    void writeSamples(float *samples, int frames, int channels, double time) override
    {
        float peak = 0.0f;
        for (int i = 0; i < frames * channels; ++i)
            peak = std::max(peak, std::abs(samples[i]));
        QTextStream(stdout) << time << " s: peak " << peak << Qt::endl;
        if (time >= 1.0)
            stop(QTovelMixer::StopReason::UserStopAction);
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules("default.info=false\ndefault.debug=false");
    QTovelMixer::Engine::Initialize();
    auto *backend = new QTovelMixerApiFile(app.arguments().value(1), 2, {}, 0, 44100, "minimal");
    backend->updateDeviceList();
    QTovelMixer::Engine engine(backend); // owns the backend
    engine.activate();
    auto *recorder = new Recorder(&engine);
    if (!engine.inputMeter() || !engine.addSink(recorder)) { // adopted when added
        delete recorder;
        QTextStream(stderr) << "usage: minimal_host FILE.raw" << Qt::endl;
        return 1;
    }
    QObject::connect(&engine, &QTovelMixer::Engine::stopped, &app, &QCoreApplication::quit);
    engine.start();
    return app.exec();
}
