// SPDX-License-Identifier: MIT
// Files measured by the example host.
#include "tovelmix_support.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

namespace {

constexpr int rate = 48000;

/// A stereo tone of 1 kHz; in stereo its level in dBFS is its loudness in LUFS.
std::vector<short> tone(double decibels, double seconds, int channels = 2)
{
    const double amplitude = 32767.0 * std::pow(10.0, decibels / 20.0);
    std::vector<short> samples;
    for (int i = 0; i < int(seconds * rate); ++i) {
        const double value = amplitude * std::sin(2.0 * std::numbers::pi * 1000.0 * i / rate);
        samples.insert(samples.end(), size_t(channels), short(std::lround(value)));
    }
    return samples;
}

QJsonArray parsed(const Run &run)
{
    return QJsonDocument::fromJson(run.output.toUtf8()).array();
}

} // namespace

class tst_TovelmixMeasure : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void measure_printsATable();
    void measure_printsJson();
    void measure_judges_data();
    void measure_judges();
    void measure_namesWhatMisses();
    void measure_countsOvers();
    void measure_weighsByLayout();
    void measure_ofSilence();
    void measure_refuses_data();
    void measure_refuses();

private:
    QString path(const char *name) const { return m_folder->filePath(name); }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void tst_TovelmixMeasure::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
    constexpr int wav = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    QVERIFY(writeSound(path("soft.wav"), wav, rate, 2, tone(-23.0, 5.0)));
    QVERIFY(writeSound(path("loud %2.wav"), wav, rate, 2, tone(-9.0, 5.0)));
    QVERIFY(writeSound(path("mono.wav"), wav, rate, 1, tone(-23.0, 5.0, 1)));
    QVERIFY(writeSound(path("silence.wav"), wav, rate, 2, std::vector<short>(2 * rate, 0)));
}

void tst_TovelmixMeasure::measure_printsATable()
{
    const Run run = tovelmix({"measure", path("soft.wav"), path("loud %2.wav")});
    QCOMPARE(run.errors, QString());
    QCOMPARE(run.status, 0);
    for (const char *text :
         {"soft.wav: 48000 Hz, 2 channels, 5.00 s", "  integrated         -23.0 LUFS",
          "  range              0.0 LU", "  true peak          -23.0 dBTP at ",
          "  peak to loudness   0.0 LU", "  overs              0", "loud %2.wav: 48000 Hz",
          "  integrated         -9.0 LUFS", "  largest momentary  -9.0 LUFS at "})
        QVERIFY2(run.output.contains(text), qPrintable(run.output));
}

void tst_TovelmixMeasure::measure_printsJson()
{
    const Run run = tovelmix({"measure", "--json", path("soft.wav"), path("silence.wav")});
    QCOMPARE(run.status, 0);
    const QJsonArray files = parsed(run);
    QCOMPARE(files.size(), 2);
    const QJsonObject soft = files.at(0).toObject();
    QCOMPARE(soft["file"].toString(), path("soft.wav"));
    QCOMPARE(soft["sampleRate"].toInt(), rate);
    QCOMPARE(soft["channels"].toInt(), 2);
    QCOMPARE(soft["seconds"].toDouble(), 5.0);
    for (const char *key : {"integrated", "maxMomentary", "maxShortTerm", "maxTruePeak"})
        QVERIFY2(std::abs(soft[key].toDouble() + 23.0) < 0.05, key);
    QCOMPARE(soft["peaks"].toArray().size(), 2);
    QVERIFY(!soft.contains("met"));
    const QJsonObject silence = files.at(1).toObject();
    QVERIFY(silence["integrated"].isNull() && silence.contains("integrated"));
}

void tst_TovelmixMeasure::measure_judges_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("status");
    QTest::newRow("met") << "r128"
                         << "soft.wav" << 0;
    QTest::newRow("too loud") << "r128"
                              << "loud %2.wav" << 4;
    QTest::newRow("too soft") << "streaming-14"
                              << "soft.wav" << 4;
    QTest::newRow("silence") << "r128"
                             << "silence.wav" << 4;
}

void tst_TovelmixMeasure::measure_judges()
{
    QFETCH(QString, target);
    QFETCH(QString, file);
    QFETCH(int, status);
    const QString name = m_folder->filePath(file);
    const Run table = tovelmix({"measure", "--target", target, name});
    QCOMPARE(table.errors, QString());
    QCOMPARE(table.status, status);
    QCOMPARE(table.output.contains(": met\n"), status == 0);
    QCOMPARE(table.output.contains(": missed: integrated "), status == 4);
    const Run json = tovelmix({"measure", "--target", target, "--json", name});
    QCOMPARE(json.status, status);
    const QJsonObject object = parsed(json).at(0).toObject();
    QCOMPARE(object["target"].toString(), target);
    QCOMPARE(object["met"].toBool(), status == 0);
    // One that misses is enough.
    QCOMPARE(tovelmix({"measure", "--target", "r128", path("soft.wav"), name}).status,
             target == "r128" ? status : 0);
}

void tst_TovelmixMeasure::measure_namesWhatMisses()
{
    const Run run = tovelmix({"measure", "--target", "r128-s1", path("loud %2.wav")});
    QVERIFY2(run.output.contains("  r128-s1 (EBU R 128 s1, January 2016): missed: integrated -9.0 "
                                 "LUFS, wanted at most -22.8 LUFS; short-term -9.0 LUFS, wanted at "
                                 "most -18.0 LUFS\n"),
             qPrintable(run.output));
    const QJsonArray misses =
        parsed(tovelmix({"measure", "--target", "r128-s1", "--json", path("loud %2.wav")}))
            .at(0)
            .toObject()["misses"]
            .toArray();
    QCOMPARE(misses.size(), 2);
    QCOMPARE(misses.at(1).toObject()["figure"].toString(), "maxShortTerm");
    QCOMPARE(misses.at(1).toObject()["limit"].toDouble(), -18.0);
}

void tst_TovelmixMeasure::measure_countsOvers()
{
    std::vector<short> samples = tone(-6.0, 1.0, 1);
    for (const size_t first : {1000U, 2000U, 3000U})
        std::fill_n(samples.begin() + ptrdiff_t(first), first / 1000, short(32767));
    QVERIFY(writeSound(path("clipped.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, rate, 1, samples));
    const Run run = tovelmix({"measure", "--json", path("clipped.wav")});
    const QJsonObject peaks = parsed(run).at(0).toObject()["peaks"].toArray().at(0).toObject();
    QCOMPARE(peaks["overs"].toInt(), 1); // of the runs of 1, 2 and 3 samples
    QCOMPARE(peaks["samplePeakTime"].toDouble(), 1000.0 / rate);
    QVERIFY(peaks["truePeak"].toDouble() >= peaks["samplePeak"].toDouble());
}

void tst_TovelmixMeasure::measure_weighsByLayout()
{
    const auto integrated = [&](const QStringList &options) {
        const Run run = tovelmix(QStringList{"measure", "--json", path("mono.wav")} + options);
        return parsed(run).at(0).toObject()["integrated"].toDouble();
    };
    QVERIFY(std::abs(integrated({}) + 26.01) < 0.05);
    QVERIFY(std::abs(integrated({"--layout", "dual mono"}) + 23.0) < 0.05);
}

void tst_TovelmixMeasure::measure_ofSilence()
{
    const Run run = tovelmix({"measure", path("silence.wav")});
    QCOMPARE(run.status, 0);
    QVERIFY2(run.output.contains("  integrated         silence\n"), qPrintable(run.output));
}

void tst_TovelmixMeasure::measure_refuses_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("nothing") << QStringList{} << 2 << "measure needs files";
    QTest::newRow("no file") << QStringList{"absent.wav"} << 1 << "there is no such file";
    QTest::newRow("a folder") << QStringList{"/"} << 1 << "it is not a file";
    QTest::newRow("a target that nobody knows")
        << QStringList{"soft.wav", "--target", "loud"} << 2 << "unknown target 'loud': r128, ";
    QTest::newRow("a layout that nobody knows")
        << QStringList{"soft.wav", "--layout", "6.2"} << 2 << "unknown layout '6.2'";
    QTest::newRow("a layout of more channels")
        << QStringList{"soft.wav", "--layout", "5.1"} << 1 << "has 2 channels, the layout has 6";
    QTest::newRow("an option of another command")
        << QStringList{"soft.wav", "--picture", "a.png"} << 2 << "measure has no --picture";
}

void tst_TovelmixMeasure::measure_refuses()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QString, complaint);
    if (!arguments.isEmpty() && arguments.first() == "soft.wav")
        arguments.first() = path("soft.wav");
    const Run run = tovelmix(QStringList{"measure"} + arguments);
    QCOMPARE(run.status, status);
    QVERIFY2(run.complainedOnce(), qPrintable(run.errors));
    QVERIFY2(run.errors.contains(complaint), qPrintable(run.errors));
    QCOMPARE(run.output, QString());
}

QTEST_GUILESS_MAIN(tst_TovelmixMeasure)
#include "tst_tovelmix_measure.moc"
