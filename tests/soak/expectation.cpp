// SPDX-License-Identifier: MIT
#include "expectation.h"

#include "material.h"

#include <QtCore/QMutexLocker>

#include <algorithm>
#include <cmath>
#include <cstdio>

qint64 Score::length() const
{
    qint64 sum = 0;
    for (const Stretch &stretch : stretches)
        sum += stretch.end - stretch.begin;
    return sum;
}

Score::Place Score::placeAt(qint64 clockFrame) const
{
    qint64 rest = looping ? clockFrame % length() : clockFrame;
    for (const Stretch &stretch : stretches) {
        const qint64 frames = stretch.end - stretch.begin;
        if (rest < frames)
            return {stretch.begin + rest, std::min(rest, frames - rest)};
        rest -= frames;
    }
    return {-1, 0};
}

void Ledger::reportLoss(const QString &what, qint64 samples)
{
    constexpr qint64 mostLines = 20;
    if (lost.fetch_add(samples) < mostLines)
        std::fprintf(stderr, "lost: %s, after \"%s\"\n", qPrintable(what), operation.load());
}

Expectation::Expectation(Ledger &ledger) : m_ledger(ledger)
{
    m_changes.push_back({Route(), -1, -1});
}

void Expectation::announce(const Route &route, qint64 frame)
{
    const QMutexLocker lock(&m_mutex);
    m_changes.push_back({route, frame, never});
}

void Expectation::confirm(qint64 frame)
{
    const QMutexLocker lock(&m_mutex);
    m_changes.back().certain = frame;
}

Expectation::Route Expectation::route() const
{
    const QMutexLocker lock(&m_mutex);
    return m_changes.back().route;
}

void Expectation::jump(qint64 frame)
{
    const QMutexLocker lock(&m_mutex);
    m_changes.erase(m_changes.begin(), m_changes.end() - 1);
    m_changes.front().from = m_changes.front().certain = -1;
    m_jumpFrame = frame;
}

/// The changes that matter from this frame on.
std::vector<Expectation::Change> Expectation::changesAt(qint64 frame)
{
    const QMutexLocker lock(&m_mutex);
    while (m_changes.size() > 1 && m_changes[1].certain <= frame)
        m_changes.erase(m_changes.begin());
    return m_changes;
}

void Expectation::verify(const float *samples, qint64 frame, qint64 count, int stride)
{
    const std::vector<Change> changes = changesAt(frame);
    const qint64 end = frame + count;
    std::vector<Route> allowed;
    while (frame < end) {
        // A run of frames that the same routes may have reached.
        qint64 runEnd = end;
        allowed.clear();
        for (const Change &change : changes) {
            if (change.certain <= frame)
                allowed.clear();
            if (change.from <= frame)
                allowed.push_back(change.route);
            for (const qint64 border : {change.from, change.certain}) {
                if (border > frame)
                    runEnd = std::min(runEnd, border);
            }
        }
        verifyRun(allowed.data(), allowed.size(), samples, frame, runEnd - frame, stride);
        samples += (runEnd - frame) * stride;
        frame = runEnd;
    }
    m_ledger.verified += count;
}

void Expectation::verifyRun(const Route *allowed, size_t routes, const float *samples, qint64 frame,
                            qint64 count, int stride)
{
    for (qint64 i = 0; i < count; ++i, ++frame, samples += stride) {
        const Score::Place place = m_ledger.score.placeAt(frame);
        const float sample = *samples;
        const Route *const found = std::find_if(allowed, allowed + routes, [&](const Route &route) {
            return matches(route, sample, place, frame);
        });
        if (found != allowed + routes)
            continue;
        if (sample == 0.0f && maySilence(allowed, routes, frame)) {
            ++m_ledger.waited;
        } else {
            m_ledger.reportLoss(
                QStringLiteral("clock %1, material %2: %3 instead of source %4 "
                               "(gain %5, %6 possible; clock jumped to %7, source joined at %8)")
                    .arg(frame)
                    .arg(place.frame)
                    .arg(double(sample), 0, 'g', 9)
                    .arg(allowed[routes - 1].source)
                    .arg(double(allowed[routes - 1].gain))
                    .arg(routes)
                    .arg(m_jumpFrame)
                    .arg(joinFrame(allowed[routes - 1])));
        }
    }
}

qint64 Expectation::joinFrame(const Route &route) const
{
    return route.source < 0 ? -1 : m_ledger.joined[size_t(route.source)].load();
}

bool Expectation::matches(const Route &route, float sample, const Score::Place &place,
                          qint64 frame) const
{
    if (route.source < 0 || place.frame < 0)
        return sample == 0.0f;
    if (Material::rateOf(route.source) == Material::mixerRate)
        return sample == route.gain * Material::ramp(route.source, place.frame);
    // A converter that begins anew, or that meets a jump, mixes both sides of it.
    const qint64 sinceJoin = frame - m_ledger.joined[size_t(route.source)];
    const bool unsettled =
        std::min({place.distance, frame - m_jumpFrame, sinceJoin}) < Material::jumpFrames;
    const float wanted =
        unsettled ? 0.0f : Material::tones(Material::mixerRate).sample(route.source, place.frame);
    const float slack = unsettled ? 0.75f : Material::tolerance;
    return std::abs(sample - route.gain * wanted) <= route.gain * slack &&
           (unsettled || sample != 0.0f || std::abs(wanted) < Material::tolerance);
}

/// True while a source is being read anew, and its ring is not full yet.
bool Expectation::maySilence(const Route *allowed, size_t routes, qint64 frame) const
{
    return std::any_of(allowed, allowed + routes, [&](const Route &route) {
        if (route.source < 0)
            return true;
        const qint64 begin = std::max<qint64>(m_jumpFrame, m_ledger.joined[size_t(route.source)]);
        return frame < begin + m_ledger.patience;
    });
}
