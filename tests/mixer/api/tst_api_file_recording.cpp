// SPDX-License-Identifier: MIT
// Whole recordings through the engine on the file backend.
#include <mixer/api/api_file.h>

#include "file_fixture.h"

#include <base/trace_p.h>
#include <support/ramp_source.h>
#include <support/take_sink.h>

#include <QtCore/QDeadlineTimer>
#include <QtTest/QSignalSpy>

#include <memory>

using namespace QTovelMixer;

namespace {

using FileApi = QTovelMixerApiFile;

// No multiple of a block, so that the end comes within one, yet longer: a block reads the file's
// beginning once at most.
constexpr int fileSamples = 3000;
constexpr int blockFrames = 1024;
constexpr int patience = 10000; // ms until a test gives up

/// Waits without the event loop, so that the backend's timer runs no block meanwhile.
template <typename Condition>
bool waitFor(Condition condition)
{
    const QDeadlineTimer deadline(patience);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

/// What the loop over the file gives at this place of the take.
float looped(qint64 sample)
{
    return float(double(sample % fileSamples + 1) / 32768.0);
}

/// A mixer on the file backend, with its signals counted.
struct Recorder
{
    Recorder(const QString &in, const QString &out)
        : api(new FileApi(in, 2, out, 2, 48000, "Files")), engine(std::make_unique<Engine>(api)),
          activated(engine.get(), &Engine::activated), started(engine.get(), &Engine::started),
          added(engine.get(), &Engine::sinkAdded), stopped(engine.get(), &Engine::stopped)
    {
        api->updateDeviceList();
        engine->activate();
    }
    ~Recorder()
    {
        engine.reset();
        flushTrace();
    }

    const LogCapture log;
    FileApi *api; // the engine's
    std::unique_ptr<Engine> engine;
    QSignalSpy activated;
    QSignalSpy started;
    QSignalSpy added;
    QSignalSpy stopped;
};

} // namespace

class tst_ApiFileRecording : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void activate_opensTheInputFileOnly();
    void addSource_isRefused();
    void recording_takesTheLoopedFile();
    void recording_followsTheTimer();
    void recording_ends_whenAFailureIsReported();

private:
    std::unique_ptr<FilePair> files;
};

void tst_ApiFileRecording::init()
{
    files = std::make_unique<FilePair>();
    write(files->in, bytesOf(counting(fileSamples)));
}

void tst_ApiFileRecording::activate_opensTheInputFileOnly()
{
    const Recorder recorder(files->in, files->out);
    QCOMPARE(recorder.activated.count(), 1);
    QVERIFY(recorder.engine->isActive());
    QVERIFY(recorder.api->isOpen());
    QVERIFY(!recorder.api->isRunning());
    QCOMPARE(recorder.engine->sampleRate(), 44100u);
    QCOMPARE(recorder.engine->numInputChannels(), 2u);
    QCOMPARE(recorder.engine->numOutputChannels(), 0u);
    QVERIFY(recorder.engine->canCapture());
    QVERIFY(!recorder.engine->canPlayback());
    QVERIFY(!QFileInfo::exists(files->out));
    recorder.engine->deactivate();
    QVERIFY(!recorder.api->isOpen());
}

void tst_ApiFileRecording::addSource_isRefused()
{
    const Recorder recorder(files->in, files->out);
    RampSource source(recorder.engine.get(), 44100, 2, 1.0);
    QVERIFY(!recorder.engine->addSource(&source));
    QVERIFY(!recorder.api->isRunning());
}

void tst_ApiFileRecording::recording_takesTheLoopedFile()
{
    const Recorder recorder(files->in, files->out);
    auto *sink = new TakeSink(recorder.engine.get(), 44100, 2);
    QVERIFY(recorder.engine->addSink(sink));
    QCOMPARE(recorder.added.count(), 1);
    QVERIFY(recorder.api->isRunning());

    // A block before the start belongs to nobody, but the file moves on.
    recorder.api->mixerTimeout();
    QVERIFY(recorder.engine->start());
    QCOMPARE(recorder.started.count(), 1);
    QVERIFY(waitFor([sink] { return sink->isRunning(); }));

    constexpr int blocks = 20;
    for (int block = 0; block < blocks; ++block)
        recorder.api->mixerTimeout();
    QVERIFY(waitFor([sink] { return sink->frames() >= blocks * blockFrames; }));
    const std::vector<float> take = sink->samples();
    QCOMPARE(take.size(), size_t(blocks * blockSamples));
    for (size_t i = 0; i < take.size(); ++i)
        QVERIFY2(take[i] == looped(qint64(i) + blockSamples), qPrintable(QString::number(i)));
    qint64 frame = 0;
    for (const TakeSink::Piece &piece : sink->pieces()) {
        QVERIFY(qAbs(piece.time - double(frame) / 44100) < 1e-9);
        frame += piece.frames;
    }
    QCOMPARE(recorder.engine->time(), double(blocks * blockFrames) / 44100);

    QVERIFY(recorder.engine->stop(true, StopReason::UserStopAction));
    QTRY_COMPARE(recorder.stopped.count(), 1);
    QCOMPARE(recorder.stopped.at(0).at(0).value<StopReason>(), StopReason::UserStopAction);
    QVERIFY(!recorder.api->isRunning());
    QVERIFY(recorder.api->isOpen());
    QCOMPARE(EngineAccess::shipped(*recorder.engine).apiRefs, 0);
    QVERIFY(!QFileInfo::exists(files->out));
}

void tst_ApiFileRecording::recording_followsTheTimer()
{
    const Recorder recorder(files->in, files->out);
    auto *sink = new TakeSink(recorder.engine.get(), 44100, 2);
    QVERIFY(recorder.engine->addSink(sink));
    QVERIFY(recorder.engine->start());
    QVERIFY(waitFor([sink] { return sink->isRunning(); }));
    QTRY_VERIFY(sink->frames() >= 3 * blockFrames);
    const std::vector<float> take = sink->samples();
    for (size_t i = 0; i < take.size(); ++i)
        QVERIFY2(take[i] == looped(qint64(i)), qPrintable(QString::number(i)));
    QVERIFY(recorder.engine->stop(true, StopReason::UserStopAction));
    QTRY_COMPARE(recorder.stopped.count(), 1);

    // The next first user finds the file at its beginning again.
    auto *next = new TakeSink(recorder.engine.get(), 44100, 2);
    QVERIFY(recorder.engine->addSink(next));
    QVERIFY(recorder.engine->start());
    QVERIFY(waitFor([next] { return next->isRunning(); }));
    recorder.api->mixerTimeout();
    QVERIFY(waitFor([next] { return next->frames() >= blockFrames; }));
    QCOMPARE(next->samples().front(), looped(0));
}

void tst_ApiFileRecording::recording_ends_whenAFailureIsReported()
{
    const Recorder recorder(files->in, files->out);
    const QSignalSpy failed(recorder.engine.get(), &Engine::deviceFailed);
    auto *sink = new TakeSink(recorder.engine.get(), 44100, 2);
    QVERIFY(recorder.engine->addSink(sink));
    QVERIFY(recorder.engine->start());
    recorder.api->reportDeviceFailure();
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(failed.at(0), (QVariantList{false, true, QStringLiteral("File")}));
    QVERIFY(!recorder.engine->isActive());
    QVERIFY(!recorder.api->isRunning());
    QVERIFY(!recorder.api->isOpen());
    QCOMPARE(recorder.log.countStarting("QTovelMixer::Api: audio device failure detected (File)"),
             1);
}

QTEST_GUILESS_MAIN(tst_ApiFileRecording)
#include "tst_api_file_recording.moc"
