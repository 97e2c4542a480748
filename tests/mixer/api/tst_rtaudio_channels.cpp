// SPDX-License-Identifier: MIT
// Every channel of every kind of device, played and recorded with a tone of its own.
#include "rtaudio_fixture.h"

#include <QtCore/QProcess>

#include <complex>
#include <numbers>

using QTovelMixer::DeviceKind;
using QTovelMixer::Pulse;

namespace {

constexpr int rate = 48000;
constexpr int step = 100;    // Hz between tones
constexpr int window = 2400; // frames, in which tones of whole steps do not disturb each other

double frequency(int channel)
{
    return step * double(4 + channel);
}

/// Another tone on each channel.
class Tones : public QTovelMixer::Source
{
public:
    Tones(QTovelMixer::Engine *engine, int channels) : Source(engine, rate, channels, 5.0f) {}

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        const qint64 first = qint64(std::floor(time * rate + 0.5));
        for (int frame = 0; frame < frames; ++frame) {
            const double seconds = double((first + frame) % rate) / rate;
            for (int channel = 0; channel < channels; ++channel)
                *buffer++ =
                    float(0.5 * std::sin(2.0 * std::numbers::pi * frequency(channel) * seconds));
        }
        return frames;
    }
};

/// Amplitude of a channel's tone in a window of samples.
double amplitude(const std::vector<float> &samples, int channels, int channel, int tone)
{
    static const std::vector<std::complex<double>> circle = [] {
        std::vector<std::complex<double>> points;
        for (int point = 0; point < rate / step; ++point)
            points.push_back(std::polar(1.0, -2.0 * std::numbers::pi * point * step / rate));
        return points;
    }();
    const int turn = int(frequency(tone)) / step;
    std::complex<double> sum;
    for (int frame = 0; frame < window; ++frame) {
        sum += double(samples[size_t(frame * channels + channel)]) *
               circle[size_t(frame * turn % (rate / step))];
    }
    return 2.0 * std::abs(sum) / window;
}

/// What is wrong with the channels in the last window, empty when each has its own tone and no
/// other.
QString disorder(const float *begin, qint64 frames, int channels)
{
    if (frames < window)
        return QStringLiteral("only %1 frames").arg(frames);
    const float *last = begin + (frames - window) * channels;
    const std::vector<float> samples(last, last + qint64(window) * channels);
    QStringList wrong;
    for (int channel = 0; channel < channels; ++channel) {
        for (int tone = 0; tone < channels; ++tone) {
            const double heard = amplitude(samples, channels, channel, tone);
            if (std::abs(heard - (tone == channel ? 0.5 : 0.0)) > 0.01)
                wrong.append(QStringLiteral("channel %1 has tone %2 at %3")
                                 .arg(channel)
                                 .arg(tone)
                                 .arg(heard, 0, 'f', 3));
        }
    }
    return wrong.join(QStringLiteral(", "));
}

QString auxiliary(int channels)
{
    QStringList names;
    for (int channel = 0; channel < channels; ++channel)
        names.append(QStringLiteral("aux%1").arg(channel));
    return names.join(u',');
}

/// Looks at a stream as it grows, until one window of it is in order: on a busy machine others have
/// gaps.
class Listener
{
public:
    explicit Listener(int channels) : m_channels(channels) {}

    bool isContent(const float *samples, qint64 frames)
    {
        if (!m_wrong.isEmpty() && frames >= m_seen + window / 2) {
            m_seen = frames;
            m_wrong = disorder(samples, frames, m_channels);
        }
        return m_wrong.isEmpty();
    }
    QString wrong() const { return m_wrong.left(500); }

private:
    const int m_channels;
    qint64 m_seen = 0;
    QString m_wrong = QStringLiteral("nothing came");
};

} // namespace

class tst_RtAudioChannels : public QObject
{
    Q_OBJECT

private slots:
    void everyChannel_hasItsPlace_data();
    void everyChannel_hasItsPlace();
};

void tst_RtAudioChannels::everyChannel_hasItsPlace_data()
{
    QTest::addColumn<bool>("pipeWire");
    QTest::addColumn<QString>("map");
    const QString surround = QStringLiteral(
        "front-left,front-right,front-center,lfe,rear-left,rear-right,side-left,side-right");
    for (const bool pipeWire : {false, true}) {
        const auto row = [pipeWire](const char *name, const QString &map) {
            QTest::addRow("%s, %s", name, pipeWire ? "PipeWire" : "PulseAudio") << pipeWire << map;
        };
        row("mono", QStringLiteral("mono"));
        row("stereo", QStringLiteral("front-left,front-right"));
        row("quad", QStringLiteral("front-left,front-right,rear-left,rear-right"));
        row("5.1", surround.section(u',', 0, 5));
        row("7.1", surround);
        for (const int channels : {2, 4, 7, 8, 10, 12, 16, 18, 32})
            row(qPrintable(QStringLiteral("aux%1").arg(channels)), auxiliary(channels));
    }
}

void tst_RtAudioChannels::everyChannel_hasItsPlace()
{
    QFETCH(bool, pipeWire);
    QFETCH(QString, map);
    const int channels = int(map.count(u',')) + 1;
    const PulseControl::Sink sink{QStringLiteral("null1"), QStringLiteral("NULL1"), rate, channels,
                                  map};
    std::unique_ptr<PulseControl> server;
    if (pipeWire)
        server = std::make_unique<PipeWireServer>(QList<PulseControl::Sink>{sink});
    else
        server = std::make_unique<PulseServer>(QList<PulseControl::Sink>{sink});
    QVERIFY2(server->start(), qPrintable(server->report()));

    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->numOutputChannels(), unsigned(channels));
    QCOMPARE(session.engine->numInputChannels(), unsigned(channels));
    QCOMPARE(session.engine->sampleRate(), unsigned(rate));
    auto *source = new Tones(session.engine.get(), channels);
    auto *take = new TakeSink(session.engine.get(), rate, channels);
    QVERIFY(session.engine->addSource(source));
    QVERIFY(session.engine->addSink(take));
    QVERIFY(session.engine->start());

    // Another client hears what the sink really plays, so that two mistakes cannot hide each other.
    QProcess witness;
    QByteArray heard;
    QObject::connect(&witness, &QProcess::readyReadStandardOutput, &witness,
                     [&] { heard += witness.readAllStandardOutput(); });
    witness.start(QStringLiteral("parec"),
                  {QStringLiteral("--raw"), QStringLiteral("--device=null1.monitor"),
                   QStringLiteral("--format=float32le"), QStringLiteral("--latency-msec=50"),
                   QStringLiteral("--rate=%1").arg(rate),
                   QStringLiteral("--channels=%1").arg(channels),
                   QStringLiteral("--channel-map=") + map});
    QVERIFY(witness.waitForStarted());
    Listener played(channels);
    Listener recorded(channels);
    session.wait(
        [&] {
            const std::vector<float> samples = take->samples();
            const bool both[] = {
                played.isContent(reinterpret_cast<const float *>(heard.constData()),
                                 heard.size() / qsizetype(sizeof(float)) / channels),
                recorded.isContent(samples.data(), qint64(samples.size()) / channels)};
            return both[0] && both[1];
        },
        20000);
    witness.kill();
    witness.waitForFinished();
    QVERIFY2(played.wrong().isEmpty(), qPrintable(QStringLiteral("played: ") + played.wrong()));
    QVERIFY2(recorded.wrong().isEmpty(),
             qPrintable(QStringLiteral("recorded: ") + recorded.wrong()));
    QCOMPARE(session.failures, 0);
    QVERIFY(session.rest());
}

RTAUDIO_TEST_MAIN(tst_RtAudioChannels)
#include "tst_rtaudio_channels.moc"
