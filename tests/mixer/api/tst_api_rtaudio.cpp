// SPDX-License-Identifier: MIT
// Interfaces, devices and opening, on a scripted sound system.
#include <mixer/api/api_rtaudio_p.h>

#include "scripted_driver.h"

#include <mixer/api/rtaudio_device.h>
#include <support/log_capture.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_ApiRtAudio : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();
    void backends_mapBothWays();
    void getAvailableBackends_followsTheLibrary();
    void getPreferedBackend_takesTheFirstThatIsCompiled();
    void getPreferedBackend_throws_onWhatIsNoBackend();
    void constructor_takesThePreferedInterface_forAuto();
    void constructor_leavesTheChoice_withoutAnInterface();
    void constructor_hasNoInstance_whenNotCompiled();
    void constructor_hasNoInstance_whenRtAudioThrows();
    void constructor_namesItselfAfterTheBackend();
    void withoutInstance_everythingIsRefused();
    void updateDeviceList_listsWhatRtAudioShows();
    void updateDeviceList_keepsDevices_andReadsDefaultsAfresh();
    void updateDeviceList_keepsWhatItGot_whenRtAudioThrows();
    void updateDeviceList_namesUnusableDevices();
    void updateDeviceList_keepsTheList_whenTheServerIsSilent();
    void updateDeviceList_keepsEqualNamesApart();
    void open_refusesBadArguments();
    void open_acceptsTheLimitsOfRates();
    void open_asksForWhatTheDevicesHave();
    void open_clampsTheBlock();
    void open_takesTheBlockThatIsGranted();
    void open_passesOptionsAndBuffers();
    void open_findsTheDevice_whenNumbersChanged();
    void open_fails_whenTheDeviceIsGone();
    void open_reportsASilentServer();
    void open_reportsErrorsAndExceptions();
    void showControlPanel_hasNone();
};

namespace {

using HardwareApi = QTovelMixerApiRtAudio;

const QList<Backend> usualPreference{Pulse,       Jack,   Alsa, CoreAudio,
                                     DirectSound, WASAPI, ASIO, Disabled};

std::unique_ptr<HardwareApi> makeApi(Backend backend = Pulse, HardwareApi::Options options = {},
                                     unsigned frames = 512)
{
    return std::make_unique<HardwareApi>(backend, QStringLiteral("Test"), options, frames);
}

Device *output(const HardwareApi &api)
{
    return api.defaultDevice(DeviceKind::Output);
}

Device *input(const HardwareApi &api)
{
    return api.defaultDevice(DeviceKind::Input);
}

} // namespace

void tst_ApiRtAudio::cleanup()
{
    HardwareApi::setPreferedBackends(usualPreference);
}

void tst_ApiRtAudio::backends_mapBothWays()
{
    const QList<std::pair<RtAudio::Api, Backend>> pairs = {
        {RtAudio::UNSPECIFIED, NoBackend},  {RtAudio::MACOSX_CORE, CoreAudio},
        {RtAudio::LINUX_ALSA, Alsa},        {RtAudio::UNIX_JACK, Jack},
        {RtAudio::LINUX_PULSE, Pulse},      {RtAudio::LINUX_OSS, OSS},
        {RtAudio::WINDOWS_ASIO, ASIO},      {RtAudio::WINDOWS_WASAPI, WASAPI},
        {RtAudio::WINDOWS_DS, DirectSound}, {RtAudio::RTAUDIO_DUMMY, Disabled}};
    for (const auto &[api, backend] : pairs) {
        QCOMPARE(backendOf(api), backend);
        QCOMPARE(rtAudioApiOf(backend), api);
    }
    QCOMPARE(rtAudioApiOf(File), RtAudio::UNSPECIFIED);
    QVERIFY_THROWS_EXCEPTION(std::logic_error, backendOf(RtAudio::NUM_APIS));
    try {
        backendOf(RtAudio::NUM_APIS);
    } catch (const std::logic_error &error) {
        QCOMPARE(error.what(), "Invalid backend");
    }
}

void tst_ApiRtAudio::getAvailableBackends_followsTheLibrary()
{
    Script script({RtAudio::UNIX_JACK, RtAudio::LINUX_ALSA, RtAudio::RTAUDIO_DUMMY});
    QCOMPARE(HardwareApi::getAvailableBackends(), (QStringList{"Jack", "Alsa", "Disabled"}));
}

void tst_ApiRtAudio::getPreferedBackend_takesTheFirstThatIsCompiled()
{
    Script script;
    QCOMPARE(HardwareApi::getPreferedBackend(), QStringLiteral("Pulse"));
    script.apis = {RtAudio::LINUX_ALSA, RtAudio::UNIX_JACK};
    QCOMPARE(HardwareApi::getPreferedBackend(), QStringLiteral("Jack"));
    HardwareApi::setPreferedBackends({CoreAudio, Auto, File, NoBackend, Alsa, Jack});
    QCOMPARE(HardwareApi::getPreferedBackend(), QStringLiteral("Alsa"));
    HardwareApi::setPreferedBackends({CoreAudio});
    QCOMPARE(HardwareApi::getPreferedBackend(), QStringLiteral("Disabled"));
    HardwareApi::setPreferedBackends({});
    QCOMPARE(HardwareApi::getPreferedBackend(), QStringLiteral("Disabled"));
}

void tst_ApiRtAudio::getPreferedBackend_throws_onWhatIsNoBackend()
{
    Script script;
    HardwareApi::setPreferedBackends({Jack, Backend(11)});
    QCOMPARE(HardwareApi::getPreferedBackend(), QStringLiteral("Jack"));
    HardwareApi::setPreferedBackends({Backend(11), Jack});
    QVERIFY_THROWS_EXCEPTION(std::logic_error, HardwareApi::getPreferedBackend());
}

void tst_ApiRtAudio::constructor_takesThePreferedInterface_forAuto()
{
    Script script;
    QCOMPARE(makeApi(Auto)->backend(), Pulse);
    HardwareApi::setPreferedBackends({Jack});
    QCOMPARE(makeApi(Auto)->backendString(), QStringLiteral("Jack"));
    const LogCapture log;
    HardwareApi::setPreferedBackends({CoreAudio});
    QCOMPARE(makeApi(Auto)->backend(), NoBackend);
}

void tst_ApiRtAudio::constructor_leavesTheChoice_withoutAnInterface()
{
    Script script;
    QCOMPARE(makeApi(NoBackend)->backend(), Alsa);
    QCOMPARE(makeApi(File)->backend(), Alsa);
}

void tst_ApiRtAudio::constructor_hasNoInstance_whenNotCompiled()
{
    Script script;
    const LogCapture log;
    for (Backend backend : {Disabled, CoreAudio, ASIO}) {
        const auto api = makeApi(backend);
        QCOMPARE(api->backend(), NoBackend);
        QCOMPARE(api->backendString(), QString());
    }
    QCOMPARE(script.count("make"), 0);
    QCOMPARE(log.texts(QtWarningMsg).count(), 3);
}

void tst_ApiRtAudio::constructor_hasNoInstance_whenRtAudioThrows()
{
    Script script;
    script.act("make", Script::Throw);
    const LogCapture log;
    const auto api = makeApi();
    QCOMPARE(api->backend(), NoBackend);
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList{"QTovelMixerApiRtAudio::Data: RtAudio :: RtAudio : exception received!"});
    QCOMPARE(script.alive.load(), 0);
}

void tst_ApiRtAudio::constructor_namesItselfAfterTheBackend()
{
    Script script;
    const HardwareApi api(Jack, {}, 9000);
    QCOMPARE(api.name(), QStringLiteral("Jack"));
    QCOMPARE(api.bufferFrames(), 4096u);
    QCOMPARE(makeApi()->name(), QStringLiteral("Test"));
}

void tst_ApiRtAudio::withoutInstance_everythingIsRefused()
{
    Script script(std::vector<RtAudio::Api>{});
    const LogCapture log;
    const auto api = makeApi();
    QVERIFY(!api->updateDeviceList());
    QCOMPARE(log.count(QtWarningMsg, "QTovelMixerApiRtAudio::updateDeviceList Audio API is NULL!"),
             1);
    QVERIFY(api->deviceListWasChanged());
    QVERIFY(!api->open(nullptr, nullptr, 48000));
    QVERIFY(!api->start());
    QVERIFY(!api->isOpen());
    QVERIFY(!api->isRunning());
    api->stop();
    api->close();
    api->installDeviceFailureCallback();
    QCOMPARE(api->streamStatus().blocks, 0u);
    QCOMPARE(script.callsMade(), QStringList());
}

void tst_ApiRtAudio::updateDeviceList_listsWhatRtAudioShows()
{
    Script script;
    const auto api = makeApi();
    const LogCapture log;
    QVERIFY(api->updateDeviceList());
    QCOMPARE(api->devices().count(), 2);
    QCOMPARE(output(*api)->name(), QStringLiteral("Maker: Speakers"));
    QCOMPARE(output(*api)->uniqueId(),
             QStringLiteral("Maker: Speakers [ 0 input / 2 output ] deviceId = 129 defaultInput = "
                            "0 defaultOutput = 1"));
    QCOMPARE(input(*api)->deviceId(), 130);
    QCOMPARE(log.countStarting("New device found:"), 2);
    QVERIFY(api->deviceListWasChanged());
    QVERIFY(api->updateDeviceList());
    QVERIFY(!api->deviceListWasChanged());
    QCOMPARE(log.count(), 2);
}

void tst_ApiRtAudio::updateDeviceList_keepsDevices_andReadsDefaultsAfresh()
{
    Script script;
    script.setDevices({{"One", 2, 0, true, false}, {"Two", 2, 0, false, false}});
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    QCOMPARE(script.count("make"), 1);
    QVERIFY(api->updateDeviceList());
    // The numbers are the live instance's, the flags a new one's; and that one is gone again.
    QCOMPARE(script.count("make"), 2);
    QCOMPARE(script.alive.load(), 1);
    Device *one = output(*api);
    QCOMPARE(one->name(), QStringLiteral("One"));
    script.setDevices({{"One", 2, 0, false, false}, {"Two", 2, 0, true, false}});
    QVERIFY(api->updateDeviceList());
    QCOMPARE(output(*api)->name(), QStringLiteral("Two"));
    QCOMPARE(one->name(), QStringLiteral("One"));
    QCOMPARE(int(output(*api)->matchScore(
                 "Two [ 0 input / 2 output ] deviceId = 7 defaultInput = 0 defaultOutput = 0")),
             64);
}

void tst_ApiRtAudio::updateDeviceList_keepsWhatItGot_whenRtAudioThrows()
{
    Script script;
    script.act("info", Script::Throw);
    const auto api = makeApi();
    const LogCapture log;
    QVERIFY(api->updateDeviceList());
    QCOMPARE(api->devices().count(), 1);
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList{"QTovelMixerApiRtAudio::updateDeviceList: RtAudio :: getDeviceCount : "
                         "exception received!"});
    script.act("ids", Script::Throw);
    QVERIFY(api->updateDeviceList());
    QCOMPARE(api->devices().count(), 0);
}

void tst_ApiRtAudio::updateDeviceList_namesUnusableDevices()
{
    Script script;
    script.setDevices({{"Maker: \"Broken\"", 0, 0, false, false}});
    const auto api = makeApi();
    const LogCapture log;
    QVERIFY(api->updateDeviceList());
    QCOMPARE(log.texts(QtInfoMsg), QStringList{"QTovelMixerApiRtAudio::updateDeviceList: "
                                               "Unsuccessfull Probe \"Maker: \"Broken\"\""});
    QVERIFY(api->updateDeviceList());
    QVERIFY(api->deviceListWasChanged());
}

void tst_ApiRtAudio::updateDeviceList_keepsTheList_whenTheServerIsSilent()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    const QList<Device *> before = api->devices();
    script.silentServer = true;
    const LogCapture log;
    QVERIFY(!api->updateDeviceList());
    QCOMPARE(api->devices(), before);
    QVERIFY(!api->deviceListWasChanged());
    QCOMPARE(log.texts(), QStringList{"QTovelMixerApiRtAudio::updateDeviceList: the sound server "
                                      "does not answer"});
    // Nobody waits for it twice in one turn of the event loop.
    script.silentServer = false;
    QVERIFY(!api->open(output(*api), nullptr, 48000));
    QCoreApplication::processEvents();
    QVERIFY(api->open(output(*api), nullptr, 48000));
}

void tst_ApiRtAudio::updateDeviceList_keepsEqualNamesApart()
{
    Script script;
    script.setDevices({{"Twin", 2, 0, false, false}, {"Twin", 2, 0, true, false}});
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    QCOMPARE(api->devices().count(), 2);
    QVERIFY(api->updateDeviceList());
    QVERIFY(!api->devices().at(0)->isDefaultOutput());
    QVERIFY(api->devices().at(1)->isDefaultOutput());
    // Each is opened in its own place, also when the numbers are others.
    script.setDevices({{"Twin", 2, 0, false, false}, {"Twin", 2, 0, true, false}}, 400);
    QVERIFY(api->open(api->devices().at(1), nullptr, 48000));
    QCOMPARE(script.askedOutput.deviceId, 401u);
    // A number that another connection gave means nothing: the first twin has the second's now.
    script.setDevices(
        {{"X", 2, 0, false, false}, {"Twin", 2, 0, false, false}, {"Twin", 2, 0, true, false}});
    QVERIFY(api->close());
    QVERIFY(api->updateDeviceList());
    QVERIFY(api->open(api->devices().at(1), nullptr, 48000));
    QCOMPARE(script.askedOutput.deviceId, 130u);
    QVERIFY(api->close());
    script.setDevices({{"Twin", 2, 0, false, false}, {"Twin", 2, 0, true, false}});
    QVERIFY(api->open(api->devices().at(1), nullptr, 48000));
    QCOMPARE(script.askedOutput.deviceId, 129u);
}

void tst_ApiRtAudio::open_refusesBadArguments()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    const LogCapture log;
    QVERIFY(!api->open(nullptr, nullptr, 48000));
    QVERIFY(!api->open(output(*api), nullptr, 9));
    QVERIFY(!api->open(output(*api), nullptr, 192001));
    QCOMPARE(script.count("open"), 0);
    QCOMPARE(log.count(), 3);
    QVERIFY(!api->isOpen());
}

void tst_ApiRtAudio::open_acceptsTheLimitsOfRates()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    for (unsigned rate : {10u, 192000u}) {
        QVERIFY(api->open(output(*api), nullptr, rate));
        QCOMPARE(script.askedRate, rate);
        QVERIFY(api->close());
    }
}

void tst_ApiRtAudio::open_asksForWhatTheDevicesHave()
{
    Script script;
    script.latency = 960;
    script.setDevices({{"Desk", 40, 0, true, false}, {"Stage", 0, 64, false, true}});
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    const LogCapture log;
    QVERIFY(api->open(output(*api), input(*api), 48000));
    QVERIFY(api->isOpen());
    QVERIFY(!api->isRunning());
    QCOMPARE(script.askedOutput.deviceId, 129u);
    QCOMPARE(script.askedOutput.nChannels, 32u);
    QCOMPARE(script.askedOutput.firstChannel, 0u);
    QCOMPARE(script.askedInput.deviceId, 130u);
    QCOMPARE(script.askedInput.nChannels, 32u);
    QCOMPARE(script.askedFrames, 512u);
    QCOMPARE(log.texts(QtInfoMsg),
             (QStringList{"QTovelMixerApiRtAudio::open::streamLatency: 20 ms",
                          "QTovelMixer::open: Output: Desk (32 channels) / Input: Stage (32 "
                          "channels) / Sample Rate: 48000 Hz / 512 samples buffer "}));
    QVERIFY(api->close());
    log.texts();
    QVERIFY(api->open(nullptr, input(*api), 44100));
    QCOMPARE(script.askedOutput.nChannels, 0u);
    QVERIFY(log.contains("Output: null (0 channels) / Input: Stage"));
}

void tst_ApiRtAudio::open_clampsTheBlock()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    api->setBufferFrames(20000);
    QVERIFY(api->open(output(*api), input(*api), 48000));
    QCOMPARE(script.askedFrames, 16384u);
    QVERIFY(api->close());
    api->setBufferFrames(0);
    QVERIFY(api->open(output(*api), nullptr, 48000));
    QCOMPARE(script.askedFrames, 32u);
}

void tst_ApiRtAudio::open_takesTheBlockThatIsGranted()
{
    Script script;
    script.grantedFrames = 1024;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    QVERIFY(api->open(output(*api), nullptr, 48000));
    QCOMPARE(api->bufferFrames(), 1024u);
    QCOMPARE(RtAudioAccess::data(*api).outputBlock.load()->size(), size_t(2048));
    QCOMPARE(RtAudioAccess::data(*api).inputBlock.load()->size(), size_t(0));
}

void tst_ApiRtAudio::open_passesOptionsAndBuffers()
{
    Script script;
    const auto api = makeApi(Pulse, HardwareApi::ScheduleRealtime);
    QVERIFY(api->updateDeviceList());
    QVERIFY(api->open(output(*api), nullptr, 48000));
    QCOMPARE(script.askedOptions.flags, RTAUDIO_SCHEDULE_REALTIME);
    QCOMPARE(script.askedOptions.streamName, std::string("Test"));
    QCOMPARE(script.askedOptions.numberOfBuffers, 4u);
    const auto quick = makeApi(Pulse, HardwareApi::MinimizeLatency, 64);
    QVERIFY(quick->updateDeviceList());
    QVERIFY(quick->open(output(*quick), nullptr, 48000));
    QCOMPARE(script.askedOptions.flags, RTAUDIO_MINIMIZE_LATENCY);
    // 20 ms at least: 15 blocks of 64 frames.
    QCOMPARE(script.askedOptions.numberOfBuffers, 15u);
    const auto both = makeApi(Pulse, HardwareApi::MinimizeLatency | HardwareApi::ScheduleRealtime);
    QVERIFY(both->updateDeviceList());
    QVERIFY(both->open(output(*both), nullptr, 48000));
    QCOMPARE(script.askedOptions.flags, RTAUDIO_MINIMIZE_LATENCY | RTAUDIO_SCHEDULE_REALTIME);
    QCOMPARE(int(HardwareApi::ScheduleRealtime), 1);
    QCOMPARE(int(HardwareApi::MinimizeLatency), 2);
}

void tst_ApiRtAudio::open_findsTheDevice_whenNumbersChanged()
{
    Script script;
    script.setDevices({{"One", 2, 0, true, false}, {"Two", 2, 0, false, false}});
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    Device *two = api->devices().at(1);
    QCOMPARE(two->deviceId(), 130);
    // The number of Two is now that of a stranger with the same channels.
    script.setDevices({{"Two", 2, 0, false, false}, {"Stranger", 2, 0, true, false}});
    QVERIFY(api->open(two, nullptr, 48000));
    QCOMPARE(script.askedOutput.deviceId, 129u);
}

void tst_ApiRtAudio::open_fails_whenTheDeviceIsGone()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    Device *speakers = output(*api);
    // The same name with other channels is another device.
    script.setDevices({{"Maker: Speakers", 6, 0, true, false}});
    const LogCapture log;
    QVERIFY(!api->open(speakers, nullptr, 48000));
    QCOMPARE(script.count("open"), 0);
    QCOMPARE(log.texts(),
             QStringList{"QTovelMixerApiRtAudio::open: the device is not there any more"});
    QVERIFY(!api->isOpen());
}

void tst_ApiRtAudio::open_reportsASilentServer()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    script.silentServer = true;
    const LogCapture log;
    QVERIFY(!api->open(output(*api), nullptr, 48000));
    QCOMPARE(log.texts(),
             QStringList{"QTovelMixerApiRtAudio::open: the sound server does not answer"});
    QCOMPARE(script.count("open"), 0);
}

void tst_ApiRtAudio::open_reportsErrorsAndExceptions()
{
    Script script;
    const auto api = makeApi();
    QVERIFY(api->updateDeviceList());
    const LogCapture log;
    script.act("open", Script::Fail);
    QVERIFY(!api->open(output(*api), nullptr, 48000));
    QCOMPARE(log.texts(QtWarningMsg), QStringList{"QTovelMixerApiRtAudio::open: no such stream"});
    QCOMPARE(log.texts(QtInfoMsg),
             QStringList{"QTovelMixerApiRtAudio__ErrorCallback: no such stream"});
    QCOMPARE(api->streamStatus().lastError, QStringLiteral("no such stream"));
    QVERIFY(!api->isOpen());
    script.act("open", Script::Throw);
    QVERIFY(!api->open(output(*api), nullptr, 48000));
    QCOMPARE(log.texts(QtWarningMsg).last(),
             QStringLiteral("QTovelMixerApiRtAudio::open: RtAudio :: openStream : exception "
                            "received!"));
    script.act("open", Script::Work);
    QVERIFY(api->open(output(*api), nullptr, 48000));
}

void tst_ApiRtAudio::showControlPanel_hasNone()
{
    Script script;
    QVERIFY(!makeApi()->showControlPanel(DeviceKind::Output));
}

QTEST_GUILESS_MAIN(tst_ApiRtAudio)
#include "tst_api_rtaudio.moc"
