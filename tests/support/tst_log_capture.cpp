// SPDX-License-Identifier: MIT
#include <support/log_capture.h>

#include <QtCore/QThread>
#include <QtTest/QTest>

#include <memory>

class tst_LogCapture : public QObject
{
    Q_OBJECT

private slots:
    void capture_keepsTypeTextAndOrder();
    void capture_keepsLinesOfOtherThreads();
    void capture_goesToTheYoungest_whenNested();
    void capture_passesOn_whenAsked();
    void counts_matchWholeLinesAndBeginnings();
    void clear_forgets();
};

void tst_LogCapture::capture_keepsTypeTextAndOrder()
{
    LogCapture log;
    qInfo("first");
    qWarning("second");
    qCritical("third");
    qDebug("fourth");
    const QList<LogCapture::Line> lines = log.lines();
    QCOMPARE(lines.size(), 4);
    QCOMPARE(log.count(), 4);
    QCOMPARE(log.texts(), QStringList({"first", "second", "third", "fourth"}));
    QCOMPARE(lines[0].type, QtInfoMsg);
    QCOMPARE(lines[1].type, QtWarningMsg);
    QCOMPARE(lines[2].type, QtCriticalMsg);
    QCOMPARE(lines[3].type, QtDebugMsg);
    QCOMPARE(log.texts(QtCriticalMsg), QStringList("third"));
}

void tst_LogCapture::capture_keepsLinesOfOtherThreads()
{
    LogCapture log;
    const auto write = [] {
        for (int i = 0; i < 500; ++i)
            qInfo("line %d", i);
    };
    const std::unique_ptr<QThread> one(QThread::create(write));
    const std::unique_ptr<QThread> two(QThread::create(write));
    one->start();
    two->start();
    QVERIFY(one->wait(60000) && two->wait(60000));
    QCOMPARE(log.count(), 1000);
    QCOMPARE(log.count(QStringLiteral("line 499")), 2);
}

void tst_LogCapture::capture_goesToTheYoungest_whenNested()
{
    LogCapture outer;
    qInfo("before");
    {
        LogCapture inner;
        qInfo("inside");
        QCOMPARE(inner.texts(), QStringList("inside"));
    }
    qInfo("after");
    QCOMPARE(outer.texts(), QStringList({"before", "after"}));
}

void tst_LogCapture::capture_passesOn_whenAsked()
{
    LogCapture outer;
    {
        LogCapture inner(LogCapture::KeepAndPass);
        qInfo("to both");
        QCOMPARE(inner.count(), 1);
    }
    QCOMPARE(outer.texts(), QStringList("to both"));
}

void tst_LogCapture::counts_matchWholeLinesAndBeginnings()
{
    LogCapture log;
    qInfo("Mixer Api Started!");
    qWarning("Mixer Api Started!");
    qInfo("Mixer Api Started! Twice");
    QCOMPARE(log.count(QStringLiteral("Mixer Api Started!")), 2);
    QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Mixer Api Started!")), 1);
    QCOMPARE(log.countStarting(QStringLiteral("Mixer Api")), 3);
    QCOMPARE(log.countStarting(QStringLiteral("Api")), 0);
    QVERIFY(log.contains(QStringLiteral("Started! T")));
    QVERIFY(!log.contains(QStringLiteral("stopped")));
}

void tst_LogCapture::clear_forgets()
{
    LogCapture log;
    qInfo("gone");
    log.clear();
    QCOMPARE(log.count(), 0);
}

QTEST_GUILESS_MAIN(tst_LogCapture)
#include "tst_log_capture.moc"
