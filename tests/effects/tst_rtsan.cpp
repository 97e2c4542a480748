// SPDX-License-Identifier: MIT
// The real-time sanitizer ends a program whose callbacks do what they must not, and no other.
#include <mixer/io/effect.h>
#include <support/session.h>

#include <QtCore/QProcess>
#include <QtTest/QTest>

#include <vector>

using namespace QTovelMixer;

namespace {

class Collector : public Effect
{
public:
    explicit Collector(bool allocates) : Effect(48000, 2), m_allocates(allocates) {}

    int processBuffers(const float *input, float *, int, int) override
    {
        ++calls;
        if (m_allocates)
            m_collected.push_back(*input);
        return 1;
    }

    int calls = 0;

private:
    const bool m_allocates;
    std::vector<float> m_collected;
};

// Runs as a program of its own, and fails as well when no block came.
int runBlocks(bool allocates)
{
    Collector effect(allocates);
    Session session(2, 2);
    session.engine.replaceInputEffect(&effect);
    if (!session.addRamp(48000, 1.0)) // somebody has to use the device
        return 2;
    session.runWithoutWaiting(3);
    session.engine.replaceInputEffect(nullptr);
    return effect.calls == 3 ? 0 : 3;
}

} // namespace

class tst_RtSan : public QObject
{
    Q_OBJECT

private slots:
    void program_ends_byWhatItsBlocksDo_data();
    void program_ends_byWhatItsBlocksDo();
};

void tst_RtSan::program_ends_byWhatItsBlocksDo_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<bool>("fails");
    QTest::newRow("clean") << "clean" << false;
    QTest::newRow("an effect that allocates") << "allocates" << true;
}

void tst_RtSan::program_ends_byWhatItsBlocksDo()
{
    QFETCH(QString, way);
    QFETCH(bool, fails);
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {"--blocks", way});
    QVERIFY(process.waitForFinished(60000));
    const QByteArray said = process.readAllStandardError();
    const bool failed = process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0;
    QVERIFY2(failed == fails, said.constData());
    QCOMPARE(said.contains("RealtimeSanitizer"), fails);
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--blocks") == 0)
        return runBlocks(qstrcmp(argv[2], "allocates") == 0);
    tst_RtSan test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_rtsan.moc"
