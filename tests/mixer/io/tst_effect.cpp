// SPDX-License-Identifier: MIT
#include <mixer/io/effect.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

class CountingEffect : public Effect
{
public:
    using Effect::Effect;

    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        ++calls;
        lastInput = input;
        lastOutput = output;
        lastChannels = channels;
        lastFrames = frames;
        return answer;
    }

    int calls = 0;
    int answer = 7;
    const float *lastInput = nullptr;
    float *lastOutput = nullptr;
    int lastChannels = 0;
    int lastFrames = 0;
};

} // namespace

class TestEffect : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void construction_storesFormat();
    void defaults_areQuiet();
    void process_nullBuffer_returnsZeroUncalled();
    void process_runsHostInPlace();
    void process_returnsHostsFailure();
};

void TestEffect::construction_storesFormat()
{
    const CountingEffect effect(44100, 6);
    QCOMPARE(effect.sampleRate(), 44100);
    QCOMPARE(effect.numChannels(), 6u);
    QVERIFY(!effect.parent());
}

void TestEffect::defaults_areQuiet()
{
    CountingEffect effect(48000, 2);
    effect.setObjectName("reverb");
    QCOMPARE(effect.name(), QString("reverb"));
    QCOMPARE(effect.tailSize(), 0);
    effect.reset();
    effect.onReplaced();
    QCOMPARE(effect.calls, 0);
}

void TestEffect::process_nullBuffer_returnsZeroUncalled()
{
    CountingEffect effect(48000, 2);
    QCOMPARE(effect.process(nullptr, 2, 512), 0);
    QCOMPARE(effect.calls, 0);
}

void TestEffect::process_runsHostInPlace()
{
    CountingEffect effect(48000, 2);
    float buffer[8] = {};
    QCOMPARE(effect.process(buffer, 2, 4), 7);
    QCOMPARE(effect.calls, 1);
    QCOMPARE(effect.lastInput, buffer);
    QCOMPARE(effect.lastOutput, buffer);
    QCOMPARE(effect.lastChannels, 2);
    QCOMPARE(effect.lastFrames, 4);
}

void TestEffect::process_returnsHostsFailure()
{
    CountingEffect effect(48000, 2);
    effect.answer = 0;
    float buffer[2] = {};
    QCOMPARE(effect.process(buffer, 2, 1), 0);
    QCOMPARE(effect.calls, 1);
}

QTEST_GUILESS_MAIN(TestEffect)
#include "tst_effect.moc"
