// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_RANDOM_OPERATIONS_H
#define QTOVELMIXER_TESTS_SUPPORT_RANDOM_OPERATIONS_H

#include <support/ramp_source.h>
#include <support/session.h>

#include <mixer/io/effect.h>

#include <functional>

/// Operations of an engine in an order that no host would choose, and everything that must hold
/// after each of them.
class RandomOperations
{
public:
    /// Answers a number below its argument, which is at most 65536.
    using Draw = std::function<int(int)>;

    /// Rings shorter than any host gets them take less time to fill.
    explicit RandomOperations(Draw draw, float bufferSeconds = 5.0f);

    /// Does one operation that `draw` chooses.
    void operate();
    /// What does not hold; empty when all does.
    QString fault();
    /// Stops everything. Answers what does not hold then.
    QString end();

    Session &session() { return m_session; }

private:
    class Halver : public QTovelMixer::Effect
    {
    public:
        Halver() : Effect(48000, 2) {}
        int processBuffers(const float *input, float *output, int channels, int frames) override;
    };

    int pick(int count) { return m_draw(count); }
    double seconds(double most);
    RampSource *withShortRing(RampSource *source);
    QTovelMixer::Source *anySource();
    QTovelMixer::Sink *anySink();
    QString stateFault();
    QTovelMixer::Engine &engine() { return m_session.engine; }
    QTovelMixer::Engine::Data &data()
    {
        return QTovelMixer::EngineAccess::shipped(m_session.engine);
    }

    Draw m_draw;
    float m_bufferSeconds;
    Halver m_effect;
    int m_operation = 0;
    Session m_session; // goes first: it uses the effect
};

#endif
