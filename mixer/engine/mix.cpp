// SPDX-License-Identifier: MIT
#include <mixer/engine/engine_p.h>

#include <base/trace_p.h>
#include <mixer/gains.h>
#include <mixer/io/effect.h>
#include <mixer/meter/meter.h>

#include <QtCore/QThread>

#include <cmath>
#include <new>
#include <utility>

namespace QTovelMixer {

// The gain matrix -----------------------------------------------------------------------------

void EngineMix::set_mixer_gains(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                                float gain, const float *gains)
{
    std::vector<float> table;
    if (!gains) {
        table.resize(size_t(rows) * cols);
        gains = col0 != 0 ? Gains::inputMixerGains(int(rows), int(cols), table.data())
                          : Gains::outputMixerGains(int(rows), int(cols), table.data());
    }
    if (!gains)
        return;
    const QMutexLocker locker(&whole(*this).updateLock);
    matrix.set(row0, rows, col0, cols, gain, gains);
    planMix();
}

void EngineMix::set_input_mask(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                               unsigned long long mask)
{
    const QMutexLocker locker(&whole(*this).updateLock);
    matrix.setMask(row0, rows, col0, cols, mask);
    planMix();
}

void EngineMix::remove_input_gains(unsigned first, unsigned count)
{
    const QMutexLocker locker(&whole(*this).updateLock);
    matrix.removeRows(first, count);
    planMix();
}

void EngineMix::remove_output_gains(unsigned first, unsigned count)
{
    const QMutexLocker locker(&whole(*this).updateLock);
    matrix.removeColumns(first, count);
    planMix();
}

void EngineMix::resetGainMatrix()
{
    const QMutexLocker locker(&whole(*this).updateLock);
    matrix.reset();
    planMix();
}

bool EngineMix::setCell(const HostGains::Cell &cell, float gain)
{
    // Nobody but this thread changes the matrix or what it stands for, so that it is read here
    // without the lock. No block waits while a plan is made.
    unsigned row = 0;
    unsigned column = 0;
    if (!cellOf(cell, row, column))
        return false;
    hostGains.setCell(cell, gain);
    const bool wasHeard = matrix.gain[row][column] != 0.0f;
    const bool mayFollow = wasHeard == (gain != 0.0f);
    if (!mayFollow)
        sparePlan->rebuildFor(matrix, int(inputBuses.size()), int(outputBuses.size()),
                              {row, column, gain});
    const QMutexLocker locker(&whole(*this).updateLock);
    matrix.setCell(row, column, gain);
    if (!mayFollow)
        std::swap(plan, sparePlan);
    else if (!plan->follow(matrix, row, column))
        planMix();
    return true;
}

void EngineMix::planMix()
{
    plan->rebuild(matrix, int(inputBuses.size()), int(outputBuses.size()));
}

bool EngineMix::requireFinite(const char *operation, float gain)
{
    if (std::isfinite(gain))
        return true;
    BLDEBUG_Error(-1, "QTovelMixer::%s: Invalid gain!!", operation);
    return false;
}

// Effects and meters --------------------------------------------------------------------------

Effect *EngineMix::replaceEffect(Effect *&slot, QMetaObject::Connection &link, Effect *effect)
{
    Engine::Data &d = whole(*this);
    if (!d.requireMainThread("replaceEffect"))
        return nullptr;
    // First: an effect whose end nobody noticed must not be used.
    QMetaObject::Connection watched;
    if (effect) {
        watched = QObject::connect(
            effect, &QObject::destroyed, d.engine,
            [&d, &slot] {
                const QMutexLocker locker(&d.updateLock);
                slot = nullptr;
            },
            Qt::DirectConnection);
    }
    Effect *replaced = nullptr;
    {
        const QMutexLocker locker(&d.updateLock);
        replaced = slot;
        slot = effect;
    }
    QObject::disconnect(link);
    link = watched;
    if (replaced && replaced != effect)
        replaced->onReplaced();
    return replaced;
}

namespace {

constexpr unsigned long meterEndTimeout = 2000; // ms

void endMeter(Meter *meter)
{
    if (!meter)
        return;
    const QPointer<QThread> thread = meter->thread();
    const auto isElsewhere = [&thread] { return thread && thread != QThread::currentThread(); };
    try {
        meter->aboutToQuit();
    } catch (const std::bad_alloc &) {
        if (isElsewhere())
            thread->quit(); // without its last signal
    }
    if (isElsewhere())
        thread->wait(meterEndTimeout);
}

} // namespace

void EngineMix::deleteMeters()
{
    TraceLine("Engine::Data::deleteMeters BEGIN")
        .item("inputMeter", inputMeter)
        .item("outputMeter", outputMeter);
    Meter *input = nullptr;
    Meter *output = nullptr;
    {
        const QMutexLocker locker(&whole(*this).updateLock);
        std::swap(input, inputMeter);
        std::swap(output, outputMeter);
    }
    endMeter(input);
    endMeter(output);
    TraceLine("Engine::Data::deleteMeters END")
        .item("inputMeter", inputMeter)
        .item("outputMeter", outputMeter);
}

} // namespace QTovelMixer
