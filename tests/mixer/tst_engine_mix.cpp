// SPDX-License-Identifier: MIT
// The block callback and the private record's own operations, without a device.
#include <mixer/engine_p.h>

#include <base/denormals_p.h>
#include <mixer/gains.h>
#include <mixer/io/effect.h>
#include <mixer/io/source.h>
#include <mixer/io/timeline_p.h>
#include <support/log_capture.h>
#include <support/session.h>
#include <support/take_sink.h>

#include <QtTest/QTest>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

using namespace QTovelMixer;

namespace {

using Bus = aligned_vector<float, 16>;
constexpr unsigned frames = 64;

class CountingEffect : public Effect
{
public:
    explicit CountingEffect(unsigned channels) : Effect(48000, channels) {}
    int process(float *buffer, int channels, int count) override
    {
        ++calls;
        nullCalls += buffer == nullptr;
        lastChannels = channels;
        lastFrames = count;
        return Effect::process(buffer, channels, count);
    }
    int processBuffers(const float *input, float *output, int channels, int count) override
    {
        for (int i = 0; i < channels * count; ++i)
            output[i] = input[i] * 2.0f;
        return 1;
    }
    void onReplaced() override { ++replaced; }

    int calls = 0;
    int nullCalls = 0;
    int lastChannels = 0;
    int lastFrames = 0;
    int replaced = 0;
};

/// Notes what the processor does with the smallest of numbers.
class TinyEffect : public CountingEffect
{
public:
    using CountingEffect::CountingEffect;
    int process(float *buffer, int channels, int count) override
    {
        asZero = DenormalsAsZero::isSet();
        return CountingEffect::process(buffer, channels, count);
    }

    bool asZero = false;
};

Bus filled(size_t size, float value)
{
    Bus bus(size);
    bus = value;
    return bus;
}

} // namespace

class tst_EngineMix : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase_data();
    void init();
    void cleanup();
    void callback_doesNothing_whenABlockIsTooSmall();
    void callback_dropsTheBlock_whenTheLockIsBusyAndItMayNotWait();
    void callback_isSilent_whileHeld();
    void callback_advancesTheClock();
    void callback_handlesOtherBlockLengths();
    void masterGain_rampsWithinOneBlock();
    void masterGain_ofInput_appliesBeforeTheMix();
    void masterGain_callsItsHook();
    void matrix_ignoresDisabledCells_untilGainsAreWritten();
    void matrix_hearsAChangedCell();
    void matrix_equalsThePlainLoops();
    void inputEffect_runsUnlessBypassed();
    void callback_takesDenormalsForZero_andLeavesTheThreadAsItWas();
    void outputEffect_getsNoSamples_withoutSources();
    void block_asksEverySourceForItsTime();
    void block_looksThePositionUpOnce_forAllSources();
    void effect_isLetGo_whenDestroyedOrReplaced();
    void setMixerGains_withoutTable_usesTheDefaults();
    void setMixerGains_withoutChannels_changesNothing();
    void setInputMask_refusesMoreThan32();
    void setInputMask_switchesRows();
    void removeInputGains_closesTheGap();
    void removeOutputGains_closesTheGap();
    void load_isAccountedFor();

private:
    void openChannels(unsigned inputs, unsigned outputs);
    int call(unsigned status = 0)
    {
        return engine->mixerCallback(input, output, frames, 0.0, status);
    }
    Engine::Data &data() { return EngineAccess::shipped(*engine); }
    void setCell(unsigned row, unsigned column, float gain);
    void setEnabled(unsigned row, unsigned column, bool enabled);
    void setCells(unsigned rows, unsigned columns, const std::vector<float> &gains);

    std::unique_ptr<Engine> engine;
    bool isWatched = false;
    Bus input;
    Bus output;
};

// What every host has, and what those have who write cells past the matrix's functions.
void tst_EngineMix::initTestCase_data()
{
    QTest::addColumn<bool>("cellsAreWatched");
    QTest::newRow("as shipped") << false;
    QTest::newRow("cells watched") << true;
}

void tst_EngineMix::init()
{
    QFETCH_GLOBAL(const bool, cellsAreWatched);
    isWatched = cellsAreWatched;
    engine = std::make_unique<Engine>(nullptr);
    if (isWatched)
        EngineAccess::data(*engine);
}

void tst_EngineMix::cleanup()
{
    engine.reset();
}

void tst_EngineMix::openChannels(unsigned inputs, unsigned outputs)
{
    Engine::Data &d = data();
    d.active = true;
    d.numInputChannels = inputs;
    d.numOutputChannels = outputs;
    d.inputBuses.clear();
    d.outputBuses.clear();
    for (unsigned i = 0; i < inputs; ++i)
        d.inputBuses.emplace_back(frames);
    for (unsigned i = 0; i < outputs; ++i)
        d.outputBuses.emplace_back(frames);
    input = filled(size_t(inputs) * frames, 1.0f);
    output = filled(size_t(outputs) * frames, 7.0f);
}

void tst_EngineMix::setCell(unsigned row, unsigned column, float gain)
{
    if (isWatched)
        data().gainMatrix[row][column] = gain;
    else
        QVERIFY(data().setCell({nullptr, nullptr, row, column}, gain));
}

void tst_EngineMix::setEnabled(unsigned row, unsigned column, bool enabled)
{
    if (isWatched)
        data().enableMatrix[row][column] = enabled ? 1.0f : 0.0f;
    else
        data().set_input_mask(row, 1, column, 1, enabled ? 1 : 0);
}

/// `gains` is row-major.
void tst_EngineMix::setCells(unsigned rows, unsigned columns, const std::vector<float> &gains)
{
    if (!isWatched) {
        data().set_mixer_gains(0, rows, 0, columns, 1.0f, gains.data());
        return;
    }
    for (unsigned row = 0; row < rows; ++row)
        std::copy_n(gains.data() + size_t(row) * columns, columns, data().gainMatrix[row]);
}

void tst_EngineMix::callback_doesNothing_whenABlockIsTooSmall()
{
    openChannels(2, 2);
    input = filled(2 * frames - 1, 1.0f);
    QCOMPARE(call(), 0);
    QCOMPARE(output[0], 7.0f);
    input = filled(2 * frames, 1.0f);
    Bus whole = output;
    output = filled(2 * frames - 1, 7.0f);
    QCOMPARE(call(), 0);
    QCOMPARE(output[0], 7.0f);
    QCOMPARE(data().mixTime.load(), 0);
    QCOMPARE(data().callbackCount.load(), 0u);
    output = whole;
    call();
    QCOMPARE(data().callbackCount.load(), 1u);
}

void tst_EngineMix::callback_dropsTheBlock_whenTheLockIsBusyAndItMayNotWait()
{
    openChannels(0, 1);
    const QMutexLocker locker(&data().updateLock);
    int answer = -1;
    std::thread other([&] { answer = call(0x4); });
    other.join();
    QCOMPARE(answer, 0);
    QCOMPARE(output[0], 7.0f);
    QCOMPARE(data().callbackCount.load(), 0u);
    QCOMPARE(data().mixTime.load(), 0);
}

void tst_EngineMix::callback_isSilent_whileHeld()
{
    openChannels(1, 1);
    setCell(0, 0, 1.0f);
    auto *sink = new TakeSink(engine.get(), 48000, 1);
    data().sinks.push_back(sink);
    data().outputBuses.emplace_back(frames);
    data().holdCount = 1;
    call();
    for (unsigned i = 0; i < frames; ++i)
        QCOMPARE(output[int(i)], 0.0f);
    QCOMPARE(data().mixTime.load(), 0);
    QCOMPARE(data().callbackCount.load(), 1u);
    data().holdCount = 0;
    call();
    QCOMPARE(output[0], 1.0f);
    QCOMPARE(data().mixTime.load(), qint64(frames));
    data().sinks.clear();
    delete sink;
}

void tst_EngineMix::callback_advancesTheClock()
{
    openChannels(0, 2);
    for (int i = 1; i <= 3; ++i) {
        QCOMPARE(call(), 0);
        QCOMPARE(data().mixTime.load(), qint64(i) * frames);
        QCOMPARE(data().callbackCount.load(), quint64(i));
    }
}

void tst_EngineMix::callback_handlesOtherBlockLengths()
{
    openChannels(1, 1);
    setCell(0, 0, 1.0f);
    QCOMPARE(engine->mixerCallback(input, output, 10, 0.0, 0), 0);
    for (int i = 0; i < 10; ++i)
        QCOMPARE(output[i], 1.0f);
    QCOMPARE(output[10], 7.0f);
    QCOMPARE(data().mixTime.load(), 10);
    QCOMPARE(input.size(), size_t(frames));

    // A block beyond what the buses hold ends in silence.
    input = filled(2 * frames, 1.0f);
    output = filled(2 * frames, 7.0f);
    QCOMPARE(engine->mixerCallback(input, output, 2 * frames, 0.0, 0), 0);
    QCOMPARE(output[frames - 1], 1.0f);
    QCOMPARE(output[frames], 0.0f);
    QCOMPARE(output[2 * frames - 1], 0.0f);
}

void tst_EngineMix::masterGain_rampsWithinOneBlock()
{
    openChannels(1, 1);
    setCell(0, 0, 1.0f);
    engine->setMasterOutputGain(0.0f);
    engine->mixerCallback(input, output, 4, 0.0, 0);
    QCOMPARE(output[0], 1.0f);
    QCOMPARE(output[1], 0.75f);
    QCOMPARE(output[2], 0.5f);
    QCOMPARE(output[3], 0.25f);
    engine->mixerCallback(input, output, 4, 0.0, 0);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(output[i], 0.0f);
    QCOMPARE(data().masterOutputGainApplied, 0.0f);
}

void tst_EngineMix::masterGain_ofInput_appliesBeforeTheMix()
{
    openChannels(2, 1);
    setCell(1, 0, 1.0f);
    engine->setMasterInputGain(3.0f);
    engine->mixerCallback(input, output, 4, 0.0, 0);
    QCOMPARE(output[0], 1.0f);
    QCOMPARE(output[1], 1.5f);
    QCOMPARE(output[2], 2.0f);
    QCOMPARE(output[3], 2.5f);
    input = 1.0f;
    engine->mixerCallback(input, output, 4, 0.0, 0);
    QCOMPARE(output[0], 3.0f);
    QCOMPARE(engine->masterInputGain(), 3.0f);
}

void tst_EngineMix::masterGain_callsItsHook()
{
    class Hooked : public Engine
    {
    public:
        Hooked() : Engine(nullptr) {}
        void onMasterGainChanged() override
        {
            seen.append({masterOutputGain(), masterInputGain()});
        }

        QList<std::pair<float, float>> seen;
    };
    Hooked hooked;
    hooked.setMasterOutputGain(0.5f);
    hooked.setMasterInputGain(0.25f);
    const QList<std::pair<float, float>> expected{{0.5f, 1.0f}, {0.5f, 0.25f}};
    QCOMPARE(hooked.seen, expected);
}

void tst_EngineMix::matrix_ignoresDisabledCells_untilGainsAreWritten()
{
    openChannels(1, 1);
    setCell(0, 0, 0.5f);
    setEnabled(0, 0, false);
    call();
    QCOMPARE(output[0], 0.0f);
    const float half = 0.5f;
    data().set_mixer_gains(0, 1, 0, 1, 1.0f, &half);
    input = 1.0f;
    call();
    QCOMPARE(output[0], 0.5f);
}

void tst_EngineMix::matrix_hearsAChangedCell()
{
    openChannels(2, 2);
    call();
    QCOMPARE(output[0], 0.0f);
    setCell(1, 0, 0.25f);
    call();
    QCOMPARE(output[0], 0.25f);
    setCell(1, 0, 0.0f);
    call();
    QCOMPARE(output[0], 0.0f);
}

void tst_EngineMix::matrix_equalsThePlainLoops()
{
    std::mt19937 random(11);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (const unsigned channels : {1u, 3u, 8u, 33u, 128u}) {
        openChannels(channels, channels);
        for (size_t i = 0; i < input.size(); ++i)
            input[int(i)] = value(random);
        std::vector<float> gains(size_t(channels) * channels);
        for (float &gain : gains)
            gain = random() % 3 ? value(random) : 0.0f;
        setCells(channels, channels, gains);
        call();
        for (unsigned column = 0; column < channels; ++column) {
            for (unsigned frame = 0; frame < frames; ++frame) {
                float expected = 0.0f;
                for (unsigned row = 0; row < channels; ++row) {
                    const float gain = gains[row * channels + column];
                    if (gain != 0.0f) {
                        const volatile float product = gain * input[int(frame * channels + row)];
                        expected += product;
                    }
                }
                const float got = output[int(frame * channels + column)];
                QVERIFY(std::memcmp(&got, &expected, sizeof got) == 0);
            }
        }
    }
}

void tst_EngineMix::inputEffect_runsUnlessBypassed()
{
    openChannels(1, 1);
    setCell(0, 0, 1.0f);
    CountingEffect effect(2); // another channel count does not matter here
    QCOMPARE(engine->replaceInputEffect(&effect), nullptr);
    call();
    QCOMPARE(effect.calls, 1);
    QCOMPARE(effect.lastChannels, 1);
    QCOMPARE(effect.lastFrames, int(frames));
    QCOMPARE(output[0], 2.0f);
    engine->setInputEffectBypass(true);
    input = 1.0f;
    call();
    QCOMPARE(effect.calls, 1);
    QCOMPARE(output[0], 1.0f);
    QCOMPARE(engine->replaceInputEffect(nullptr), &effect);
    QCOMPARE(effect.replaced, 1);
}

void tst_EngineMix::callback_takesDenormalsForZero_andLeavesTheThreadAsItWas()
{
#if !defined(__SSE2__) && !defined(__aarch64__)
    return; // no such setting
#endif
    openChannels(1, 1);
    setCell(0, 0, 1.0f);
    TinyEffect effect(2);
    engine->replaceInputEffect(&effect);
    QVERIFY(!DenormalsAsZero::isSet());
    input = std::numeric_limits<float>::denorm_min();
    call();
    QVERIFY(effect.asZero);
    QVERIFY(!DenormalsAsZero::isSet());
    QCOMPARE(output[0], 0.0f);
    {
        const DenormalsAsZero hostsOwn;
        call();
        QVERIFY(DenormalsAsZero::isSet());
    }
    QVERIFY(!DenormalsAsZero::isSet());
    engine->replaceInputEffect(nullptr);
}

void tst_EngineMix::outputEffect_getsNoSamples_withoutSources()
{
    openChannels(0, 2);
    CountingEffect effect(6);
    engine->replaceOutputEffect(&effect);
    call();
    QCOMPARE(effect.nullCalls, 1);
    QCOMPARE(effect.lastChannels, 6);
    QCOMPARE(effect.lastFrames, int(frames));
    data().holdCount = 1;
    call();
    QCOMPARE(effect.nullCalls, 2);
    engine->setOutputEffectBypass(true);
    call();
    QCOMPARE(effect.calls, 2);
    engine->replaceOutputEffect(nullptr);
}

void tst_EngineMix::effect_isLetGo_whenDestroyedOrReplaced()
{
    openChannels(0, 1);
    auto *first = new CountingEffect(1);
    CountingEffect second(1);
    engine->replaceOutputEffect(first);
    QCOMPARE(engine->replaceOutputEffect(&second), first);
    QCOMPARE(first->replaced, 1);
    delete first;
    QCOMPARE(data().outputEffect, &second);
    auto *third = new CountingEffect(1);
    engine->replaceOutputEffect(third);
    delete third;
    QCOMPARE(data().outputEffect, nullptr);
    call();
}

void tst_EngineMix::setMixerGains_withoutTable_usesTheDefaults()
{
    data().set_mixer_gains(4, 2, 0, 1, 0.5f, nullptr);
    QCOMPARE(data().gainMatrix[4][0], 0.25f);
    QCOMPARE(data().gainMatrix[5][0], 0.25f);
    data().set_mixer_gains(0, 2, 4, 1, 0.5f, nullptr);
    QCOMPARE(data().gainMatrix[0][4], 0.5f);
    QCOMPARE(data().gainMatrix[1][4], 0.0f);
}

void tst_EngineMix::setMixerGains_withoutChannels_changesNothing()
{
    openChannels(1, 1);
    setCell(0, 0, 0.125f);
    data().set_mixer_gains(0, 0, 0, 2, 1.0f, nullptr);
    data().set_mixer_gains(0, 2, 0, 0, 1.0f, nullptr);
    QCOMPARE(data().gainMatrix[0][0], 0.125f);
}

void tst_EngineMix::setInputMask_refusesMoreThan32()
{
    data().set_input_mask(0, 33, 0, 2, 0);
    data().set_input_mask(0, 64, 0, 2, 0x1ffffffffull);
    data().set_input_mask(0, 2, 0, 33, 0);
    data().set_input_mask(0, 0, 0, 2, 0);
    data().set_input_mask(0, 2, 0, 0, 0);
    for (int row = 0; row < 64; ++row)
        QCOMPARE(data().enableMatrix[row][0], 1.0f);
}

void tst_EngineMix::setInputMask_switchesRows()
{
    data().set_input_mask(3, 3, 1, 2, 0xfffffff5ull);
    for (int column = 0; column < 4; ++column) {
        const bool inside = column == 1 || column == 2;
        QCOMPARE(data().enableMatrix[3][column], 1.0f);
        QCOMPARE(data().enableMatrix[4][column], inside ? 0.0f : 1.0f);
        QCOMPARE(data().enableMatrix[5][column], 1.0f);
        QCOMPARE(data().enableMatrix[6][column], 1.0f);
    }
}

void tst_EngineMix::removeInputGains_closesTheGap()
{
    openChannels(128, 128);
    for (unsigned row = 0; row < 128; ++row) {
        setCell(row, 5, float(row));
        setEnabled(row, 5, row % 2);
    }
    data().remove_input_gains(10, 3);
    for (int row = 0; row < 128; ++row) {
        const int from = row < 10 ? row : row + 3;
        QCOMPARE(data().gainMatrix[row][5], from < 128 ? float(from) : 0.0f);
        QCOMPARE(data().enableMatrix[row][5], float(row % 2));
    }
}

void tst_EngineMix::removeOutputGains_closesTheGap()
{
    openChannels(128, 128);
    for (unsigned column = 0; column < 128; ++column) {
        setCell(5, column, float(column));
        setEnabled(5, column, column % 2);
    }
    data().remove_output_gains(120, 5);
    for (int column = 0; column < 128; ++column) {
        const int from = column < 120 ? column : column + 5;
        QCOMPARE(data().gainMatrix[5][column], from < 128 ? float(from) : 0.0f);
        QCOMPARE(data().enableMatrix[5][column], float(column % 2));
    }
}

void tst_EngineMix::load_isAccountedFor()
{
    openChannels(0, 1);
    data().peakCallbackLoad = 1000000;
    data().averageCallbackLoad = 100.0;
    call();
    QVERIFY(data().lastCallbackLoad >= 0);
    QCOMPARE(data().peakCallbackLoad.load(), 1000000);
    const double expected = 100.0 * 0.999 + double(data().lastCallbackLoad) * 0.001;
    QCOMPARE(data().averageCallbackLoad.load(), expected);
}

// A host may override it, whatever clock and timeline say.
void tst_EngineMix::block_asksEverySourceForItsTime()
{
    class Absent : public RampSource
    {
    public:
        using RampSource::RampSource;
        ~Absent() override
        {
            stop(NoReason);
            wait();
        }
        double time(bool clamp) const override { return away ? -1.0 : RampSource::time(clamp); }
        std::atomic<bool> away{false};
    };
    const LogCapture quiet;
    Session session;
    auto *source = new Absent(&session.engine, 48000, 2, 60.0);
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(0.0));
    std::vector<float> heard = session.run(2);
    QCOMPARE(heard.front(), 0.0f);
    QCOMPARE(heard.back(), 511.0f);
    source->away = true;
    heard = session.run(1);
    QVERIFY(std::all_of(heard.begin(), heard.end(), [](float sample) { return sample == 0.0f; }));
    session.stopAll();
}

void tst_EngineMix::block_looksThePositionUpOnce_forAllSources()
{
    const LogCapture quiet;
    Session session;
    QVERIFY(session.engine.addSource(new RampSource(&session.engine, 48000, 2, 60.0)));
    session.engine.addSelection(1.0, 2.0);
    session.engine.addSelection(4.0, 9.0);
    QVERIFY(session.engine.start(1.5));
    session.run(3);
    const auto &timeline = TimelineAccess::data(*session.engine.timeline());
    // Half a second of the pass, and two blocks.
    const double block = (24000 + 512) / 48000.0;
    QCOMPARE(timeline.remembered.at(block), std::optional(block + 1.0));
    session.stopAll();
}

QTEST_GUILESS_MAIN(tst_EngineMix)
#include "tst_engine_mix.moc"
