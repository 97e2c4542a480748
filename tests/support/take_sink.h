// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_TAKE_SINK_H
#define QTOVELMIXER_TESTS_SUPPORT_TAKE_SINK_H

#include <mixer/io/sink.h>

#include <QtCore/QMutex>

#include <vector>

/// Keeps every frame that it is handed, and when it was recorded.
class TakeSink : public QTovelMixer::Sink
{
public:
    struct Piece
    {
        double time; // seconds
        int frames;
    };

    TakeSink(QTovelMixer::Engine *engine, int rate, int channels)
        : Sink(engine, 5.0f), m_rate(rate), m_channels(channels)
    {}

    int numChannels() const override { return m_channels; }
    int sampleRate() const override { return m_rate; }

    void writeSamples(float *buffer, int frames, int channels, double time) override
    {
        const QMutexLocker locker(&m_mutex);
        m_samples.insert(m_samples.end(), buffer, buffer + qsizetype(frames) * channels);
        m_pieces.push_back({time, frames});
    }

    std::vector<float> samples() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_samples;
    }
    qint64 frames() const
    {
        const QMutexLocker locker(&m_mutex);
        return qint64(m_samples.size()) / m_channels;
    }
    std::vector<Piece> pieces() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_pieces;
    }

private:
    int m_rate;
    int m_channels;
    mutable QMutex m_mutex;
    std::vector<float> m_samples;
    std::vector<Piece> m_pieces;
};

#endif
