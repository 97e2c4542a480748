// SPDX-License-Identifier: MIT
// Sessions mixed into files by the example host.
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>
#include <QtTest/QTest>

#include <sndfile.h>

#include <csignal>
#include <vector>

namespace {

constexpr int runTimeout = 240000; // ms

struct Result
{
    int status = -1;
    QByteArray out;
    QByteArray err;
};

Result run(const QStringList &arguments)
{
    QProcess process;
    process.start(TOVELMIX, arguments);
    if (!process.waitForFinished(runTimeout))
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

short pattern(qint64 frame)
{
    return short(frame * 7919 % 65536 - 32768);
}

bool writeMono(const QString &path, int rate, qint64 frames)
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE *sound = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    std::vector<short> samples;
    for (qint64 i = 0; i < frames; ++i)
        samples.push_back(pattern(i));
    const bool written = sound && sf_write_short(sound, samples.data(), frames) == frames;
    return sf_close(sound) == 0 && written;
}

} // namespace

class tst_TovelmixRender : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void render_isTheSum_ofTenMinutesOfSixteenTracks();
    void render_repeatsItself_withThreeRates();
    void render_writesFlac();
    void render_recordsAFile_asItIsPlayed();
    void render_drawsThePicture();
    void render_writesNothing_withoutItsPicture();
    void render_refuses_data();
    void render_refuses();
    void render_leavesNothing_whenInterrupted();

private:
    QString path(const char *name) const { return m_folder->filePath(name); }
    bool save(const QByteArray &json) const
    {
        QFile file(path("session.json"));
        return file.open(QIODevice::WriteOnly) && file.write(json) == json.size();
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void tst_TovelmixRender::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
    QVERIFY(writeMono(path("a.wav"), 48000, 336007));
    QVERIFY(writeMono(path("b.wav"), 44100, 44100));
    QVERIFY(writeMono(path("c.wav"), 96000, 96000));
}

void tst_TovelmixRender::render_isTheSum_ofTenMinutesOfSixteenTracks()
{
    constexpr qint64 frames = 600 * 48000;
    constexpr qint64 material = 336007;
    QJsonArray files;
    for (int k = 0; k < 16; ++k)
        files.append(QJsonObject{{"file", "a.wav"},
                                 {"loop", true},
                                 {"start", k * 0.25},
                                 {"route", QJsonArray{QJsonArray{1, 1 + k % 2}}}});
    QVERIFY(save(QJsonDocument(QJsonObject{{"files", files}, {"length", 600}}).toJson()));
    const Result result = run({"render", path("session.json"), "--out", path("mix.wav")});
    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.status, 0);

    SF_INFO info = {};
    SNDFILE *sound = sf_open(QFile::encodeName(path("mix.wav")).constData(), SFM_READ, &info);
    QVERIFY(sound);
    QCOMPARE(info.frames, sf_count_t(frames));
    QCOMPARE(info.channels, 2);
    constexpr qint64 chunk = 48000;
    std::vector<float> mix(chunk * 2);
    qint64 wrong = 0;
    for (qint64 first = 0; first < frames; first += chunk) {
        QCOMPARE(sf_readf_float(sound, mix.data(), chunk), sf_count_t(chunk));
        for (qint64 i = 0; i < chunk; ++i) {
            float sum[2] = {};
            for (int k = 0; k < 16; ++k) {
                const qint64 frame = first + i - k * qint64(12000);
                if (frame >= 0)
                    sum[k % 2] += float(pattern(frame % material)) / 32768.0f;
            }
            wrong += mix[size_t(i * 2)] != sum[0] || mix[size_t(i * 2 + 1)] != sum[1];
        }
    }
    sf_close(sound);
    QCOMPARE(wrong, qint64(0));
}

void tst_TovelmixRender::render_repeatsItself_withThreeRates()
{
    QVERIFY(save(R"({"rate": 48000, "gain": 0.5, "files": [
        {"file": "a.wav", "gain": 0.5, "loop": true, "selections": [[0.5, 1], [2, 2.25]]},
        {"file": "b.wav", "start": 0.5}, {"file": "c.wav", "channels": [1]}], "length": 4})"));
    QByteArray mixes[2];
    for (QByteArray &mix : mixes) {
        const Result result =
            run({"render", path("session.json"), "--out", path("mix.wav"), "--json"});
        QCOMPARE(result.status, 0);
        const QJsonObject figures = QJsonDocument::fromJson(result.out).object();
        QCOMPARE(figures.value("frames").toInt(), 192000);
        QCOMPARE(figures.value("channels").toArray().size(), 2);
        QVERIFY(figures.value("highestMomentary").toDouble() > -30.0);
        QFile file(path("mix.wav"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        mix = file.readAll();
    }
    QVERIFY(mixes[0].size() > 192000 * 8);
    QVERIFY(mixes[0] == mixes[1]);
}

void tst_TovelmixRender::render_writesFlac()
{
    QVERIFY(save(R"({"channels": 1, "rate": 44100, "files": [{"file": "b.wav"}]})"));
    const Result result = run({"render", path("session.json"), "--out", path("mix.flac")});
    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.status, 0);
    SF_INFO info = {};
    SNDFILE *sound = sf_open(QFile::encodeName(path("mix.flac")).constData(), SFM_READ, &info);
    QVERIFY(sound);
    std::vector<short> samples(44100);
    QCOMPARE(sf_read_short(sound, samples.data(), 44100), sf_count_t(44100));
    sf_close(sound);
    for (qint64 i = 0; i < 44100; ++i)
        QCOMPARE(samples[size_t(i)], pattern(i));
}

// Half a second of silence, half a second of noise: rows of an uncompressed picture.
void tst_TovelmixRender::render_recordsAFile_asItIsPlayed()
{
    QVERIFY(save(R"({"gain": 0.5, "length": 9.5, "files": [
        {"file": "b.wav", "loop": true},
        {"file": "a.wav", "start": 0.25, "gain": 0.125, "record": "take.wav"},
        {"file": "b.wav", "start": 1, "record": "other.flac"}]})"));
    const Result result = run({"render", path("session.json"), "--out", path("mix.wav"), "--json"});
    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.status, 0);
    const QJsonArray recordings =
        QJsonDocument::fromJson(result.out).object().value("recordings").toArray();
    QCOMPARE(recordings, (QJsonArray{path("take.wav"), path("other.flac")}));

    constexpr qint64 frames = 456000;
    SF_INFO info = {};
    SNDFILE *sound = sf_open(QFile::encodeName(path("take.wav")).constData(), SFM_READ, &info);
    QVERIFY(sound);
    QCOMPARE(info.frames, sf_count_t(frames));
    QCOMPARE(info.channels, 1);
    QCOMPARE(info.samplerate, 48000);
    std::vector<float> take(frames);
    const sf_count_t read = sf_readf_float(sound, take.data(), frames);
    sf_close(sound);
    QCOMPARE(read, sf_count_t(frames));
    qint64 wrong = 0;
    for (qint64 i = 0; i < frames; ++i) {
        const qint64 frame = i - 12000;
        const bool plays = frame >= 0 && frame < 336007;
        wrong += take[size_t(i)] != (plays ? float(pattern(frame)) / 32768.0f : 0.0f);
    }
    QCOMPARE(wrong, qint64(0));
}

void tst_TovelmixRender::render_drawsThePicture()
{
    QVERIFY(save(R"({"files": [{"file": "b.wav", "start": 1}], "length": 2, "channels": 1})"));
    const Result result = run(
        {"render", path("session.json"), "--out", path("mix.wav"), "--picture", path("mix.png")});
    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.status, 0);
    QFile file(path("mix.png"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray png = file.readAll();
    QVERIFY(png.startsWith("\x89PNG\r\n\x1a\n"));
    const auto number = [&png](qsizetype at) {
        return qFromBigEndian<quint32>(png.constData() + at);
    };
    constexpr qsizetype width = 1200;
    constexpr qsizetype height = 480;
    QCOMPARE(number(16), quint32(width));
    QCOMPARE(number(20), quint32(height));
    QCOMPARE(png.mid(37, 4), QByteArray("IDAT"));
    QByteArray size(4, '\0');
    qToBigEndian(quint32(height * (1 + 3 * width)), size.data());
    const QByteArray rows = qUncompress(size + png.mid(41, number(33)));
    QCOMPARE(rows.size(), height * (1 + 3 * width));
    const auto dot = [&rows](qsizetype x, qsizetype y) {
        return rows.mid(y * (1 + 3 * width) + 1 + 3 * x, 3);
    };
    // The waveform's bars stand in the second half alone; full scale fills the lower part.
    const QByteArray paper = dot(10, 170);
    QCOMPARE(dot(500, 170), paper);
    QVERIFY(dot(900, 170) != paper);
    QVERIFY(dot(900, 470) != paper);
    // Silence draws both curves at the bottom of their part, full scale at its top.
    QVERIFY(dot(300, 159) != paper);
    QVERIFY(dot(900, 0) != paper);
    QCOMPARE(dot(300, 0), paper);
    QVERIFY(png.endsWith(QByteArray("\0\0\0\0IEND\xae\x42\x60\x82", 12)));
}

void tst_TovelmixRender::render_writesNothing_withoutItsPicture()
{
    QVERIFY(save(R"({"files": [{"file": "b.wav"}]})"));
    const QStringList before = QDir(m_folder->path()).entryList();
    const Result result = run({"render", path("session.json"), "--out", path("mix.wav"),
                               "--picture", path("none/mix.png")});
    QCOMPARE(result.status, 1);
    QCOMPARE(result.err.count('\n'), 1);
    QVERIFY2(result.err.contains("none/mix.png"), result.err.constData());
    QCOMPARE(QDir(m_folder->path()).entryList(), before);
}

void tst_TovelmixRender::render_refuses_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QStringList>("words");
    const auto row = [](const char *name, const char *session, const QStringList &words) {
        QTest::newRow(name) << QByteArray(session) << "mix.wav" << words;
    };
    row("no JSON", "{", {"session.json"});
    row("no files", "{}", {"session.json", "'files'"});
    row("an unknown key", R"({"files": [{"file": "a.wav"}], "tempo": 1})", {"'tempo'"});
    row("an unknown key of a file", R"({"files": [{"file": "a.wav", "pan": 1}]})",
        {"files[0]", "'pan'"});
    row("a missing file", R"({"files": [{"file": "x.wav"}]})", {"'file'", "x.wav"});
    row("a broken file", R"({"files": [{"file": "session.json"}]})", {"'file'", "session.json"});
    row("limits beyond the end", R"({"files": [{"file": "b.wav", "limits": [0, 2]}]})",
        {"'limits'"});
    row("limits that end before they begin", R"({"files": [{"file": "b.wav", "limits": [1, 0]}]})",
        {"'limits'"});
    row("a selection outside the limits",
        R"({"files": [{"file": "b.wav", "limits": [0, 0.5], "selections": [[0.4, 0.6]]}]})",
        {"'selections'"});
    row("a route to nowhere", R"({"files": [{"file": "b.wav", "route": [[1, 3]]}]})", {"'route'"});
    const auto recording = [&row](const char *name, const char *record) {
        const QByteArray session =
            QByteArray(R"({"files": [{"file": "b.wav", "record": "r.wav"}, {"file": "a.wav", )") +
            R"("record": )" + record + "}]}";
        row(name, session.constData(), {"'record'"});
    };
    recording("a recording over an input", R"("c/../a.wav")");
    recording("a recording over an input in the same folder", R"("a.wav")");
    recording("a recording over the mix", R"("mix.wav")");
    recording("a recording elsewhere", R"("../take.wav")");
    recording("a recording at an absolute path", R"("/take.wav")");
    recording("a hidden recording", R"(".take.wav")");
    recording("a recording of an unknown format", R"("take.mp3")");
    recording("two recordings in one file", R"("R.wav")");
    recording("a recording whose name is two lines", R"("a\u2028b.wav")");
    recording("a recording whose name steers terminals", R"("a\u009bb.wav")");
    recording("a recording without a name", "1");
    row("a key that would break the line", "{\"new\\nline\\u001b\": 1}", {"'new?line?'"});
    row("a file name that would break the line", "{\"files\": [{\"file\": \"x\\n.wav\"}]}",
        {"'file'", "x?.wav"});
    QTest::newRow("a file without end") << QByteArray((1 << 24) + 1, ' ') << "mix.wav"
                                        << QStringList{"session.json", "16777216 bytes"};
    row("a rate of 0", R"({"rate": 0, "files": [{"file": "b.wav"}]})", {"'rate'"});
    row("129 channels", R"({"channels": 129, "files": [{"file": "b.wav"}]})", {"'channels'"});
    QByteArray many = R"({"files": [{"file": "b.wav"})";
    for (int i = 0; i < 128; ++i)
        many += R"(, {"file": "b.wav"})";
    QTest::newRow("129 channels in sum") << many + "]}"
                                         << "mix.wav" << QStringList{"'files'"};
    const QByteArray good = R"({"files": [{"file": "b.wav"}]})";
    QTest::newRow("an unknown format") << good << "mix.mp3" << QStringList{"mix.mp3"};
    QTest::newRow("no such folder") << good << "none/mix.wav" << QStringList{"none/mix.wav"};
}

void tst_TovelmixRender::render_refuses()
{
    QFETCH(QByteArray, session);
    QFETCH(QString, output);
    QFETCH(QStringList, words);
    QVERIFY(save(session));
    const QStringList before = QDir(m_folder->path()).entryList();
    const Result result =
        run({"render", path("session.json"), "--out", m_folder->filePath(output)});
    QCOMPARE(result.status, 1);
    QCOMPARE(result.out, QByteArray());
    QCOMPARE(result.err.count('\n'), 1);
    for (const QString &word : words)
        QVERIFY2(result.err.contains(word.toUtf8()), result.err.constData());
    QCOMPARE(QDir(m_folder->path()).entryList(), before);
}

void tst_TovelmixRender::render_leavesNothing_whenInterrupted()
{
    QVERIFY(save(R"({"files": [{"file": "a.wav", "loop": true}], "length": 80000})"));
    const auto list = [this](const QString &pattern) {
        return QDir(m_folder->path()).entryList({pattern}, QDir::Files);
    };
    const QStringList before = list("*");
    QProcess process;
    process.start(TOVELMIX,
                  {"render", path("session.json"), "--out", path("mix.wav"), "--verbose"});
    QByteArray log;
    const auto says = [&](const char *text) {
        log += process.readAllStandardError();
        return log.contains(text);
    };
    QTRY_VERIFY(says("Mixer Api Started!"));
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(runTimeout));
    QCOMPARE(process.exitCode(), 1);
    QVERIFY(says("interrupted"));
    QCOMPARE(list("*"), before);
}

QTEST_GUILESS_MAIN(tst_TovelmixRender)

#include "tst_tovelmix_render.moc"
