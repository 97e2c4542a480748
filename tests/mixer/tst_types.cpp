// SPDX-License-Identifier: MIT
#include <mixer/types.h>

#include <QtTest/QTest>

#include <limits>
#include <stdexcept>
#include <thread>

using namespace QTovelMixer;

static_assert(sizeof(StopReason) == 4 && sizeof(DeviceKind) == 4 && sizeof(Type) == 4);
static_assert(sizeof(Option) == 4 && sizeof(PauseMode) == 4 && sizeof(PlaybackState) == 4);
static_assert(sizeof(MonitorTrigger) == 4 && sizeof(Backend) == 4);
static_assert(NoReason == 0 && AudioFinished == 1 && PausePositionReached == 2);
static_assert(UserStopAction == 3 && UserPauseAction == 4 && DeviceListChanged == 5);
static_assert(DeviceFailed == 6);
static_assert(DeviceKind::Input == 0 && DeviceKind::Output == 1);
static_assert(Type() == 0 && Type::Input == 1 && Type::Output == 2 && Type::Loop == 3);
static_assert(NoAddedSignal == 0x1 && NoTimeline == 0x2);
static_assert(PauseSoft == 0 && PauseKeepState == 1);
static_assert(Stopped == 0 && Playing == 1 && Paused == 2);
static_assert(MonitorUntilStop == 1);
static_assert(NoBackend == -1 && Auto == 0 && File == 1 && Alsa == 2 && Pulse == 3 && OSS == 4);
static_assert(Jack == 5 && CoreAudio == 6 && WASAPI == 7 && ASIO == 8 && DirectSound == 9);
static_assert(Disabled == 10);

class tst_Types : public QObject
{
    Q_OBJECT

private slots:
    void toString_givesTheNames();
    void fromTypeString_ignoresCase();
    void fromTypeString_answersNoType_forOtherTexts();
    void convertBackend_goesBothWays_data();
    void convertBackend_goesBothWays();
    void convertBackendToString_isEmpty_withoutBackend();
    void convertBackendToString_throws_outsideTheRange();
    void convertStringToBackend_answersAuto_forOtherTexts();
    void range_isInvalid_byDefault();
    void range_isValid_fromZeroAndNotEmpty();
    void config_hasItsDefaults();
    void options_combine();
    void isRunningInMainThread_tellsTheThreadsApart();
};

void tst_Types::toString_givesTheNames()
{
    QCOMPARE(toString(Type::Input), "input");
    QCOMPARE(toString(Type::Output), "output");
    QCOMPARE(toString(Type::Loop), "loop");
    QCOMPARE(toString(Type::NoType), "invalid");
    QCOMPARE(toString(Type(17)), "invalid");
    QCOMPARE(toString(Type(-1)), "invalid");
}

void tst_Types::fromTypeString_ignoresCase()
{
    for (const Type type : {Type::Input, Type::Output, Type::Loop}) {
        QCOMPARE(fromTypeString(toString(type)), type);
        QCOMPARE(fromTypeString(toString(type).toUpper()), type);
    }
    QCOMPARE(fromTypeString("InPut"), Type::Input);
}

void tst_Types::fromTypeString_answersNoType_forOtherTexts()
{
    for (const char *text : {"", "invalid", " input", "inputs", "0", "1"})
        QCOMPARE(fromTypeString(QString::fromLatin1(text)), Type::NoType);
    QCOMPARE(fromTypeString(QString()), Type::NoType);
}

void tst_Types::convertBackend_goesBothWays_data()
{
    QTest::addColumn<int>("backend");
    QTest::addColumn<QString>("name");
    QTest::newRow("auto") << 0 << "Auto";
    QTest::newRow("file") << 1 << "File";
    QTest::newRow("alsa") << 2 << "Alsa";
    QTest::newRow("pulse") << 3 << "Pulse";
    QTest::newRow("oss") << 4 << "OSS";
    QTest::newRow("jack") << 5 << "Jack";
    QTest::newRow("core audio") << 6 << "CoreAudio";
    QTest::newRow("wasapi") << 7 << "WASAPI";
    QTest::newRow("asio") << 8 << "ASIO";
    QTest::newRow("direct sound") << 9 << "DirectSound";
    QTest::newRow("disabled") << 10 << "Disabled";
}

void tst_Types::convertBackend_goesBothWays()
{
    QFETCH(int, backend);
    QFETCH(QString, name);
    QCOMPARE(convertBackendToString(Backend(backend)), name);
    QCOMPARE(int(convertStringToBackend(name)), backend);
    QCOMPARE(int(convertStringToBackend(name.toUpper())), backend);
    QCOMPARE(int(convertStringToBackend(name.toLower())), backend);
}

void tst_Types::convertBackendToString_isEmpty_withoutBackend()
{
    QVERIFY(convertBackendToString(NoBackend).isEmpty());
}

void tst_Types::convertBackendToString_throws_outsideTheRange()
{
    for (const int value : {11, -2, 1000}) {
        try {
            convertBackendToString(Backend(value));
            QFAIL("no exception");
        } catch (const std::logic_error &error) {
            QCOMPARE(error.what(), "Invalid backend");
        }
    }
}

void tst_Types::convertStringToBackend_answersAuto_forOtherTexts()
{
    for (const char *text : {"", "NoBackend", "Alsa ", "pulseaudio"})
        QCOMPARE(convertStringToBackend(QString::fromLatin1(text)), Auto);
}

void tst_Types::range_isInvalid_byDefault()
{
    const Range range;
    QCOMPARE(range.start, -1.0);
    QCOMPARE(range.end, -1.0);
    QVERIFY(!range.isValid());
}

void tst_Types::range_isValid_fromZeroAndNotEmpty()
{
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    QVERIFY((Range{0.0, 1.0}.isValid()));
    QVERIFY((Range{-0.0, 1e-9}.isValid()));
    QVERIFY((!Range{1.0, 1.0}.isValid()));
    QVERIFY((!Range{2.0, 1.0}.isValid()));
    QVERIFY((!Range{-1e-9, 1.0}.isValid()));
    QVERIFY((!Range{nan, 1.0}.isValid()));
    QVERIFY((!Range{0.0, nan}.isValid()));
    QVERIFY((Range{1.0, 2.0} == Range{1.0, 2.0}));
    QVERIFY((Range{1.0, 2.0} != Range{1.0, 3.0}));
}

void tst_Types::config_hasItsDefaults()
{
    const Config config;
    QCOMPARE(config.position, 0.0);
    QCOMPARE(config.scale, 1.0);
    QVERIFY(config.range == Range());
    QCOMPARE(config.flags, 0);
    QCOMPARE(config.channelMask, quint64(0xff));
}

void tst_Types::options_combine()
{
    const Options both = NoAddedSignal | NoTimeline;
    QCOMPARE(int(both), 0x3);
    QVERIFY(both.testFlag(NoTimeline));
    QVERIFY(!Options().testFlag(NoAddedSignal));
}

void tst_Types::isRunningInMainThread_tellsTheThreadsApart()
{
    QVERIFY(IsRunningInMainThread());
    bool elsewhere = true;
    std::thread([&] { elsewhere = IsRunningInMainThread(); }).join();
    QVERIFY(!elsewhere);
}

QTEST_GUILESS_MAIN(tst_Types)
#include "tst_types.moc"
