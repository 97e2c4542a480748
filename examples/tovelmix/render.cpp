// SPDX-License-Identifier: MIT
#include <tovelmix/render.h>

#include <tovelmix/printable.h>
#include <tovelmix/take.h>

#include <mixer/api/api_virtual.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

namespace tovelmix {

namespace {

constexpr unsigned blockFrames = 1024;
constexpr double tailSeconds = 0.1; // lets the converters give what they hold back

/// Whether two names, of files that may not exist yet, lead to one file.
bool isSameFile(const QString &one, const QString &other)
{
    const QFileInfo first(one);
    const QFileInfo second(other);
    std::error_code error; // one that does not exist is none
    return first.absoluteFilePath() == second.absoluteFilePath() ||
           std::filesystem::equivalent(first.filesystemAbsoluteFilePath(),
                                       second.filesystemAbsoluteFilePath(), error) ||
           (first.fileName() == second.fileName() &&
            first.dir().canonicalPath() == second.dir().canonicalPath());
}

} // namespace

struct Rendering::Measures
{
    Measures(int rate, int count)
        : channels(count), statistics(DSPB_StatisticsCreate(
                               rate, count, 0, DSPB_MeasureLevels | DSPB_MeasureTruePeak)),
          samplePeaks(size_t(count)), truePeaks(size_t(count))
    {}
    ~Measures() { DSPB_StatisticsDestroy(&statistics); }
    Q_DISABLE_COPY_MOVE(Measures)

    void add(const float *samples, int frames);

    int channels;
    DSPB_Statistics *statistics;
    std::vector<double> samplePeaks;  ///< linear
    std::vector<double> truePeaks;    ///< linear
    double blockTruePeak = 0.0;       ///< of the last block, linear
    double blockLoudness = silenceDb; ///< short-term, LUFS, after the last block
    double momentary = silenceDb;     ///< LUFS, the highest
    double shortTerm = silenceDb;     ///< LUFS, the highest
};

void Rendering::Measures::add(const float *samples, int frames)
{
    DSPB_StatisticsAddFrames(statistics, samples, frames);
    blockTruePeak = 0.0;
    for (int c = 0; c < channels; ++c) {
        double peak = 0.0;
        DSPB_StatisticsMomentarySamplePeak(statistics, c, &peak);
        samplePeaks[size_t(c)] = std::max(samplePeaks[size_t(c)], peak);
        DSPB_StatisticsMomentaryTruePeak(statistics, c, &peak);
        truePeaks[size_t(c)] = std::max(truePeaks[size_t(c)], peak);
        blockTruePeak = std::max(blockTruePeak, peak);
    }
    double loudness = silenceDb;
    DSPB_StatisticsMomentaryLoudness(statistics, &loudness);
    momentary = std::max(momentary, loudness);
    DSPB_StatisticsShortTermLoudness(statistics, &loudness);
    shortTerm = std::max(shortTerm, loudness);
    blockLoudness = loudness;
}

Rendering::Rendering(const Files &files) : m_files(files) {}

Rendering::~Rendering()
{
    m_ended = true;
}

bool Rendering::fail(ExitStatus status, const QString &line)
{
    m_outcome = {status, line};
    return false;
}

bool Rendering::start()
{
    m_session = readSession(m_files.session);
    if (!m_session.error.isEmpty())
        return fail(Failed, m_session.error);
    m_wantedFrames = std::llround(m_session.length * m_session.rate);
    if (!checkOutputs() || !openOutputs() || !openEngine())
        return false;
    for (const Track &track : std::as_const(m_session.tracks)) {
        if (!addTrack(track))
            return false;
    }
    connect(m_engine.get(), &QTovelMixer::Engine::sourceFinished, this, &Rendering::completeEarly,
            Qt::QueuedConnection);
    connect(m_engine.get(), &QTovelMixer::Engine::stopped, this, &Rendering::completeEarly,
            Qt::QueuedConnection);
    m_clock.start();
    return m_engine->start(0.0) || fail(Failed, "the mixer does not start");
}

QString Rendering::stemPath(const Track &track) const
{
    return QFileInfo(m_files.mix).dir().filePath(track.record);
}

/// No file that is written may be one that is read, an older recording, or written twice.
bool Rendering::checkOutputs()
{
    QStringList inputs{m_files.session};
    QStringList outputs{m_files.mix};
    if (!m_files.picture.isEmpty())
        outputs.append(m_files.picture);
    for (const Track &track : std::as_const(m_session.tracks)) {
        inputs.append(track.file);
        if (track.record.isEmpty())
            continue;
        outputs.append(stemPath(track));
        if (!m_files.force && QFileInfo::exists(outputs.constLast()))
            return fail(Failed,
                        QString("%1: 'record' names '%2', which exists; --force replaces it")
                            .arg(m_files.session, outputs.constLast()));
    }
    for (qsizetype i = 0; i < outputs.size(); ++i) {
        const auto isIt = [&output = outputs.at(i)](const QString &other) {
            return isSameFile(output, other);
        };
        if (std::any_of(outputs.cbegin() + i + 1, outputs.cend(), isIt))
            return fail(Failed, QString("'%1' would be written twice: --out, --picture and each "
                                        "'record' need a name of their own")
                                    .arg(outputs.at(i)));
        if (!m_files.force && std::any_of(inputs.cbegin(), inputs.cend(), isIt))
            return fail(
                Failed,
                QString("'%1' is an input of the mix; --force replaces it").arg(outputs.at(i)));
    }
    return true;
}

bool Rendering::openOutputs()
{
    m_writer = std::make_unique<MixWriter>(m_files.mix, m_session.channels, m_session.rate,
                                           m_wantedFrames);
    if (!m_writer->error().isEmpty())
        return fail(Failed, m_writer->error());
    m_measures = std::make_unique<Measures>(m_session.rate, m_session.channels);
    if (m_files.picture.isEmpty())
        return true;
    m_picture = std::make_unique<Picture>(m_files.picture, m_wantedFrames, m_session.channels);
    return m_picture->error().isEmpty() || fail(Failed, m_picture->error());
}

bool Rendering::openEngine()
{
    auto *api = new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::FreeWheel, blockFrames);
    m_engine = std::make_unique<QTovelMixer::Engine>(api);
    const auto rate = unsigned(m_session.rate);
    api->plug({.name = "Mix",
               .outputChannels = unsigned(m_session.channels),
               .sampleRates = {rate},
               .preferedSampleRate = rate});
    api->setOutputHandler([this](const float *samples, unsigned frames, unsigned, quint64) {
        take(samples, frames);
    });
    api->updateDeviceList();
    m_engine->activate();
    return m_engine->isActive() || fail(Failed, "the mixer does not open its output");
}

bool Rendering::addTrack(const Track &track)
{
    Placement placement = track.placement;
    placement.length = m_session.length + tailSeconds;
    auto source = std::make_unique<FileSource>(m_engine.get(),
                                               std::make_unique<SoundFile>(track.file), placement);
    const float gain = track.gain * m_session.masterGain;
    if (!m_engine->addSource(source.get(), gain))
        return fail(Failed, QString("the mixer does not take '%1'").arg(track.file));
    FileSource *const added = source.release();
    m_deliveries.push_back(added->delivery());
    for (int c = 0; !track.route.isEmpty() && c < added->numChannels(); ++c) {
        for (int output = 0; output < m_session.channels; ++output)
            m_engine->setGain(added, c, output, 0.0f);
    }
    for (const RouteCell &cell : track.route)
        m_engine->setGain(added, cell.from - 1, cell.to - 1, cell.gain * gain);
    if (track.channelMask != ~quint64{0})
        m_engine->setChannelsMask(added, track.channelMask);
    return track.record.isEmpty() || addStem(track, added);
}

/// Records the source as it is played, before any gain.
bool Rendering::addStem(const Track &track, FileSource *source)
{
    Stem stem;
    stem.path = stemPath(track);
    const int channels = source->numChannels();
    stem.writer = std::make_unique<MixWriter>(stem.path, channels, m_session.rate, m_wantedFrames);
    if (!stem.writer->error().isEmpty())
        return fail(Failed, stem.writer->error());
    auto sink = std::make_unique<StemSink>(m_engine.get(), channels, m_session.rate, m_wantedFrames,
                                           *stem.writer);
    if (!m_engine->addSink(sink.get()))
        return fail(Failed, QString("the mixer does not record '%1'").arg(stem.path));
    stem.sink = sink.release();
    for (int c = 0; c < channels; ++c)
        m_engine->setGain(source, c, stem.sink, c, 1.0f);
    connect(stem.sink, &StemSink::done, this, &Rendering::completeWhenWritten,
            Qt::QueuedConnection);
    m_stems.push_back(std::move(stem));
    return true;
}

// On the audio thread, which may take its time here.
void Rendering::take(const float *samples, unsigned frames)
{
    if (m_ended)
        return;
    const qint64 some = std::min<qint64>(frames, m_wantedFrames - m_frames);
    m_measures->add(samples, int(some));
    if (m_picture)
        m_picture->add(samples, some, m_measures->blockTruePeak, m_measures->blockLoudness);
    const bool written = m_writer->write(samples, some);
    m_frames += some;
    if (written && m_frames < m_wantedFrames)
        return;
    m_ended = true;
    QMetaObject::invokeMethod(this, &Rendering::completeWhenWritten, Qt::QueuedConnection);
}

/// The mix is written on the audio thread, the recordings on workers that come later.
void Rendering::completeWhenWritten()
{
    if (!m_over && m_ended && std::all_of(m_stems.begin(), m_stems.end(), [](const Stem &stem) {
            return stem.sink->isDone();
        }))
        complete();
}

bool Rendering::commit()
{
    if (!m_writer->commit())
        return fail(Failed, m_writer->error());
    for (const Stem &stem : m_stems) {
        if (!stem.writer->commit())
            return fail(Failed, stem.writer->error());
    }
    return !m_picture || m_picture->commit() || fail(Failed, m_picture->error());
}

void Rendering::completeEarly()
{
    if (!m_over && !m_ended.exchange(true))
        complete();
}

/// A track that the mixer could not play, or not to the end of the mix, makes the mix worthless.
bool Rendering::checkDeliveries()
{
    for (size_t i = 0; i < m_deliveries.size(); ++i) {
        const QString &name = m_session.tracks.at(qsizetype(i)).file;
        const Delivery &delivery = *m_deliveries[i];
        if (delivery.cutShort)
            return fail(
                Failed,
                QString("'%1' stopped delivering before its end; nothing was written").arg(name));
        // At the file's rate; the last frame may be rounded away.
        if (double(delivery.frames) + 1.0 < m_session.length * delivery.rate)
            return fail(Failed, QString("'%1' cannot be played at %2 Hz; nothing was written")
                                    .arg(name)
                                    .arg(m_session.rate));
    }
    return true;
}

void Rendering::complete()
{
    m_over = true;
    m_seconds = double(m_clock.nsecsElapsed()) / 1e9;
    m_engine->deactivate(QTovelMixer::UserStopAction);
    const bool whole = m_frames == m_wantedFrames || !m_writer->error().isEmpty();
    if (checkDeliveries() &&
        (whole || fail(Failed, "the mixer stopped before the end; nothing was written")))
        commit();
    Q_EMIT finished();
}

void Rendering::interrupt()
{
    if (m_over)
        return;
    m_over = true;
    m_ended = true;
    m_engine->deactivate(QTovelMixer::UserStopAction);
    fail(Failed, "interrupted; nothing was written");
    Q_EMIT finished();
}

const Outcome &Rendering::outcome() const
{
    return m_outcome;
}

double Rendering::speed() const
{
    const double taken = m_seconds > 0.0 ? m_seconds : double(m_clock.nsecsElapsed()) / 1e9;
    return taken > 0.0 ? double(m_frames) / m_session.rate / taken : 0.0;
}

QString Rendering::progress() const
{
    constexpr int width = 30;
    const int filled = int(m_frames * width / std::max<qint64>(m_wantedFrames, 1));
    return QString("[%1] %2 s of %3 s, %4 × real time")
        .arg(QString(filled, '#').leftJustified(width))
        .arg(double(m_frames) / m_session.rate, 0, 'f', 1)
        .arg(m_session.length, 0, 'f', 1)
        .arg(speed(), 0, 'f', 0);
}

QString Rendering::table() const
{
    QString text = "channel   sample peak     true peak\n";
    QString recordings;
    for (size_t c = 0; c < size_t(m_session.channels); ++c)
        text += QString("%1   %2 dBFS   %3 dBTP\n")
                    .arg(c + 1, 7)
                    .arg(decibels(m_measures->samplePeaks[c]), 6, 'f', 1)
                    .arg(decibels(m_measures->truePeaks[c]), 6, 'f', 1);
    for (const Stem &stem : m_stems)
        recordings += printable(stem.path) + ": recorded through a sink\n";
    return text +
           QString("loudness, highest: momentary %1 LUFS, short-term %2 LUFS\n"
                   "%3: %4 frames at %5 Hz, %6 × real time\n")
               .arg(m_measures->momentary, 0, 'f', 1)
               .arg(m_measures->shortTerm, 0, 'f', 1)
               .arg(printable(m_files.mix))
               .arg(m_wantedFrames)
               .arg(m_session.rate)
               .arg(speed(), 0, 'f', 0) +
           recordings;
}

QByteArray Rendering::json() const
{
    QJsonArray channels;
    for (size_t c = 0; c < size_t(m_session.channels); ++c)
        channels.append(QJsonObject{{"samplePeak", decibels(m_measures->samplePeaks[c])},
                                    {"truePeak", decibels(m_measures->truePeaks[c])}});
    QJsonArray recordings;
    for (const Stem &stem : m_stems)
        recordings.append(stem.path);
    const QJsonObject object{{"file", m_files.mix},
                             {"frames", m_wantedFrames},
                             {"rate", m_session.rate},
                             {"speed", speed()},
                             {"highestMomentary", m_measures->momentary},
                             {"highestShortTerm", m_measures->shortTerm},
                             {"channels", channels},
                             {"recordings", recordings}};
    return printable(QJsonDocument(object), QJsonDocument::Indented);
}

} // namespace tovelmix
