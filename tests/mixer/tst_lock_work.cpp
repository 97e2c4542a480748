// SPDX-License-Identifier: MIT
// What a change of the mix does while it holds the update lock: a block may be waiting for it.
#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>
#include <support/ramp_source.h>
#include <support/rtguard.h>
#include <support/take_sink.h>

#include <QtTest/QTest>

#include <atomic>
#include <functional>
#include <new>

using namespace QTovelMixer;

namespace {

/// A guard from the moment a thread has the lock until it gives it back. Other locks may be taken
/// meanwhile: those that inherit priority.
struct Watch
{
    static inline thread_local bool isOn = false;
    static inline thread_local int depth = 0;
    static inline thread_local int held = 0;
    static inline thread_local int violations = 0;

    static RealtimeGuard *guard()
    {
        alignas(RealtimeGuard) static thread_local unsigned char place[sizeof(RealtimeGuard)];
        return std::launder(reinterpret_cast<RealtimeGuard *>(place));
    }
    static void taken()
    {
        if (isOn && depth++ == 0)
            new (static_cast<void *>(guard())) RealtimeGuard;
    }
    static void released()
    {
        if (!isOn || depth == 0 || --depth > 0)
            return;
        guard()->end();
        violations += guard()->violations();
        guard()->~RealtimeGuard();
        ++held;
    }
};

} // namespace

#if defined(WATCHES_THE_LOCK)
// The linker puts these in the place of the lock's functions, in everything that is linked
// statically.
extern "C" {
void __real__ZN11QTovelMixer10UpdateLock4lockEv(void *lock);
void __real__ZN11QTovelMixer10UpdateLock6unlockEv(void *lock);
void __real__ZN11QTovelMixer13PriorityMutex4lockEv(void *mutex);
void __real__ZN11QTovelMixer13PriorityMutex6unlockEv(void *mutex);
void __wrap__ZN11QTovelMixer10UpdateLock4lockEv(void *lock);
void __wrap__ZN11QTovelMixer10UpdateLock6unlockEv(void *lock);
void __wrap__ZN11QTovelMixer13PriorityMutex4lockEv(void *mutex);
void __wrap__ZN11QTovelMixer13PriorityMutex6unlockEv(void *mutex);

void __wrap__ZN11QTovelMixer10UpdateLock4lockEv(void *lock)
{
    __real__ZN11QTovelMixer10UpdateLock4lockEv(lock);
    Watch::taken();
}

void __wrap__ZN11QTovelMixer10UpdateLock6unlockEv(void *lock)
{
    Watch::released();
    __real__ZN11QTovelMixer10UpdateLock6unlockEv(lock);
}

void __wrap__ZN11QTovelMixer13PriorityMutex4lockEv(void *mutex)
{
    const RealtimeGuardExemption exemption;
    __real__ZN11QTovelMixer13PriorityMutex4lockEv(mutex);
}

void __wrap__ZN11QTovelMixer13PriorityMutex6unlockEv(void *mutex)
{
    const RealtimeGuardExemption exemption;
    __real__ZN11QTovelMixer13PriorityMutex6unlockEv(mutex);
}
}
constexpr bool isWatched = true;
#else
constexpr bool isWatched = false;
#endif

namespace {

/// An engine that plays one source and records one sink. Both bring no more channels than the
/// device has.
struct Desk
{
    Desk() : api(new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::RealTime)), engine(api)
    {
        api->plug({.name = "Speaker",
                   .inputChannels = 2,
                   .outputChannels = 2,
                   .defaultInput = true,
                   .defaultOutput = true});
        api->setOutputHandler([this](const float *, unsigned, unsigned, quint64) { ++blocks; });
        api->updateDeviceList();
        engine.activate();
        source = new RampSource(&engine, 48000, 2, 1000.0);
        sink = new TakeSink(&engine, 48000, 2);
        isPlaying = engine.addSource(source) && engine.addSink(sink) && engine.start();
    }
    ~Desk() { engine.deactivate(); }
    Q_DISABLE_COPY_MOVE(Desk)

    QTovelMixerApiVirtual *api;
    std::atomic<int> blocks{0};
    Engine engine;
    RampSource *source;
    TakeSink *sink;
    bool isPlaying;
};

using Change = std::function<bool(Desk &)>;

} // namespace

Q_DECLARE_METATYPE(Change)

class tst_LockWork : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void change_takesNoMemory_norCallsTheSystem_data();
    void change_takesNoMemory_norCallsTheSystem();
    void guard_seesWhatAHookDoes();
};

void tst_LockWork::initTestCase()
{
    if (!isWatched)
        QSKIP("the lock's functions cannot be replaced here");
    Engine::Initialize();
}

void tst_LockWork::change_takesNoMemory_norCallsTheSystem_data()
{
    QTest::addColumn<Change>("change");
    const auto row = [](const char *name, Change change) { QTest::newRow(name) << change; };
    row("add and delete a source", [](Desk &desk) {
        auto *more = new RampSource(&desk.engine, 48000, 2, 1000.0);
        const bool added = desk.engine.addSource(more);
        desk.engine.deleteSource(more);
        return added;
    });
    row("add and delete a sink", [](Desk &desk) {
        auto *more = new TakeSink(&desk.engine, 48000, 2);
        const bool added = desk.engine.addSink(more);
        desk.engine.deleteSink(more);
        return added;
    });
    row("delete a source with gains, a mask and a route", [](Desk &desk) {
        auto *more = new RampSource(&desk.engine, 48000, 2, 1000.0);
        const bool added = desk.engine.addSource(more) && desk.engine.setGain(more, 1, 0, 0.5f) &&
                           desk.engine.setChannelsMask(more, 1) &&
                           desk.engine.setGain(more, 0, desk.sink, 1, 0.5f) &&
                           desk.engine.addRoute(more, desk.sink, 0.5f);
        desk.engine.deleteSource(more);
        return added;
    });
    row("refuse a source that finds no room", [](Desk &desk) {
        auto *wide = new RampSource(&desk.engine, 48000, 125, 1000.0);
        const bool added = desk.engine.addSource(wide);
        desk.engine.deleteSource(wide);
        return !added;
    });
    row("gain to the device",
        [](Desk &desk) { return desk.engine.setGain(desk.source, 1, 0, 0.5f); });
    row("gain of the device",
        [](Desk &desk) { return desk.engine.setGain(1, desk.sink, 0, 0.5f); });
    row("gain to a sink",
        [](Desk &desk) { return desk.engine.setGain(desk.source, 1, desk.sink, 0, 0.5f); });
    row("route", [](Desk &desk) { return desk.engine.addRoute(desk.source, desk.sink, 0.5f); });
    row("mask", [](Desk &desk) { return desk.engine.setChannelsMask(desk.source, 1); });
    row("monitoring", [](Desk &desk) {
        desk.engine.setMonitoring(true);
        desk.engine.setMonitoring(false);
        return true;
    });
    row("loop", [](Desk &desk) {
        desk.engine.setLooping(true);
        desk.engine.setLooping(false);
        return true;
    });
    row("position", [](Desk &desk) {
        desk.engine.setTime(1.0);
        return true;
    });
}

// An allocation may wait for a lock that does not inherit priority, or for a page; a system call
// that wakes a thread lets another one have the processor.
void tst_LockWork::change_takesNoMemory_norCallsTheSystem()
{
    QFETCH(Change, change);
    Desk desk;
    QVERIFY(desk.isPlaying);
    QTRY_VERIFY(desk.blocks > 2);
    RealtimeGuard::resetTotal();
    Watch::held = 0;
    Watch::violations = 0;
    Watch::isOn = true;
    const bool done = change(desk);
    Watch::isOn = false;
    QVERIFY(done);
    QCOMPARE(Watch::depth, 0);
    QVERIFY(Watch::held > 0);
    QVERIFY2(Watch::violations == 0, qPrintable(RealtimeGuard::first()));
}

namespace {
struct HungrySource : RampSource
{
    using RampSource::RampSource;
    void onAdded(Engine *) override { delete new int volatile(1); }
};
} // namespace

// What the host does in the hook is its own affair; that the guard sees it shows that it sees.
void tst_LockWork::guard_seesWhatAHookDoes()
{
    Desk desk;
    QVERIFY(desk.isPlaying);
    Watch::violations = 0;
    Watch::isOn = true;
    const bool added = desk.engine.addSource(new HungrySource(&desk.engine, 48000, 2, 1000.0));
    Watch::isOn = false;
    QVERIFY(added);
    QVERIFY(Watch::violations > 0);
}

QTEST_GUILESS_MAIN(tst_LockWork)

#include "tst_lock_work.moc"
