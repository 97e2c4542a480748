// SPDX-License-Identifier: MIT
#include "tovelmix_support.h"

#include <support/sound_server.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTemporaryFile>
#include <QtTest/QTest>

#include <algorithm>
#include <csignal>

namespace {

constexpr int patienceMs = 20000;

/// The program while it runs.
class Program
{
public:
    explicit Program(const QStringList &arguments) { m_process.start(TOVELMIX, arguments); }
    ~Program()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    /// Waits until what it has printed on stdout and stderr satisfies.
    bool printed(const QRegularExpression &text)
    {
        const QDeadlineTimer deadline(patienceMs);
        while (!deadline.hasExpired()) {
            if (text.match(all()).hasMatch())
                return true;
            if (m_process.state() == QProcess::NotRunning)
                return text.match(all()).hasMatch();
            m_process.waitForReadyRead(50);
        }
        return false;
    }
    bool printed(const QString &text)
    {
        return printed(QRegularExpression(QRegularExpression::escape(text)));
    }

    /// The last figure before " s" on stdout.
    double seconds()
    {
        all();
        const QStringList lines = m_output.split('\n', Qt::SkipEmptyParts);
        const QRegularExpression number("ed ([0-9.]+) s");
        for (auto line = lines.crbegin(); line != lines.crend(); ++line) {
            if (const auto match = number.match(*line); match.hasMatch())
                return match.captured(1).toDouble();
        }
        return -1.0;
    }
    bool reached(double wanted)
    {
        const QDeadlineTimer deadline(patienceMs);
        while (seconds() < wanted && !deadline.hasExpired())
            m_process.waitForReadyRead(50);
        return seconds() >= wanted;
    }

    void interrupt() { ::kill(pid_t(m_process.processId()), SIGINT); }

    Run finish()
    {
        Run run;
        if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(timeoutMs))
            return run;
        all();
        run.status = m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
        run.output = m_output;
        run.errors = ownErrors(m_errors);
        return run;
    }

private:
    QString all()
    {
        m_output += m_process.readAllStandardOutput();
        m_errors += m_process.readAllStandardError();
        return m_output + QString(m_errors);
    }

    QProcess m_process;
    QString m_output;
    QByteArray m_errors;
};

/// Where `part` begins in `whole`, −1 when it does not.
qsizetype find(const std::vector<short> &part, const std::vector<short> &whole)
{
    const auto found = std::search(whole.begin(), whole.end(), part.begin(), part.end());
    return found != whole.end() ? found - whole.begin() : -1;
}

} // namespace

class tst_TovelmixDevices : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void devices_areListed_inJson();
    void devices_areListed_inLines();
    void devices_tellChanges_whenWatched();
    void devices_areWatched_inJson();
    void everyCommand_tellsWhatIsMissing_withoutADevice_data();
    void everyCommand_tellsWhatIsMissing_withoutADevice();
    void usage_isExplained_whenArgumentsAreWrong_data();
    void usage_isExplained_whenArgumentsAreWrong();
    void unknownDevice_isRefused_data();
    void unknownDevice_isRefused();
    void play_arrivesWhole_inARecordingOfTheSink();
    void play_tellsTheScore_ofARememberedDevice();
    void play_endsEarly_whenAskedTo();
    void play_needsNoHardware_whenVirtual();
    void play_refusesWhatItCannotPlay();
    void play_endsWell_onOtherSystems_data();
    void play_endsWell_onOtherSystems();
    void play_fails_whenTheServerDies();
    void play_goesOn_whenTheServerIsBack();
    void play_ends_whenInterruptedWithoutADevice();
    void record_keepsTheTake_whenTheServerDies();
    void record_endsWithTheTake_afterTheTimeGiven();
    void monitor_showsLevels();

private:
    QString file(const QString &name) const { return m_folder->filePath(name); }
    /// A stereo file with distinct samples.
    bool writeSeconds(const QString &name, double seconds, int rate = 48000) const
    {
        return writeSound(file(name), SF_FORMAT_WAV | SF_FORMAT_PCM_16, rate, 2,
                          counting(2 * int(seconds * rate)));
    }

    QTemporaryFile m_suppressions;
    std::unique_ptr<QTemporaryDir> m_folder;
};

// What PulseAudio's client library keeps to its end is no leak of the program.
void tst_TovelmixDevices::initTestCase()
{
    QVERIFY(m_suppressions.open());
    QVERIFY(m_suppressions.write("leak:libpulse\n") > 0);
    m_suppressions.close();
    qputenv("LSAN_OPTIONS",
            "print_suppressions=0:suppressions=" + QFile::encodeName(m_suppressions.fileName()));
}

void tst_TovelmixDevices::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
}

// Lists -----------------------------------------------------------------------------------------

void tst_TovelmixDevices::devices_areListed_inJson()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    const Run run = tovelmix({"devices", "--json"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QJsonParseError error;
    const QJsonObject list = QJsonDocument::fromJson(run.output.toUtf8(), &error).object();
    QCOMPARE(error.error, QJsonParseError::NoError);
    QCOMPARE(list.value("backend").toString(), QString("Pulse"));
    const QJsonArray devices = list.value("devices").toArray();
    QCOMPARE(devices.size(), 2);
    const QJsonObject sink = devices.at(0).toObject();
    QCOMPARE(sink.value("name").toString(), QString("NULL1"));
    QCOMPARE(sink.value("numOutputChannels").toInt(), 2);
    QCOMPARE(sink.value("numInputChannels").toInt(), 0);
    QCOMPARE(sink.value("isDefaultOutput").toBool(), true);
    QCOMPARE(sink.value("preferredSampleRate").toInt(), 48000);
    QVERIFY(sink.value("identity").toString().startsWith("NULL1 [ 0 input / 2 output ] deviceId"));
    const QJsonObject monitor = devices.at(1).toObject();
    QCOMPARE(monitor.value("name").toString(), QString("Monitor of NULL1"));
    QCOMPARE(monitor.value("numInputChannels").toInt(), 2);
    QCOMPARE(monitor.value("isDefaultInput").toBool(), true);
}

void tst_TovelmixDevices::devices_areListed_inLines()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    const Run run = tovelmix({"devices", "--backend", "pulse"});
    QCOMPARE(run.output, QString("Pulse\n"
                                 "  NULL1 (2 out, 48000 Hz), default output\n"
                                 "  Monitor of NULL1 (2 in, 48000 Hz), default input, a monitor of "
                                 "an output\n"));
    QCOMPARE(run.status, 0);
}

void tst_TovelmixDevices::devices_tellChanges_whenWatched()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    Program program({"devices", "--watch"});
    QVERIFY(program.printed("Monitor of NULL1 (2 in, 48000 Hz), default input, a monitor of an "
                            "output\n"));
    const int module = server.loadSink({QStringLiteral("null2"), QStringLiteral("NULL2")});
    QVERIFY2(module >= 0, qPrintable(server.report()));
    QVERIFY(program.printed("\n+ NULL2 (2 out, 48000 Hz)\n"));
    QVERIFY(server.setDefaultSink(QStringLiteral("null2")));
    QVERIFY(program.printed("\ndefault output: NULL2 (2 out, 48000 Hz)\n"));
    QVERIFY(server.unload(module));
    QVERIFY(program.printed("\n- NULL2 (2 out, 48000 Hz)\n"));
    QVERIFY(program.printed("\ndefault output: NULL1 (2 out, 48000 Hz)\n"));
    program.interrupt();
    const Run run = program.finish();
    QCOMPARE(run.status, 0);
    QCOMPARE(run.errors, QString());
}

void tst_TovelmixDevices::devices_areWatched_inJson()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    Program program({"devices", "--watch", "--json"});
    QVERIFY(program.printed("Monitor of NULL1"));
    QVERIFY(server.loadSink({QStringLiteral("null2"), QStringLiteral("NULL2")}) >= 0);
    QVERIFY(program.printed("Monitor of NULL2"));
    program.interrupt();
    const Run run = program.finish();
    QCOMPARE(run.status, 0);
    const QStringList lines = run.output.split('\n', Qt::SkipEmptyParts);
    QVERIFY(lines.size() >= 2);
    const auto count = [](const QString &line) {
        return QJsonDocument::fromJson(line.toUtf8()).object().value("devices").toArray().size();
    };
    QCOMPARE(count(lines.first()), 2);
    QCOMPARE(count(lines.last()), 4);
}

// What is wrong ---------------------------------------------------------------------------------

void tst_TovelmixDevices::everyCommand_tellsWhatIsMissing_withoutADevice_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("serverRuns");
    QTest::addColumn<QString>("complaint");
    for (const char *backend : {"Pulse", "Jack", "Alsa"})
        QTest::addRow("devices of %s", backend)
            << QStringList{"devices", "--backend", backend} << false
            << QString("no sound device: %1 has none, or its server does not run").arg(backend);
    for (const bool runs : {false, true}) {
        const QString complaint = "no sound device: Pulse has none, or its server does not run";
        const char *state = runs ? "empty" : "no";
        QTest::addRow("play with %s server", state)
            << QStringList{"play", "in.wav"} << runs << complaint;
        QTest::addRow("record with %s server", state)
            << QStringList{"record", "--out", "take.wav"} << runs << complaint;
        QTest::addRow("monitor with %s server", state)
            << QStringList{"monitor"} << runs << complaint;
        QTest::addRow("watch with %s server", state)
            << QStringList{"devices", "--watch"} << runs << complaint;
    }
}

void tst_TovelmixDevices::everyCommand_tellsWhatIsMissing_withoutADevice()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, serverRuns);
    QFETCH(QString, complaint);
    QVERIFY(writeSeconds("in.wav", 0.1));
    arguments.replaceInStrings("in.wav", file("in.wav"));
    arguments.replaceInStrings("take.wav", file("take.wav"));
    PulseServer server({});
    QVERIFY2(!serverRuns || server.start(), qPrintable(server.report()));
    const Run run = tovelmix(arguments);
    QCOMPARE(run.status, 3);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.contains(complaint), qPrintable(run.errors));
    QCOMPARE(run.output, QString());
}

void tst_TovelmixDevices::usage_isExplained_whenArgumentsAreWrong_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("backend") << QStringList{"devices", "--backend", "Gramophone"}
                             << "unknown backend 'Gramophone': Auto, ";
    QTest::newRow("no files") << QStringList{"play"} << "play needs files";
    QTest::newRow("two backends") << QStringList{"play", "in.wav", "--virtual", "--backend", "Jack"}
                                  << "--virtual and --backend exclude each other";
    QTest::newRow("no take") << QStringList{"record"} << "record needs --out";
    QTest::newRow("file to devices") << QStringList{"devices", "in.wav"} << "unexpected argument";
    QTest::newRow("option of another command")
        << QStringList{"play", "in.wav", "--input", "NULL1"} << "play has no --input";
    QTest::newRow("device of a file")
        << QStringList{"record", "--in", "in.wav", "--follow"} << "record has no --follow";
    QTest::newRow("monitor without through")
        << QStringList{"monitor", "--device", "NULL1"} << "--through";
    for (const char *rate : {"0", "9", "192001", "fast"})
        QTest::addRow("rate %s", rate)
            << QStringList{"monitor", "--rate", rate} << "--rate must be a whole number";
    for (const char *frames : {"0", "31", "4097", "1.5"})
        QTest::addRow("buffer %s", frames)
            << QStringList{"monitor", "--buffer", frames} << "--buffer must be a whole number";
}

void tst_TovelmixDevices::usage_isExplained_whenArgumentsAreWrong()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, complaint);
    const Run run = tovelmix(arguments);
    QCOMPARE(run.status, 2);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.contains(complaint), qPrintable(run.errors));
    QCOMPARE(run.output, QString());
}

void tst_TovelmixDevices::unknownDevice_isRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("play") << QStringList{"play", "in.wav", "--device", "NULL7"}
                          << "--device: no device that plays is called 'NULL7'";
    // A sink does not record.
    QTest::newRow("record") << QStringList{"record", "--out", "take.wav", "--input", "NULL1"}
                            << "--input: no device that records is called 'NULL1'";
    QTest::newRow("monitor") << QStringList{"monitor", "--input", "NULL7"} << "called 'NULL7'";
    QTest::newRow("through") << QStringList{"monitor", "--through", "--device", "NULL7"}
                             << "called 'NULL7'";
}

void tst_TovelmixDevices::unknownDevice_isRefused()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, complaint);
    QVERIFY(writeSeconds("in.wav", 0.1));
    arguments.replaceInStrings("in.wav", file("in.wav"));
    arguments.replaceInStrings("take.wav", file("take.wav"));
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    const Run run = tovelmix(arguments);
    QCOMPARE(run.status, 2);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.contains(complaint), qPrintable(run.errors));
    QVERIFY(!QFile::exists(file("take.wav")));
}

// Playing and recording -------------------------------------------------------------------------

void tst_TovelmixDevices::play_arrivesWhole_inARecordingOfTheSink()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 2.0));
    Program recorder(
        {"record", "--input", "Monitor of NULL1", "--buffer", "4096", "--out", file("take.wav")});
    QVERIFY(recorder.reached(0.1));
    const Run run = tovelmix({"play", file("in.wav"), "--buffer", "4096"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.startsWith("NULL1 through Pulse, 48000 Hz, blocks of 4096 frames\n"),
             qPrintable(run.output));
    QVERIFY2(run.output.contains("played 2.0 s of 2.0 s, level "), qPrintable(run.output));
    QVERIFY(recorder.reached(recorder.seconds() + 1.0));
    recorder.interrupt();
    const Run recording = recorder.finish();
    QCOMPARE(recording.errors, QString());
    QCOMPARE(recording.status, 0);
    QVERIFY2(recording.output.contains("\nduration "), qPrintable(recording.output));

    const Sound take = readSound(file("take.wav"));
    QCOMPARE(take.info.samplerate, 48000);
    QCOMPARE(take.info.channels, 2);
    QCOMPARE(take.info.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    const qsizetype begin = find(counting(2 * 96000), take.samples);
    QVERIFY(begin >= 0);
    QCOMPARE(begin % 2, 0);
    // Silence before and after.
    const auto after = take.samples.begin() + begin + 2 * 96000;
    QVERIFY(std::all_of(take.samples.begin(), take.samples.begin() + begin,
                        [](short sample) { return sample == 0; }));
    QVERIFY(std::all_of(after, take.samples.end(), [](short sample) { return sample == 0; }));
}

void tst_TovelmixDevices::play_tellsTheScore_ofARememberedDevice()
{
    PulseServer server(PulseServer::twoSinks());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 0.1));
    const QString remembered =
        "NULL2 [ 0 input / 2 output ] deviceId = 999 defaultInput = 0 defaultOutput = 0";
    const Run other = tovelmix({"play", file("in.wav"), "--device", remembered});
    QCOMPARE(other.status, 0);
    QVERIFY2(other.output.startsWith(QString("--device '%1': took NULL2 [ ").arg(remembered)),
             qPrintable(other.output));
    QVERIFY2(other.output.contains(", score 64 of 128\nNULL2 through Pulse, "),
             qPrintable(other.output));
    const Run named = tovelmix({"play", file("in.wav"), "--device", "NULL2"});
    QVERIFY2(named.output.contains(", score 32 of 128\n"), qPrintable(named.output));

    const Run list = tovelmix({"devices", "--json"});
    QString identity;
    const QJsonArray devices =
        QJsonDocument::fromJson(list.output.toUtf8()).object().value("devices").toArray();
    for (const QJsonValue &device : devices) {
        if (device["name"].toString() == QString("NULL2"))
            identity = device["identity"].toString();
    }
    const Run same = tovelmix({"play", file("in.wav"), "--device", identity});
    QCOMPARE(same.status, 0);
    QVERIFY2(same.output.startsWith("NULL2 through Pulse, "), qPrintable(same.output));
}

void tst_TovelmixDevices::play_endsEarly_whenAskedTo()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 60.0));
    QVERIFY(writeSeconds("other.wav", 60.0, 44100));
    const Run run = tovelmix({"play", file("in.wav"), file("other.wav"), "--seconds", "0.5",
                              "--rate", "44100", "--buffer", "256"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.startsWith("NULL1 through Pulse, 44100 Hz, blocks of 256 frames\n"),
             qPrintable(run.output));
    QVERIFY2(run.output.contains("played 0.5 s of 0.5 s, "), qPrintable(run.output));

    Program program({"play", file("in.wav")});
    QVERIFY(program.reached(0.1));
    program.interrupt();
    const Run interrupted = program.finish();
    QCOMPARE(interrupted.errors, QString());
    QCOMPARE(interrupted.status, 0);
}

void tst_TovelmixDevices::play_needsNoHardware_whenVirtual()
{
    QVERIFY(writeSeconds("in.wav", 0.5));
    const Run run = tovelmix({"play", file("in.wav"), "--virtual", "--rate", "44100"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.startsWith("Silent device through Virtual, 44100 Hz, blocks of 512 frames"),
             qPrintable(run.output));
    QVERIFY2(run.output.contains("played 0.5 s of 0.5 s, level "), qPrintable(run.output));
}

void tst_TovelmixDevices::play_refusesWhatItCannotPlay()
{
    const Run missing = tovelmix({"play", file("nowhere.wav")});
    QCOMPARE(missing.status, 1);
    QVERIFY2(missing.complainedOnce(), qPrintable(missing.errors));
    QVERIFY(missing.errors.contains("nowhere.wav"));
    QVERIFY(writeSeconds("in.wav", 0.1));
    const Run many = tovelmix(QStringList{"play"} + QStringList(65, file("in.wav")));
    QCOMPARE(many.status, 1);
    QCOMPARE(many.errors,
             QString("tovelmix: the files have 130 channels, more than the mixer's 128\n"));
}

void tst_TovelmixDevices::play_endsWell_onOtherSystems_data()
{
    QTest::addColumn<QString>("backend");
    QTest::newRow("JACK") << "Jack";
    QTest::newRow("ALSA") << "Alsa";
    QTest::newRow("PipeWire") << "Pulse";
}

void tst_TovelmixDevices::play_endsWell_onOtherSystems()
{
    QFETCH(QString, backend);
    std::unique_ptr<SoundServer> server;
    if (backend == "Jack")
        server = std::make_unique<JackServer>();
    else if (backend == "Alsa")
        server = std::make_unique<AlsaServer>();
    else
        server = std::make_unique<PipeWireServer>(PulseServer::oneSink());
    QVERIFY2(server->start(), qPrintable(server->report()));
    QVERIFY(writeSeconds("in.wav", 0.5));
    const Run run = tovelmix({"play", file("in.wav"), "--backend", backend});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.contains("played 0.5 s of 0.5 s, "), qPrintable(run.output));
}

void tst_TovelmixDevices::record_endsWithTheTake_afterTheTimeGiven()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    const Run run = tovelmix({"record", "--out", file("take.wav"), "--seconds", "0.5"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.startsWith("Monitor of NULL1 through Pulse, "), qPrintable(run.output));
    QVERIFY2(run.output.contains("recorded 0.5 s of 0.5 s, "), qPrintable(run.output));
    QCOMPARE(readSound(file("take.wav")).info.frames, sf_count_t(24000));
}

void tst_TovelmixDevices::monitor_showsLevels()
{
    PulseServer server(PulseServer::twoSinks());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 60.0));
    Program player({"play", file("in.wav"), "--device", "NULL2"});
    QVERIFY(player.reached(0.1));
    Program first({"monitor", "--input", "Monitor of NULL2", "--through", "--device", "NULL1"});
    QVERIFY(first.printed(QRegularExpression("passing through for [0-9.]+ s, level -?[0-9]\\.")));
    Program second({"monitor", "--input", "Monitor of NULL1"});
    QVERIFY(second.printed(QRegularExpression("listening for [0-9.]+ s, level -?[0-9]\\.")));
    for (Program *program : {&second, &first, &player}) {
        program->interrupt();
        const Run run = program->finish();
        QCOMPARE(run.errors, QString());
        QCOMPARE(run.status, 0);
    }
    const Run timed = tovelmix({"monitor", "--seconds", "0.2"});
    QCOMPARE(timed.status, 0);
    // How late it is seen that the time is over is the machine's affair.
    const QRegularExpression last("listening for ([0-9.]+) s, level ");
    QVERIFY2(last.match(timed.output).captured(1).toDouble() >= 0.2, qPrintable(timed.output));
}

// Losing the server -----------------------------------------------------------------------------

void tst_TovelmixDevices::play_fails_whenTheServerDies()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 60.0));
    Program program({"play", file("in.wav")});
    QVERIFY(program.reached(0.1));
    server.kill();
    const Run run = program.finish();
    QCOMPARE(run.status, 1);
    QVERIFY2(
        QRegularExpression("^tovelmix: lost NULL1 at [0-9.]+ s\n$").match(run.errors).hasMatch(),
        qPrintable(run.errors));
}

void tst_TovelmixDevices::play_goesOn_whenTheServerIsBack()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 3.0));
    Program program({"play", file("in.wav"), "--follow"});
    QVERIFY(program.reached(0.1));
    server.kill();
    QVERIFY(program.printed("waiting for it or another default device\n"));
    QVERIFY2(server.start(), qPrintable(server.report()));
    const Run run = program.finish();
    QCOMPARE(run.status, 0);
    const QRegularExpression lines("^tovelmix: lost NULL1 at ([0-9.]+) s, waiting for it or "
                                   "another default device\n"
                                   "tovelmix: going on with NULL1 at ([0-9.]+) s\n$");
    const auto match = lines.match(run.errors);
    QVERIFY2(match.hasMatch(), qPrintable(run.errors));
    QCOMPARE(match.captured(1), match.captured(2));
    QVERIFY(match.captured(1).toDouble() < 3.0);
    QVERIFY2(run.output.contains("played 3.0 s of 3.0 s, "), qPrintable(run.output));
}

void tst_TovelmixDevices::play_ends_whenInterruptedWithoutADevice()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(writeSeconds("in.wav", 60.0));
    Program program({"play", file("in.wav"), "--follow"});
    QVERIFY(program.reached(0.1));
    server.kill();
    QVERIFY(program.printed("waiting for it or another default device\n"));
    program.interrupt();
    const Run run = program.finish();
    QCOMPARE(run.status, 0);
    QCOMPARE(run.errors.count('\n'), 1);
}

void tst_TovelmixDevices::record_keepsTheTake_whenTheServerDies()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    Program program({"record", "--out", file("take.wav")});
    QVERIFY(program.reached(0.5));
    server.kill();
    const Run run = program.finish();
    QCOMPARE(run.status, 1);
    const QRegularExpression line("^tovelmix: lost Monitor of NULL1 at [0-9.]+ s of the take\n$");
    QVERIFY2(line.match(run.errors).hasMatch(), qPrintable(run.errors));
    QVERIFY(readSound(file("take.wav")).info.frames >= 24000);
}

QTEST_GUILESS_MAIN(tst_TovelmixDevices)
#include "tst_tovelmix_devices.moc"
