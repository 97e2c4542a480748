// SPDX-License-Identifier: MIT
#include <tovelmix/file_source.h>

#include <QtCore/QThread>

#include <algorithm>
#include <cmath>

namespace tovelmix {

using QTovelMixer::Range;

namespace {

constexpr float bufferSeconds = 5.0f;

} // namespace

FileSource::FileSource(QTovelMixer::Engine *engine, std::unique_ptr<SoundFile> file,
                       const Placement &placement)
    : Source(engine, file->rate(), file->channels(), bufferSeconds), m_file(std::move(file)),
      m_startFrame(framesAt(placement.start)), m_loop(placement.loop),
      m_delivery(std::make_shared<Delivery>(m_file->rate()))
{
    const Range all{0.0, double(m_file->frames()) / m_file->rate()};
    const Range limits = placement.limits.isValid() ? placement.limits : all;
    for (const Range &selection : placement.selections)
        addPart({std::max(selection.start, limits.start), std::min(selection.end, limits.end)});
    if (placement.selections.isEmpty())
        addPart(limits);
    m_endFrame =
        placement.length >= 0.0 ? framesAt(placement.length) : m_startFrame + m_materialFrames;
}

// The worker calls readSamples, which is gone after this destructor.
FileSource::~FileSource()
{
    stop(QTovelMixer::NoReason);
    wait();
}

qint64 FileSource::framesAt(double seconds) const
{
    return std::llround(seconds * m_file->rate());
}

void FileSource::addPart(const Range &range)
{
    const qint64 first = std::clamp(framesAt(range.start), qint64{0}, m_file->frames());
    const qint64 end = std::clamp(framesAt(range.end), first, m_file->frames());
    if (end == first)
        return;
    m_parts.push_back({first, end - first});
    m_materialFrames += end - first;
}

double FileSource::contentStart() const
{
    return 0.0;
}

double FileSource::contentDuration() const
{
    return double(m_endFrame) / m_file->rate();
}

bool FileSource::acceptPause(QTovelMixer::PauseMode mode)
{
    return mode == QTovelMixer::PauseSoft;
}

int FileSource::readSamples(float *buffer, int frames, int channels, double time)
{
    const qint64 first = framesAt(time);
    const qint64 count = std::clamp(m_endFrame - first, qint64{0}, qint64{frames});
    std::fill_n(buffer, count * channels, 0.0f);
    const qint64 lead = std::clamp(m_startFrame - first, qint64{0}, count);
    if (m_materialFrames > 0 && channels == m_file->channels())
        readMaterial(buffer + lead * channels, first + lead - m_startFrame, count - lead, channels);
    m_delivery->frames = first + count;
    return int(count);
}

void FileSource::readMaterial(float *buffer, qint64 first, qint64 count, int channels)
{
    while (count > 0 && (m_loop || first < m_materialFrames)) {
        qint64 inside = first % m_materialFrames;
        auto part = m_parts.cbegin();
        for (; inside >= part->count; ++part)
            inside -= part->count;
        const qint64 wanted = std::min(part->count - inside, count);
        const qint64 got = m_file->read(buffer, part->first + inside, wanted);
        if (got < wanted)
            m_delivery->cutShort = true;
        buffer += wanted * channels;
        first += wanted;
        count -= wanted;
    }
}

} // namespace tovelmix
