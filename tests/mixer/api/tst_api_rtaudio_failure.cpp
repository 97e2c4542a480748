// SPDX-License-Identifier: MIT
// Stopping, closing, and what goes wrong then: errors, exceptions, calls that never come back.
#include <mixer/api/api_rtaudio_p.h>

#include "scripted_driver.h"

#include <base/trace_p.h>
#include <mixer/engine.h>
#include <support/log_capture.h>

#include <QtCore/QElapsedTimer>
#include <QtTest/QTest>

#include <thread>

using namespace QTovelMixer;

class tst_ApiRtAudioFailure : public QObject
{
    Q_OBJECT

private slots:
    void start_tracesAndRuns();
    void start_reportsErrorsAndExceptions();
    void stop_aborts_andTraces();
    void stop_reportsErrorsAndExceptions();
    void stop_warns_whenTheDevicesAreGone();
    void stop_retires_whatStillRuns();
    void stop_retires_whatDoesNotComeBack();
    void close_leavesAFreshInstance();
    void close_reportsExceptions();
    void exceptions_areNamed_whereTheyHappen();
    void close_retires_whatDoesNotComeBack();
    void open_and_updateDeviceList_giveUpInTime();
    void calls_shareOnePatience();
    void errors_reportTheRightOnes_data();
    void errors_reportTheRightOnes();
    void errors_areReportedOnce_untilTheNextStart();
    void errors_ofARetiredInstance_areOnlyLogged();
    void directSound_abortsWhatFailedInUse();
    void warnings_areLoggedEightAtATime();
    void deadDevice_isReportedOnce();
    void runawayDevice_isReportedOnce();
    void stalledDevice_isAbortedAndReported();
    void jack_reportsItsEnd_whenTheStreamIsClosed();
    void jack_isNeverAskedToStopByItself();
    void deletion_waitsForNobody_whoHangs();
};

namespace {

using HardwareApi = QTovelMixerApiRtAudio;

constexpr const char *wedged =
    "QTovelMixerApiRtAudio::stop: RtAudio instance orphaned by a wedged teardown thread -- "
    "retiring it instead of leaving it in service.";
constexpr const char *leaked =
    "QTovelMixerApiRtAudio::Data::delete_audio_mixer: RtAudio instance orphaned by a wedged "
    "teardown thread -- leaking instead of deleting.";
constexpr qint64 longest = 2500; // ms that the caller may be held

QString failureOf(const QString &backend)
{
    return "QTovelMixer::Api: audio device failure detected (" + backend +
           ") -- requesting mixer teardown";
}

struct Stream
{
    explicit Stream(Backend backend = Alsa, bool start = true,
                    std::vector<RtAudio::Api> apis = {RtAudio::LINUX_ALSA, RtAudio::UNIX_JACK,
                                                      RtAudio::LINUX_PULSE, RtAudio::WINDOWS_DS})
        : script(std::move(apis)), api(backend, QStringLiteral("Test"), {}, 32), engine(nullptr)
    {
        QObject::connect(
            &api, &HardwareApi::deviceFailure, &context, [this] { ++failures; },
            Qt::QueuedConnection);
        ready = api.updateDeviceList() &&
                api.open(api.defaultDevice(DeviceKind::Output),
                         api.defaultDevice(DeviceKind::Input), 48000) &&
                (!start || api.start());
        api.setEngine(&engine);
        log.clear();
    }
    ~Stream()
    {
        script.staysRunning = false;
        api.setEngine(nullptr);
    }

    LogCapture log;
    Script script;
    HardwareApi api;
    Engine engine;
    QObject context;
    int failures = 0;
    bool ready = false;

    QStringList warnings() const { return log.texts(QtWarningMsg); }
    QStringList traces() const
    {
        flushTrace();
        QStringList events;
        for (const QString &text : log.texts(QtInfoMsg)) {
            if (text.startsWith("[TOVEL_DEBUG_MIXER_CRASH_TRACE] RtAudio::"))
                events.append(text.mid(41));
        }
        return events;
    }
};

/// How long `what` held the caller, in ms.
template <typename Function>
qint64 held(Function what)
{
    QElapsedTimer clock;
    clock.start();
    what();
    return clock.elapsed();
}

} // namespace

void tst_ApiRtAudioFailure::start_tracesAndRuns()
{
    Stream stream(Alsa, false);
    QVERIFY(stream.ready);
    QVERIFY(!stream.api.isRunning());
    QVERIFY(stream.api.start());
    QVERIFY(stream.api.isRunning());
    const QStringList traces = stream.traces();
    QCOMPARE(traces.count(), 1);
    QVERIFY2(traces.first().startsWith("start api=0x") &&
                 traces.first().endsWith(
                     " open=true running=false sampleRate=48000 inChannels=2 outChannels=2"),
             qPrintable(traces.first()));
}

void tst_ApiRtAudioFailure::start_reportsErrorsAndExceptions()
{
    Stream stream(Alsa, false);
    stream.script.act("start", Script::Fail);
    QVERIFY(!stream.api.start());
    QCOMPARE(stream.warnings(), QStringList{"QTovelMixerApiRtAudio::start: cannot start"});
    stream.script.act("start", Script::Throw);
    QVERIFY(!stream.api.start());
    QCOMPARE(stream.warnings().last(),
             QStringLiteral("QTovelMixerApiRtAudio::start: RtAudio :: startStream : exception "
                            "received!"));
    stream.script.act("start", Script::Work);
    QVERIFY(stream.api.start());
    QCoreApplication::processEvents();
    QCOMPARE(stream.failures, 0);
}

void tst_ApiRtAudioFailure::stop_aborts_andTraces()
{
    Stream stream;
    QVERIFY(stream.ready);
    stream.script.clearCalls();
    QVERIFY(stream.api.stop());
    QVERIFY(stream.api.isOpen());
    QVERIFY(!stream.api.isRunning());
    QCOMPARE(stream.script.callsMade(), QStringList{"abort"});
    const QStringList traces = stream.traces();
    QCOMPARE(traces.count(), 4);
    QVERIFY(traces.at(0).startsWith("stop BEGIN api=0x"));
    QVERIFY(traces.at(0).contains(" running=true closing=0 callbacks=0 thread=0x"));
    QVERIFY(traces.at(1).startsWith("stop pre-abortStream"));
    QVERIFY(traces.at(2).startsWith("stop post-abortStream"));
    QVERIFY(traces.at(3).startsWith("stop END"));
    QVERIFY(stream.warnings().isEmpty());
    QVERIFY(stream.api.start());
}

void tst_ApiRtAudioFailure::stop_reportsErrorsAndExceptions()
{
    Stream stream;
    stream.script.act("abort", Script::Fail);
    stream.api.stop();
    QCOMPARE(stream.warnings(), QStringList{"QTovelMixerApiRtAudio::stop: cannot abort"});
    stream.script.act("abort", Script::Throw);
    QVERIFY(stream.api.start());
    // What throws has not stopped: the stream is retired.
    stream.api.stop();
    QCOMPARE(stream.warnings().at(1),
             QStringLiteral("QTovelMixerApiRtAudio::stop: RtAudio :: stopStream: exception "
                            "received!"));
    QCOMPARE(stream.warnings().count(wedged), 1);
}

void tst_ApiRtAudioFailure::stop_warns_whenTheDevicesAreGone()
{
    LogCapture log;
    Script script;
    auto *api = new HardwareApi(Alsa, QStringLiteral("Test"), {}, 32);
    Engine engine(api);
    QVERIFY(api->updateDeviceList());
    engine.activate();
    QVERIFY(engine.open(api->defaultDevice(DeviceKind::Output),
                        api->defaultDevice(DeviceKind::Input), 48000, true));
    QVERIFY(api->isRunning());
    script.setDevices({{"Other", 2, 2, true, true}});
    QVERIFY(api->updateDeviceList());
    log.clear();
    QVERIFY(api->stop());
    QCOMPARE(log.texts(QtWarningMsg),
             (QStringList{"QTovelMixerApiRtAudio::stop: input device disappeared while stream was "
                          "running",
                          "QTovelMixerApiRtAudio::stop: output device disappeared while stream was "
                          "running"}));
}

void tst_ApiRtAudioFailure::stop_retires_whatStillRuns()
{
    Stream stream;
    stream.script.staysRunning = true;
    stream.script.leaked = 1;
    stream.script.clearCalls();
    stream.api.stop();
    QCOMPARE(stream.script.callsMade(), (QStringList{"abort", "close", "make"}));
    QCOMPARE(stream.warnings(), (QStringList{wedged, leaked}));
    QVERIFY(!stream.api.isOpen());
    QVERIFY(!stream.api.isRunning());
    // The orphan lives on, beside the fresh one, which works.
    QCOMPARE(stream.script.alive.load(), 2);
    QVERIFY(stream.api.open(stream.api.defaultDevice(DeviceKind::Output), nullptr, 48000));
    QVERIFY(stream.api.start());
}

void tst_ApiRtAudioFailure::stop_retires_whatDoesNotComeBack()
{
    Stream stream;
    Script::Driver *old = stream.script.last;
    stream.script.act("abort", Script::Hang);
    const qint64 time = held([&] { stream.api.stop(); });
    QVERIFY2(time >= 1900 && time <= longest, qPrintable(QString::number(time)));
    QCOMPARE(stream.warnings(), (QStringList{wedged, leaked}));
    QVERIFY(!stream.api.isOpen());
    // Its callback is mute: the backend belongs to the fresh one.
    std::vector<float> output(64, 0.5f);
    QCOMPARE(old->stream(output.data(), nullptr, 32, 0.0, 0, old->streamData), 2);
    QCOMPARE(output, std::vector<float>(64, 0.0f));
    stream.script.act("abort", Script::Work);
    QCOMPARE(stream.script.alive.load(), 2);
    stream.script.release.release();
    QTRY_COMPARE(stream.script.alive.load(), 1); // it has deleted itself
    QCoreApplication::processEvents();
    QVERIFY(stream.api.open(stream.api.defaultDevice(DeviceKind::Output), nullptr, 48000));
    QVERIFY(stream.api.start());
    QVERIFY(stream.api.stop());
}

void tst_ApiRtAudioFailure::close_leavesAFreshInstance()
{
    Stream stream;
    stream.script.clearCalls();
    QVERIFY(stream.api.close());
    QCOMPARE(stream.script.callsMade(), (QStringList{"abort", "close", "make"}));
    QCOMPARE(stream.script.alive.load(), 1);
    QVERIFY(!stream.api.isOpen());
    QVERIFY(!RtAudioAccess::data(stream.api).inputBlock.load());
    QVERIFY(!RtAudioAccess::data(stream.api).outputBlock.load());
    const QStringList traces = stream.traces();
    QVERIFY(traces.first().startsWith("close BEGIN api=0x"));
    QVERIFY(traces.first().endsWith(" open=true running=true callbacks=0"));
    QVERIFY(traces.last().startsWith("close END api=0x"));
    QVERIFY(stream.warnings().isEmpty());
    stream.script.clearCalls();
    QVERIFY(stream.api.close());
    QCOMPARE(stream.script.callsMade(), QStringList());
}

void tst_ApiRtAudioFailure::close_reportsExceptions()
{
    Stream stream;
    stream.script.act("abort", Script::Fail);
    stream.script.act("close", Script::Throw);
    stream.api.close();
    QCOMPARE(stream.warnings(),
             (QStringList{"QTovelMixerApiRtAudio::close: cannot abort",
                          "QTovelMixerApiRtAudio::close: RtAudio :: closeStream : exception "
                          "received!"}));
    QCOMPARE(RtAudioAccess::data(stream.api).closing.load(), 0);
    stream.script.act("close", Script::Work);
    stream.script.act("abort", Script::Work);
    QVERIFY(stream.api.close());
}

void tst_ApiRtAudioFailure::exceptions_areNamed_whereTheyHappen()
{
    Stream stream;
    stream.script.act("abort", Script::Throw);
    stream.api.close();
    QCOMPARE(stream.warnings(),
             QStringList{"QTovelMixerApiRtAudio::close: RtAudio :: abortStream : exception "
                         "received!"});
    QVERIFY(stream.api.open(stream.api.defaultDevice(DeviceKind::Output), nullptr, 48000));
    QVERIFY(stream.api.start());
    stream.log.clear();
    stream.script.act("close", Script::Throw);
    stream.script.leaked = 1;
    stream.api.stop();
    QCOMPARE(stream.warnings(),
             (QStringList{"QTovelMixerApiRtAudio::stop: RtAudio :: stopStream: exception received!",
                          wedged,
                          "QTovelMixerApiRtAudio::stop: RtAudio :: closeStream : exception "
                          "received! (orphan retire)",
                          leaked}));
    stream.script.act("abort", Script::Work);
    stream.script.act("close", Script::Work);
}

void tst_ApiRtAudioFailure::close_retires_whatDoesNotComeBack()
{
    Stream stream;
    stream.script.act("close", Script::Hang);
    const qint64 time = held([&] { stream.api.close(); });
    QVERIFY2(time >= 1900 && time <= longest, qPrintable(QString::number(time)));
    QVERIFY(!stream.api.isOpen());
    QCOMPARE(stream.warnings(), (QStringList{wedged, leaked}));
    stream.script.act("close", Script::Work);
    stream.script.release.release();
    QTRY_COMPARE(stream.script.alive.load(), 1);
}

void tst_ApiRtAudioFailure::open_and_updateDeviceList_giveUpInTime()
{
    Stream stream(Alsa, false);
    QVERIFY(stream.api.close());
    stream.script.act("open", Script::Hang);
    Device *output = stream.api.defaultDevice(DeviceKind::Output);
    qint64 time = held([&] { QVERIFY(!stream.api.open(output, nullptr, 48000)); });
    QVERIFY2(time <= longest, qPrintable(QString::number(time)));
    QCOMPARE(stream.warnings().last(),
             QStringLiteral("QTovelMixerApiRtAudio::open: the sound server does not answer"));
    stream.script.act("open", Script::Work);
    stream.script.act("ids", Script::Hang);
    QCoreApplication::processEvents();
    const QList<Device *> before = stream.api.devices();
    time = held([&] { QVERIFY(!stream.api.updateDeviceList()); });
    QVERIFY2(time <= longest, qPrintable(QString::number(time)));
    QCOMPARE(stream.api.devices(), before);
    stream.script.act("ids", Script::Work);
    stream.script.release.release(2);
    QTRY_COMPARE(stream.script.alive.load(), 1);
    QCoreApplication::processEvents();
    QVERIFY(stream.api.updateDeviceList());
    QVERIFY(stream.api.open(output, nullptr, 48000));
}

// A host's one operation may make several calls of ours.
void tst_ApiRtAudioFailure::calls_shareOnePatience()
{
    Stream stream;
    stream.script.act("abort", Script::Hang);
    stream.script.act("ids", Script::Hang);
    stream.script.act("open", Script::Hang);
    const qint64 time = held([&] {
        stream.api.stop();
        stream.api.close();
        for (int i = 0; i < 3; ++i)
            stream.api.open(stream.api.defaultDevice(DeviceKind::Output), nullptr, 48000);
        stream.api.updateDeviceList();
    });
    QVERIFY2(time <= longest, qPrintable(QString::number(time)));
}

void tst_ApiRtAudioFailure::errors_reportTheRightOnes_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("running");
    QTest::addColumn<int>("reports");
    QTest::addColumn<bool>("foreign");
    for (int type = RTAUDIO_NO_ERROR; type <= RTAUDIO_THREAD_ERROR; ++type) {
        const bool always = type == RTAUDIO_DEVICE_DISCONNECT;
        const bool inUse = type == RTAUDIO_DRIVER_ERROR || type == RTAUDIO_SYSTEM_ERROR ||
                           type == RTAUDIO_THREAD_ERROR;
        QTest::addRow("%d, running", type) << type << true << int(always || inUse) << false;
        QTest::addRow("%d, stopped", type) << type << false << int(always) << false;
        QTest::addRow("%d, running, system thread", type)
            << type << true << int(always || inUse) << true;
        QTest::addRow("%d, stopped, system thread", type) << type << false << int(always) << true;
    }
}

void tst_ApiRtAudioFailure::errors_reportTheRightOnes()
{
    QFETCH(int, type);
    QFETCH(bool, running);
    QFETCH(int, reports);
    QFETCH(bool, foreign);
    Stream stream(Alsa, running);
    if (foreign) {
        std::thread system([&] {
            stream.script.error(RtAudioErrorType(type), "what happened");
            // Seen as it was, not as it is when somebody looks.
            stream.script.last.load()->running = false;
        });
        system.join();
        QTRY_COMPARE(
            stream.log.count(QtInfoMsg, "QTovelMixerApiRtAudio__ErrorCallback: what happened"), 1);
        QTRY_COMPARE(stream.log.count(QtCriticalMsg, failureOf("Alsa")), reports);
    } else {
        stream.script.error(RtAudioErrorType(type), "what happened");
        QCOMPARE(stream.log.texts(QtInfoMsg),
                 QStringList{"QTovelMixerApiRtAudio__ErrorCallback: what happened"});
    }
    QCOMPARE(stream.log.count(QtCriticalMsg, failureOf("Alsa")), reports);
    QCOMPARE(stream.api.streamStatus().lastError, QStringLiteral("what happened"));
    QCoreApplication::processEvents();
    QCOMPARE(stream.failures, reports);
}

void tst_ApiRtAudioFailure::errors_areReportedOnce_untilTheNextStart()
{
    Stream stream;
    stream.api.setEngine(nullptr);
    stream.script.error(RTAUDIO_DEVICE_DISCONNECT, "gone");
    stream.script.error(RTAUDIO_DEVICE_DISCONNECT, "gone");
    QCoreApplication::processEvents();
    QCOMPARE(stream.failures, 1);
    stream.api.stop();
    QVERIFY(stream.api.start());
    stream.script.error(RTAUDIO_DEVICE_DISCONNECT, "gone");
    QCoreApplication::processEvents();
    QCOMPARE(stream.failures, 2);
}

void tst_ApiRtAudioFailure::errors_ofARetiredInstance_areOnlyLogged()
{
    Stream stream;
    Script::Driver *old = stream.script.last;
    stream.script.staysRunning = true;
    stream.script.leaked = 1;
    stream.api.stop();
    stream.log.clear();
    old->onError(RTAUDIO_DEVICE_DISCONNECT, "late");
    QCOMPARE(stream.log.texts(), QStringList{"QTovelMixerApiRtAudio__ErrorCallback: late"});
    QCoreApplication::processEvents();
    QCOMPARE(stream.failures, 0);
}

void tst_ApiRtAudioFailure::directSound_abortsWhatFailedInUse()
{
    Stream stream(DirectSound);
    QVERIFY(stream.ready);
    stream.script.clearCalls();
    stream.script.error(RTAUDIO_SYSTEM_ERROR, "unplugged");
    QCOMPARE(stream.log.texts(QtInfoMsg),
             (QStringList{"QTovelMixerApiRtAudio__ErrorCallback: unplugged",
                          "QTovelMixerApiRtAudio__ErrorCallback: DirectSound device failed in use "
                          "-- aborting stream to silence the looping buffer"}));
    QTRY_COMPARE(stream.script.callsMade(), QStringList{"abort"});
    QTRY_VERIFY(!stream.api.isRunning());
    Stream other(Alsa);
    other.script.clearCalls();
    other.script.error(RTAUDIO_SYSTEM_ERROR, "unplugged");
    QVERIFY(!other.log.contains("DirectSound"));
    QCOMPARE(other.script.callsMade(), QStringList());
}

void tst_ApiRtAudioFailure::warnings_areLoggedEightAtATime()
{
    Stream stream(Alsa);
    std::thread audio([&] {
        for (int i = 0; i < 1000; ++i)
            stream.script.error(RTAUDIO_WARNING, "dead");
    });
    audio.join();
    QTRY_VERIFY(stream.log.contains("QTovelMixerApiRtAudio__ErrorCallback: and "));
    int counted = 0;
    int inARow = 0;
    for (const QString &text : stream.log.texts(QtInfoMsg)) {
        const QString rest = text.mid(int(strlen("QTovelMixerApiRtAudio__ErrorCallback: ")));
        inARow = rest == "dead" ? inARow + 1 : 0;
        QVERIFY(inARow <= 8);
        counted += rest.startsWith("and ") ? rest.split(' ').at(1).toInt() : int(rest == "dead");
    }
    QTRY_COMPARE(counted, 1000);
}

void tst_ApiRtAudioFailure::deadDevice_isReportedOnce()
{
    Stream stream(Pulse);
    QVERIFY(stream.ready);
    stream.api.setEngine(&stream.engine);
    std::vector<float> output(64, 0.5f);
    int blocks = 0;
    int answer = 0;
    std::thread audio([&] {
        for (; blocks < 100 && answer == 0; ++blocks) {
            stream.script.error(RTAUDIO_WARNING, "Connection terminated.");
            std::fill(output.begin(), output.end(), 0.5f);
            answer = stream.script.block(output.data(), nullptr, 32);
        }
    });
    audio.join();
    QCOMPARE(answer, 2);
    QCOMPARE(blocks, 8);
    QCOMPARE(output, std::vector<float>(64, 0.0f));
    QTRY_COMPARE(stream.failures, 1);
    QCOMPARE(stream.log.count(QtCriticalMsg, failureOf("Pulse")), 1);
}

void tst_ApiRtAudioFailure::runawayDevice_isReportedOnce()
{
    Stream stream(Pulse);
    std::vector<float> output(64);
    int answer = 0;
    std::thread audio([&] {
        const QDeadlineTimer end(5000);
        while (answer == 0 && !end.hasExpired())
            answer = stream.script.block(output.data(), nullptr, 32);
    });
    audio.join();
    QCOMPARE(answer, 2);
    QTRY_COMPARE(stream.failures, 1);
}

void tst_ApiRtAudioFailure::stalledDevice_isAbortedAndReported()
{
    Stream stream(Jack);
    std::vector<float> output(64);
    std::thread audio([&] {
        stream.script.block(output.data(), nullptr, 32);
        stream.script.error(RTAUDIO_WARNING, "the JACK buffer size has changed");
    });
    audio.join();
    stream.script.clearCalls();
    QTRY_COMPARE_WITH_TIMEOUT(stream.failures, 1, 1500);
    QCOMPARE(stream.script.callsMade().first(), QStringLiteral("abort"));
    QCOMPARE(stream.log.count(QtCriticalMsg, failureOf("Jack")), 1);
}

void tst_ApiRtAudioFailure::jack_reportsItsEnd_whenTheStreamIsClosed()
{
    Stream stream(Jack);
    Script::Driver *driver = stream.script.last;
    std::thread server([&] {
        driver->onError(RTAUDIO_DEVICE_DISCONNECT, "the server is shutting down");
        driver->running = false;
        driver->open = false;
    });
    server.join();
    QTRY_COMPARE_WITH_TIMEOUT(stream.failures, 1, 300);
    QVERIFY(stream.log.texts(QtInfoMsg).contains(
        "QTovelMixerApiRtAudio__ErrorCallback: the server is shutting down"));
    stream.script.clearCalls();
    stream.api.close();
    // Nothing is asked of what closed by itself; a fresh one takes its place.
    QCOMPARE(stream.script.callsMade(), QStringList{"make"});
}

void tst_ApiRtAudioFailure::jack_isNeverAskedToStopByItself()
{
    Stream stream(Jack);
    stream.api.setEngine(nullptr); // every block asks for an abort now
    std::vector<float> output(64, 0.5f);
    stream.script.clearCalls();
    std::thread audio([&] {
        if (stream.script.block(output.data(), nullptr, 32) != 0)
            output[0] = 1.0f;
    });
    audio.join();
    QCOMPARE(output, std::vector<float>(64, 0.0f));
    QTRY_COMPARE(stream.script.callsMade(), QStringList{"abort"});
    QTRY_VERIFY(!stream.api.isRunning());
    QVERIFY(stream.api.isOpen());
}

void tst_ApiRtAudioFailure::deletion_waitsForNobody_whoHangs()
{
    Script script;
    {
        const LogCapture log;
        auto api =
            std::make_unique<HardwareApi>(Alsa, QStringLiteral("Test"), HardwareApi::Options(), 32);
        QVERIFY(api->updateDeviceList());
        QVERIFY(api->open(api->defaultDevice(DeviceKind::Output), nullptr, 48000));
        QVERIFY(api->start());
        script.act("abort", Script::Hang);
        const qint64 time = held([&] { api.reset(); });
        QVERIFY2(time <= longest, qPrintable(QString::number(time)));
    }
    script.act("abort", Script::Work);
    script.release.release();
    QTRY_COMPARE(script.alive.load(), 0);
}

QTEST_GUILESS_MAIN(tst_ApiRtAudioFailure)
#include "tst_api_rtaudio_failure.moc"
