// SPDX-License-Identifier: MIT
#include <tovelmix/picture.h>

#include <tovelmix/take.h>

#include <QtCore/QFileInfo>
#include <QtCore/QtEndian>

#include <algorithm>
#include <array>

namespace tovelmix {

namespace {

using Color = std::array<uchar, 3>;

constexpr Color paper{250, 250, 248};
constexpr Color grid{222, 222, 218};
constexpr Color wave{70, 110, 170};
constexpr Color peak{200, 60, 50};
constexpr Color loudness{40, 140, 80};
constexpr double lowestDb = -60.0;

/// Rows of a picture, each led by PNG's filter byte.
class Canvas
{
public:
    Canvas() : m_rows(Picture::height * stride, '\0')
    {
        for (int y = 0; y < Picture::height; ++y)
            line(y, paper);
    }

    void line(int y, Color color)
    {
        for (int x = 0; x < Picture::width; ++x)
            dot(x, y, color);
    }
    /// Between two heights, whichever is the upper one.
    void bar(int x, int y1, int y2, Color color)
    {
        for (int y = std::min(y1, y2); y <= std::max(y1, y2); ++y)
            dot(x, y, color);
    }
    const QByteArray &rows() const { return m_rows; }

private:
    static constexpr qsizetype stride = 1 + 3 * Picture::width;

    void dot(int x, int y, Color color)
    {
        y = std::clamp(y, 0, Picture::height - 1);
        std::copy(color.begin(), color.end(), m_rows.data() + y * stride + 1 + 3 * x);
    }

    QByteArray m_rows;
};

int curveRow(double db)
{
    const double depth = std::clamp(db / lowestDb, 0.0, 1.0);
    return int(depth * (Picture::curveHeight - 1));
}

int waveRow(float sample)
{
    const double part = (1.0 - std::clamp(double(sample), -1.0, 1.0)) / 2.0;
    return Picture::curveHeight + int(part * (Picture::waveHeight - 1));
}

QByteArray bigEndian(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

// ISO 3309, as PNG asks for it.
quint32 checksum(const QByteArray &bytes)
{
    quint32 crc = 0xffffffffu;
    for (char byte : bytes) {
        crc ^= uchar(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xedb88320u : 0u);
    }
    return ~crc;
}

QByteArray chunk(const QByteArray &name, const QByteArray &content)
{
    const QByteArray checked = name + content;
    return bigEndian(quint32(content.size())) + checked + bigEndian(checksum(checked));
}

QByteArray png(const QByteArray &rows)
{
    const QByteArray header = bigEndian(Picture::width) + bigEndian(Picture::height) +
                              QByteArray("\x08\x02\x00\x00\x00", 5); // 8 bits of each of R, G, B
    return QByteArray("\x89PNG\r\n\x1a\n", 8) + chunk("IHDR", header) +
           chunk("IDAT", qCompress(rows).mid(4)) + chunk("IEND", {});
}

} // namespace

Picture::Picture(const QString &path, qint64 frames, int channels)
    : m_file(path), m_frames(std::max<qint64>(frames, 1)), m_channels(channels)
{
    if (QFileInfo(path).exists() && !QFileInfo(path).isFile())
        m_error = QString("cannot write '%1': it is not a file").arg(path);
    else if (!m_file.open(QIODevice::WriteOnly))
        m_error = QString("cannot write '%1': %2").arg(path, m_file.errorString());
}

void Picture::add(const float *samples, qint64 frames, double truePeak, double loud)
{
    for (qint64 frame = 0; frame < frames; ++frame, ++m_position) {
        Column &column =
            m_columns[size_t(std::min(m_position * width / m_frames, qint64(width - 1)))];
        for (int c = 0; c < m_channels; ++c) {
            const float sample = samples[frame * m_channels + c];
            column.lowest = std::min(column.lowest, sample);
            column.highest = std::max(column.highest, sample);
        }
        column.truePeak = std::max(column.truePeak, truePeak);
        column.loudness = std::max(column.loudness, loud);
    }
}

QByteArray Picture::drawn() const
{
    Canvas canvas;
    for (double db = -10.0; db > lowestDb; db -= 10.0)
        canvas.line(curveRow(db), grid);
    canvas.line(waveRow(0.0f), grid);
    int lastPeak = -1;
    int lastLoudness = -1;
    for (int x = 0; x < width; ++x) {
        const Column &column = m_columns[size_t(x)];
        canvas.bar(x, waveRow(column.highest), waveRow(column.lowest), wave);
        const int loudnessRow = curveRow(column.loudness);
        const int peakRow = curveRow(decibels(column.truePeak));
        canvas.bar(x, lastLoudness < 0 ? loudnessRow : lastLoudness, loudnessRow, loudness);
        canvas.bar(x, lastPeak < 0 ? peakRow : lastPeak, peakRow, peak);
        lastLoudness = loudnessRow;
        lastPeak = peakRow;
    }
    return png(canvas.rows());
}

bool Picture::commit()
{
    if (m_error.isEmpty() && (m_file.write(drawn()) < 0 || !m_file.commit()))
        m_error = QString("cannot write '%1': %2").arg(m_file.fileName(), m_file.errorString());
    return m_error.isEmpty();
}

QString Picture::error() const
{
    return m_error;
}

} // namespace tovelmix
