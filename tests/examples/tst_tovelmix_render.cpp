// SPDX-License-Identifier: MIT
// Sessions mixed into files by the example host.
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>
#include <QtTest/QTest>

#include <sndfile.h>

#include <csignal>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    void render_ends_whenNobodyReadsItsOutput_data();
    void render_ends_whenNobodyReadsItsOutput();
    void render_namesTheFile_thatCannotBePlayed_data();
    void render_namesTheFile_thatCannotBePlayed();
    void render_replacesNothing_withoutForce_data();
    void render_replacesNothing_withoutForce();
    void render_replacesRecordingsAndInputs_whenForced();
    void render_refusesAPipe_asSession();
    void render_showsDirectionMarks_asQuestionMarks();

private:
    QString path(const char *name) const { return m_folder->filePath(name); }
    bool save(const QByteArray &json) const
    {
        QFile file(path("session.json"));
        return file.open(QIODevice::WriteOnly) && file.write(json) == json.size();
    }
    QMap<QString, QByteArray> contents() const
    {
        QMap<QString, QByteArray> all;
        for (const QString &name : QDir(m_folder->path()).entryList(QDir::Files)) {
            QFile file(m_folder->filePath(name));
            all[name] = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
        }
        return all;
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

void tst_TovelmixRender::render_ends_whenNobodyReadsItsOutput_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("Ctrl-C") << SIGINT;
    QTest::newRow("the polite kill") << SIGTERM;
}

// The figures go into a pipe that is full, so the program waits in the middle of printing.
void tst_TovelmixRender::render_ends_whenNobodyReadsItsOutput()
{
#if defined(__SANITIZE_THREAD__)
    QSKIP("the sanitizer keeps signals back while a call waits");
#endif
    QFETCH(int, signal);
    QVERIFY(save(R"({"files": [{"file": "b.wav"}]})"));
    int ends[2];
    QVERIFY(pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0);
    const QByteArray filling(4096, ' ');
    while (write(ends[1], filling.constData(), size_t(filling.size())) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    QProcess process;
    process.setChildProcessModifier([&ends] { dup2(ends[1], STDOUT_FILENO); });
    process.start(TOVELMIX, {"render", path("session.json"), "--out", path("mix.wav")});
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(path("mix.wav")), runTimeout);
    ::kill(pid_t(process.processId()), signal);
    const bool ended = process.waitForFinished(60000);
    close(ends[0]);
    close(ends[1]);
    QVERIFY(ended);
    QVERIFY(process.exitStatus() == QProcess::CrashExit || process.exitCode() == 1);
}

void tst_TovelmixRender::render_namesTheFile_thatCannotBePlayed_data()
{
    QTest::addColumn<QByteArray>("files");
    QTest::newRow("alone") << QByteArray(R"({"file": "slow.wav"})");
    QTest::newRow("beside another") << QByteArray(R"({"file": "b.wav"}, {"file": "slow.wav"})");
}

// No converter leads from 100 Hz to 48000 Hz.
void tst_TovelmixRender::render_namesTheFile_thatCannotBePlayed()
{
    QFETCH(QByteArray, files);
    QVERIFY(writeMono(path("slow.wav"), 100, 200));
    QVERIFY(save("{\"files\": [" + files + "]}"));
    const QMap<QString, QByteArray> before = contents();
    const Result result = run({"render", path("session.json"), "--out", path("mix.wav")});
    QCOMPARE(result.status, 1);
    QVERIFY2(result.err.contains("slow.wav'"), result.err.constData());
    QCOMPARE(contents(), before);
}

void tst_TovelmixRender::render_replacesNothing_withoutForce_data()
{
    QTest::addColumn<QByteArray>("record");
    QTest::addColumn<QString>("mix");
    QTest::addColumn<QString>("picture");
    QTest::addColumn<QString>("named");
    QTest::newRow("a mix over an input") << QByteArray() << "b.wav"
                                         << ""
                                         << "b.wav";
    QTest::newRow("a mix over a link to an input") << QByteArray() << "link.wav"
                                                   << ""
                                                   << "link.wav";
    QTest::newRow("a mix over a hard link to an input") << QByteArray() << "hard.wav"
                                                        << ""
                                                        << "hard.wav";
    QTest::newRow("a mix over an input in a linked folder") << QByteArray() << "folder/b.wav"
                                                            << ""
                                                            << "folder/b.wav";
    QTest::newRow("a picture over an input") << QByteArray() << "mix.wav"
                                             << "b.wav"
                                             << "b.wav";
    QTest::newRow("a picture over the session") << QByteArray() << "mix.wav"
                                                << "session.json"
                                                << "session.json";
    QTest::newRow("a picture over the mix") << QByteArray() << "mix.wav"
                                            << "mix.wav"
                                            << "mix.wav";
    QTest::newRow("a picture over a recording") << QByteArray("take.wav") << "mix.wav"
                                                << "take.wav"
                                                << "take.wav";
    QTest::newRow("a recording over an older one") << QByteArray("older.wav") << "mix.wav"
                                                   << ""
                                                   << "older.wav";
    QTest::newRow("a recording over the mix") << QByteArray("mix.wav") << "mix.wav"
                                              << ""
                                              << "mix.wav";
    QTest::newRow("a recording over an input") << QByteArray("b.wav") << "mix.wav"
                                               << ""
                                               << "b.wav";
}

void tst_TovelmixRender::render_replacesNothing_withoutForce()
{
    QFETCH(QByteArray, record);
    QFETCH(QString, mix);
    QFETCH(QString, picture);
    QFETCH(QString, named);
    QVERIFY(writeMono(path("older.wav"), 48000, 10));
    QVERIFY(QFile::link(path("b.wav"), path("link.wav")));
    QVERIFY(QFile::link(m_folder->path(), path("folder")));
    std::filesystem::create_hard_link(path("b.wav").toStdString(), path("hard.wav").toStdString());
    QVERIFY(save("{\"files\": [{\"file\": \"b.wav\"" +
                 (record.isEmpty() ? QByteArray() : ", \"record\": \"" + record + '"') + "}]}"));
    const QMap<QString, QByteArray> before = contents();
    QStringList arguments{"render", path("session.json"), "--out", m_folder->filePath(mix)};
    if (!picture.isEmpty())
        arguments += {"--picture", m_folder->filePath(picture)};
    const Result result = run(arguments);
    QCOMPARE(result.status, 1);
    QCOMPARE(result.err.count('\n'), 1);
    QVERIFY2(result.err.contains(named.toUtf8()), result.err.constData());
    QCOMPARE(contents(), before);
    QVERIFY(QFileInfo(path("link.wav")).isSymLink());
}

void tst_TovelmixRender::render_replacesRecordingsAndInputs_whenForced()
{
    QVERIFY(writeMono(path("take.wav"), 48000, 10));
    QVERIFY(save(R"({"files": [{"file": "b.wav", "record": "take.wav"}]})"));
    const Result result = run({"render", path("session.json"), "--out", path("b.wav"), "--force"});
    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.status, 0);
    for (const char *name : {"b.wav", "take.wav"}) {
        SF_INFO info = {};
        SNDFILE *sound = sf_open(QFile::encodeName(path(name)).constData(), SFM_READ, &info);
        QVERIFY(sound);
        sf_close(sound);
        QCOMPARE(info.frames, sf_count_t(48000));
        QCOMPARE(info.samplerate, 48000);
    }
}

// Nobody ever writes into it, so reading it would wait for ever.
void tst_TovelmixRender::render_refusesAPipe_asSession()
{
    QVERIFY(mkfifo(QFile::encodeName(path("session.json")).constData(), 0600) == 0);
    const QStringList before = QDir(m_folder->path()).entryList(QDir::Files | QDir::System);
    QProcess process;
    process.start(TOVELMIX, {"render", path("session.json"), "--out", path("mix.wav")});
    const bool ended = process.waitForFinished(60000);
    QVERIFY2(ended, "it waits for the pipe");
    QCOMPARE(process.exitCode(), 1);
    QVERIFY(process.readAllStandardError().contains("session.json"));
    QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files | QDir::System), before);
}

void tst_TovelmixRender::render_showsDirectionMarks_asQuestionMarks()
{
    const QString name = QString::fromUtf8("gnp.\u202aa\u202bb\u202cc\u202dd\u202ee\u2066f\u2067g"
                                           "\u2068h\u2069.wav");
    const QByteArray shown = "gnp.?a?b?c?d?e?f?g?h?.wav";
    QVERIFY(save(R"({"files": [{"file": ")" + name.toUtf8() + R"("}]})"));
    const Result refused = run({"render", path("session.json"), "--out", path("mix.wav")});
    QCOMPARE(refused.status, 1);
    QVERIFY2(refused.err.contains(shown), refused.err.constData());

    QVERIFY(save(R"({"files": [{"file": "b.wav", "record": ")" + name.toUtf8() + R"("}]})"));
    const Result result =
        run({"render", path("session.json"), "--out", m_folder->filePath("m" + name)});
    QCOMPARE(result.status, 0);
    QVERIFY2(result.out.contains("/m" + shown + ':'), result.out.constData());
    QVERIFY2(result.out.contains('/' + shown + ": recorded"), result.out.constData());
    QVERIFY(!result.out.contains("\xe2\x80") && !result.out.contains("\xe2\x81"));

    const Result json = run({"render", path("session.json"), "--out",
                             m_folder->filePath("m" + name), "--json", "--force"});
    QVERIFY(!json.out.contains("\xe2\x80") && !json.out.contains("\xe2\x81"));
    const QJsonObject object = QJsonDocument::fromJson(json.out).object();
    QCOMPARE(object.value("file").toString(), m_folder->filePath("m" + name));
}

QTEST_GUILESS_MAIN(tst_TovelmixRender)

#include "tst_tovelmix_render.moc"
