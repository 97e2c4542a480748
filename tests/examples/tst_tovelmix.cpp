// SPDX-License-Identifier: MIT
#include "tovelmix_support.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <sndfile.h>

#include <cmath>
#include <csignal>
#include <vector>

#include <sys/resource.h>

class tst_Tovelmix : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void record_takesEverySample_ofALoopedRawFile();
    void record_keepsChannelsApart_whenThereAreMany_data();
    void record_keepsChannelsApart_whenThereAreMany();
    void record_convertsAudioFiles_data();
    void record_convertsAudioFiles();
    void record_convertsTheRate_ofAnAudioFile();
    void record_loopsCleanly_whenTheFileIsShorterThanABlock();
    void record_printsThePeaks_ofTheTake();
    void record_printsPlainLines_whenPiped();
    void record_drawsBars_inATerminal();
    void record_keepsTheTakeSoFar_whenInterrupted();
    void record_replacesAnOlderTake();
    void record_leavesNothingBehind_whenTheDiskIsFull();
    void record_refusesBadInput_data();
    void record_refusesBadInput();
    void usage_isExplained_whenArgumentsAreWrong_data();
    void usage_isExplained_whenArgumentsAreWrong();
    void help_isPrinted_whenAsked();
    void help_showsTheOptionsOfItsCommand_data();
    void help_showsTheOptionsOfItsCommand();
    void manual_hasTheTextOfTheHelp();
    void completion_offersWhatACommandKnows_data();
    void completion_offersWhatACommandKnows();
    void verify_tellsTheFirstDifference();
    void verify_refusesAnotherForm();

private:
    QString file(const QString &name) const { return m_folder->filePath(name); }
    QStringList files() const { return QDir(m_folder->path()).entryList(QDir::Files, QDir::Name); }
    Run record(const QString &input, const QStringList &more) const
    {
        return tovelmix(QStringList{"record", "--in", file(input), "--out", file("take.wav")} +
                        more);
    }
    Run verify(const QString &input, const QStringList &more) const
    {
        return tovelmix(QStringList{"verify", "--in", file(input), "--take", file("take.wav")} +
                        more);
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void tst_Tovelmix::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
}

void tst_Tovelmix::record_takesEverySample_ofALoopedRawFile()
{
    const std::vector<short> input = counting(2 * 5000);
    QVERIFY(writeRaw(file("100%2.raw"), input));
    const Run run = record("100%2.raw", {"--channels", "2", "--seconds", "0.5"});
    QVERIFY2(run.output.startsWith(file("100%2.raw") + ": raw, 2 channels, 5000 frames\n"),
             qPrintable(run.output));
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);

    const Sound take = readSound(file("take.wav"));
    QCOMPARE(take.info.samplerate, 44100);
    QCOMPARE(take.info.channels, 2);
    QCOMPARE(take.info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    QCOMPARE(take.samples.size(), size_t(2 * 22050));
    for (size_t i = 0; i < take.samples.size(); ++i)
        QCOMPARE(take.samples[i], input[i % input.size()]);

    const Run verdict = verify("100%2.raw", {"--channels", "2"});
    QCOMPARE(verdict.output,
             QString("equal: 22050 frames of 2 channels match the looped input to the sample\n"));
    QCOMPARE(verdict.status, 0);
}

void tst_Tovelmix::record_keepsChannelsApart_whenThereAreMany_data()
{
    QTest::addColumn<int>("channels");
    QTest::newRow("one") << 1;
    QTest::newRow("more than a default table") << 9;
    QTest::newRow("more than a stored route") << 33;
    QTest::newRow("all") << 128;
}

void tst_Tovelmix::record_keepsChannelsApart_whenThereAreMany()
{
    QFETCH(int, channels);
    QVERIFY(writeRaw(file("in.raw"), counting(channels * 4096)));
    const QStringList count = {"--channels", QString::number(channels)};
    const Run run = record("in.raw", count + QStringList{"--seconds", "0.2"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    const Run verdict = verify("in.raw", count);
    QVERIFY2(verdict.status == 0, qPrintable(verdict.output + verdict.errors));
}

void tst_Tovelmix::record_convertsAudioFiles_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("format");
    QTest::newRow("WAV") << "in.wav" << (SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    QTest::newRow("WAV of floats") << "in.wav" << (SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    QTest::newRow("FLAC") << "in.flac" << (SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    QTest::newRow("Ogg Vorbis") << "in.ogg" << (SF_FORMAT_OGG | SF_FORMAT_VORBIS);
}

void tst_Tovelmix::record_convertsAudioFiles()
{
    QFETCH(QString, name);
    QFETCH(int, format);
    const std::vector<short> input = counting(2 * 6000);
    QVERIFY(writeSound(file(name), format, 44100, 2, input));
    const Run run = record(name, {"--seconds", "0.2"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    if ((format & SF_FORMAT_TYPEMASK) != SF_FORMAT_OGG) {
        const Sound take = readSound(file("take.wav"));
        for (size_t i = 0; i < take.samples.size(); ++i)
            QCOMPARE(take.samples[i], input[i % input.size()]);
    }
    const Run verdict = verify(name, {});
    QVERIFY2(verdict.status == 0, qPrintable(verdict.output + verdict.errors));
}

void tst_Tovelmix::record_convertsTheRate_ofAnAudioFile()
{
    // A tone that fits the file a whole number of times, so its loop has no seam.
    constexpr double pi = 3.14159265358979323846;
    std::vector<short> tone(48000);
    for (size_t i = 0; i < tone.size(); ++i)
        tone[i] = short(std::lround(16384.0 * std::sin(2.0 * pi * 1000.0 * double(i) / 48000.0)));
    QVERIFY(writeSound(file("tone.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 1, tone));
    const Run run = record("tone.wav", {"--seconds", "0.3"});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.contains("1 channel, 48000 Hz, 44100 frames at 44100 Hz"),
             qPrintable(run.output));
    QCOMPARE(verify("tone.wav", {}).status, 0);

    const Sound take = readSound(file("take.wav"));
    QCOMPARE(take.samples.size(), size_t(13230));
    // Away from the filter's edge at the start of the file; one step of 16 bit for each rounding.
    constexpr double tolerance = 2.0;
    for (size_t i = 200; i < take.samples.size(); ++i) {
        const double wanted = 16384.0 * std::sin(2.0 * pi * 1000.0 * double(i) / 44100.0);
        QVERIFY2(std::abs(take.samples[i] - wanted) <= tolerance, qPrintable(QString::number(i)));
    }
}

void tst_Tovelmix::record_loopsCleanly_whenTheFileIsShorterThanABlock()
{
    const std::vector<short> input = counting(2 * 100);
    QVERIFY(writeRaw(file("in.raw"), input));
    QCOMPARE(record("in.raw", {"--channels", "2", "--seconds", "0.1"}).status, 0);
    const Sound take = readSound(file("take.wav"));
    QCOMPARE(take.samples.size(), size_t(2 * 4410));
    for (size_t i = 0; i < take.samples.size(); ++i)
        QCOMPARE(take.samples[i], input[i % input.size()]);
}

void tst_Tovelmix::record_printsThePeaks_ofTheTake()
{
    // 16384 is half of full scale, 6.02 dB below; 32 is 60.21 dB below.
    std::vector<short> samples(2 * 8192);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = short(i % 2 == 0 ? 16384 : -32);
    QVERIFY(writeRaw(file("in.raw"), samples));
    const Run run = record("in.raw", {"--channels", "2", "--seconds", "0.3"});
    QCOMPARE(run.status, 0);
    const auto has = [&run](const char *pattern) {
        const QRegularExpression expression(pattern, QRegularExpression::MultilineOption);
        return run.output.contains(expression);
    };
    QVERIFY2(has("^frames +13230$"), qPrintable(run.output));
    QVERIFY2(has("^duration +0\\.300 s$"), qPrintable(run.output));
    QVERIFY2(has("^momentary loudness "), qPrintable(run.output));
    QVERIFY2(has("^short-term loudness "), qPrintable(run.output));
    QVERIFY2(has("^1 +-6\\.02 +-[0-9.]+$"), qPrintable(run.output));
    QVERIFY2(has("^2 +-60\\.21 +-[0-9.]+$"), qPrintable(run.output));
}

void tst_Tovelmix::record_printsPlainLines_whenPiped()
{
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    const Run run = record("in.raw", {"--channels", "2", "--seconds", "0.1"});
    QCOMPARE(run.status, 0);
    QVERIFY(!run.output.contains('\x1b'));
    QVERIFY(!run.output.contains('\r'));
    QVERIFY2(run.output.contains("recorded 0.1 s of 0.1 s, level "), qPrintable(run.output));
}

void tst_Tovelmix::record_drawsBars_inATerminal()
{
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    const QStringList words = {TOVELMIX,         "record",     "--in", file("in.raw"), "--out",
                               file("take.wav"), "--channels", "2",    "--seconds",    "0.3"};
    QProcess process;
    process.start("script", {"-qec", words.join(' '), "/dev/null"});
    const Run run = finish(process);
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.contains(QRegularExpression("\x1b\\[3A")), qPrintable(run.output));
    QVERIFY2(run.output.contains(QRegularExpression("  1 \\[#+")), qPrintable(run.output));
}

void tst_Tovelmix::record_keepsTheTakeSoFar_whenInterrupted()
{
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    QProcess process;
    process.start(TOVELMIX, {"record", "--in", file("in.raw"), "--out", file("take.wav"),
                             "--channels", "2", "--seconds", "600"});
    QByteArray output;
    const auto recording = [&] {
        output += process.readAllStandardOutput();
        return output.contains("recorded ");
    };
    QTRY_VERIFY_WITH_TIMEOUT(recording(), timeoutMs);
    kill(pid_t(process.processId()), SIGINT);
    const Run run = finish(process);
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.contains("interrupted: the take ends early\n"), qPrintable(run.output));
    QCOMPARE(files(), QStringList({"in.raw", "take.wav"}));
    const Run verdict = verify("in.raw", {"--channels", "2"});
    QVERIFY2(verdict.status == 0, qPrintable(verdict.output + verdict.errors));
}

void tst_Tovelmix::record_replacesAnOlderTake()
{
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    QVERIFY(writeRaw(file("take.wav"), counting(10)));
    QCOMPARE(record("in.raw", {"--channels", "2", "--seconds", "0.1"}).status, 0);
    QCOMPARE(readSound(file("take.wav")).info.frames, sf_count_t(4410));
    QCOMPARE(files(), QStringList({"in.raw", "take.wav"}));
}

void tst_Tovelmix::record_leavesNothingBehind_whenTheDiskIsFull()
{
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    QVERIFY(writeRaw(file("take.wav"), {1, 2, 3}));
    QProcess process;
    // A limit on the size of files stands in for the full disk.
    process.setChildProcessModifier([] {
        const rlimit limit = {.rlim_cur = 65536, .rlim_max = 65536};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
    });
    process.start(TOVELMIX, {"record", "--in", file("in.raw"), "--out", file("take.wav"),
                             "--channels", "2", "--seconds", "30"});
    const Run run = finish(process);
    QCOMPARE(run.status, 1);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.startsWith("tovelmix: cannot write '"), qPrintable(run.errors));
    // The older take stands as it was.
    QCOMPARE(files(), QStringList({"in.raw", "take.wav"}));
    QCOMPARE(QFile(file("take.wav")).size(), qint64(6));
}

void tst_Tovelmix::record_refusesBadInput_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("channels");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("missing file") << "none.raw"
                                  << "2"
                                  << "take.wav"
                                  << "does not exist";
    QTest::newRow("missing audio file") << "none.wav"
                                        << ""
                                        << "take.wav"
                                        << "does not exist";
    QTest::newRow("folder") << "."
                            << "2"
                            << "take.wav"
                            << "is a folder";
    QTest::newRow("empty raw file") << "empty.raw"
                                    << "2"
                                    << "take.wav"
                                    << "is empty";
    QTest::newRow("raw without channels") << "in.raw"
                                          << ""
                                          << "take.wav"
                                          << "needs --channels";
    QTest::newRow("partial frame") << "in.raw"
                                   << "3"
                                   << "take.wav"
                                   << "not a whole number";
    QTest::newRow("no audio") << "text.wav"
                              << ""
                              << "take.wav"
                              << "is no audio file";
    QTest::newRow("no audio, channels given") << "text.wav"
                                              << "2"
                                              << "take.wav"
                                              << "is no audio file";
    QTest::newRow("no audio, name of a headerless form") << "text.vox"
                                                         << ""
                                                         << "take.wav"
                                                         << "is no audio file";
    QTest::newRow("another channel count") << "in.wav"
                                           << "2"
                                           << "take.wav"
                                           << "has 1 channel, not 2";
    QTest::newRow("silent audio file") << "empty.wav"
                                       << ""
                                       << "take.wav"
                                       << "holds no samples";
    QTest::newRow("output in a missing folder") << "in.raw"
                                                << "2"
                                                << "no/take.wav"
                                                << "cannot write";
    QTest::newRow("output is a folder") << "in.raw"
                                        << "2"
                                        << "."
                                        << "it is a folder";
}

void tst_Tovelmix::record_refusesBadInput()
{
    QFETCH(QString, input);
    QFETCH(QString, channels);
    QFETCH(QString, output);
    QFETCH(QString, complaint);
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    QVERIFY(writeRaw(file("empty.raw"), {}));
    QVERIFY(writeSound(file("in.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, counting(100)));
    QVERIFY(writeSound(file("empty.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, {}));
    for (const char *name : {"text.wav", "text.vox"}) {
        QFile text(file(name));
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write("These are words, not samples.\n");
    }
    const QStringList before = files();
    QStringList arguments = {"record",     "--in",      file(input), "--out",
                             file(output), "--seconds", "0.1"};
    if (!channels.isEmpty())
        arguments += {"--channels", channels};
    const Run run = tovelmix(arguments);
    QCOMPARE(run.status, 1);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.contains(complaint), qPrintable(run.errors));
    QCOMPARE(run.output, QString());
    QCOMPARE(files(), before);
}

void tst_Tovelmix::usage_isExplained_whenArgumentsAreWrong_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("complaint");
    const QStringList record = {"record", "--in", "in.raw", "--out", "take.wav"};
    QTest::newRow("nothing") << QStringList() << "no command given";
    QTest::newRow("unknown command") << QStringList{"sing"} << "unknown command 'sing'";
    QTest::newRow("unknown option") << QStringList{"record", "--speed", "2"} << "speed";
    QTest::newRow("two commands") << QStringList{"record", "verify"} << "unexpected argument";
    QTest::newRow("no input") << QStringList{"verify", "--take", "take.wav"}
                              << "verify needs --in INPUT";
    QTest::newRow("empty input") << QStringList{"record", "--in",  "",        "--seconds",
                                                "1",      "--out", "take.wav"}
                                 << "record needs --in INPUT";
    QTest::newRow("no output") << QStringList{"record", "--seconds", "1", "--in", "in.raw"}
                               << "record needs --out";
    QTest::newRow("no length") << record << "record needs --seconds S";
    QTest::newRow("no take") << QStringList{"verify", "--in", "in.raw"} << "verify needs --take";
    for (const char *channels : {"0", "-1", "129", "two", "1.5"})
        QTest::addRow("channels %s", channels)
            << record + QStringList{"--seconds", "1", "--channels", channels} << "--channels must";
    for (const char *seconds : {"0", "-1", "0.00001", "nan", "inf", "soon", "86401"})
        QTest::addRow("seconds %s", seconds)
            << record + QStringList{"--channels", "2", "--seconds", seconds} << "--seconds must";
}

void tst_Tovelmix::usage_isExplained_whenArgumentsAreWrong()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, complaint);
    const Run run = tovelmix(arguments);
    QCOMPARE(run.status, 2);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.contains(complaint), qPrintable(run.errors));
    QCOMPARE(run.output, QString());
}

void tst_Tovelmix::help_isPrinted_whenAsked()
{
    const Run run = tovelmix({"--help"});
    QCOMPARE(run.status, 0);
    QVERIFY(run.output.contains("tovelmix render SESSION.json"));
    QVERIFY(run.output.contains("--verbose"));
    const Run version = tovelmix({"--version"});
    QCOMPARE(version.status, 0);
    QVERIFY2(version.output.contains("version 3.20.4.1"), qPrintable(version.output));
}

void tst_Tovelmix::help_showsTheOptionsOfItsCommand_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("shown");
    QTest::addColumn<QStringList>("absent");
    QTest::newRow("render") << "render" << QStringList{"--out", "--json", "--picture", "--force"}
                            << QStringList{"--device", "--seconds", "--take", "tovelmix play"};
    QTest::newRow("record") << "record"
                            << QStringList{"--input", "--backend", "--in INPUT", "--channels"}
                            << QStringList{"--picture", "--through", "--force"};
    QTest::newRow("verify") << "verify" << QStringList{"--in", "--take"}
                            << QStringList{"--out", "--seconds"};
}

void tst_Tovelmix::help_showsTheOptionsOfItsCommand()
{
    QFETCH(QString, command);
    QFETCH(QStringList, shown);
    QFETCH(QStringList, absent);
    const Run run = tovelmix({command, "--help"});
    QCOMPARE(run.status, 0);
    for (const QString &text : shown)
        QVERIFY2(run.output.contains(text), qPrintable(text + " is missing in\n" + run.output));
    for (const QString &text : absent)
        QVERIFY2(!run.output.contains(text), qPrintable(text + " stands in\n" + run.output));
    for (const QString &line : run.output.split('\n'))
        QVERIFY2(line.size() <= 80, qPrintable(line));
}

void tst_Tovelmix::manual_hasTheTextOfTheHelp()
{
    QString manual = tovelmix({"--manual"}).output;
    QVERIFY(manual.startsWith(".TH TOVELMIX 1\n"));
    manual.replace("\\-", "-");
    for (const char *command :
         {"devices", "play", "record", "render", "measure", "monitor", "verify"}) {
        const QString help = tovelmix({command, "--help"}).output;
        QVERIFY2(manual.contains(help.section('\n', 1, 1)), command);
        int options = 0;
        for (const QString &line : help.split('\n')) {
            if (!line.startsWith("  --"))
                continue;
            ++options;
            QVERIFY2(manual.contains(".B " + line.trimmed().section("  ", 0, 0).section(' ', 0, 0)),
                     qPrintable(line));
        }
        QVERIFY2(options >= 3, command);
    }
}

void tst_Tovelmix::completion_offersWhatACommandKnows_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("offers");
    QTest::newRow("a command") << "ren"
                               << "render";
    QTest::newRow("several commands") << "re"
                                      << "record render";
    QTest::newRow("an option") << "render --pi"
                               << "--picture";
    QTest::newRow("an option of another command") << "render --dev"
                                                  << "";
    QTest::newRow("options of both uses") << "record --in"
                                          << "--input --in";
}

void tst_Tovelmix::completion_offersWhatACommandKnows()
{
    QFETCH(QString, words);
    QFETCH(QString, offers);
    const QString script = file("completion");
    QFile out(script);
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(tovelmix({"--completion"}).output.toUtf8());
    out.close();
    QProcess bash;
    bash.start("bash", {"-c", QString("source %1; COMP_WORDS=(tovelmix %2); "
                                      "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tovelmix; "
                                      "echo \"${COMPREPLY[*]}\"")
                                  .arg(script, words)});
    const Run run = finish(bash);
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.output.trimmed(), offers);
}

void tst_Tovelmix::verify_tellsTheFirstDifference()
{
    std::vector<short> samples = counting(2 * 5000);
    QVERIFY(writeRaw(file("in.raw"), samples));
    samples[2 * 1234 + 1] = 77;
    QVERIFY(writeSound(file("take.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 2, samples));
    const Run run = verify("in.raw", {"--channels", "2"});
    QCOMPARE(run.status, 1);
    QVERIFY2(run.output.startsWith("different at frame 1234, channel 2: the take has 77, "),
             qPrintable(run.output));
}

void tst_Tovelmix::verify_refusesAnotherForm()
{
    QVERIFY(writeRaw(file("in.raw"), counting(2 * 5000)));
    QVERIFY(writeSound(file("take.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2,
                       counting(2 * 5000)));
    const Run other = verify("in.raw", {"--channels", "2"});
    QCOMPARE(other.status, 1);
    QVERIFY2(other.output.startsWith("different form: "), qPrintable(other.output));
    QVERIFY(QFile::remove(file("take.wav")));
    const Run missing = verify("in.raw", {"--channels", "2"});
    QCOMPARE(missing.status, 1);
    QVERIFY2(missing.complainedOnce(), qPrintable(missing.errors));
}

QTEST_GUILESS_MAIN(tst_Tovelmix)
#include "tst_tovelmix.moc"
