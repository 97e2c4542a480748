// SPDX-License-Identifier: MIT
#include <base/debug.h>

#include <base/trace_p.h>
#include <support/log_capture.h>
#include <support/rtguard.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_Debug : public QObject
{
    Q_OBJECT

private slots:
    void error_writesOneCriticalLine();
    void log_writesOneInformationLine();
    void message_writesOneDebugLine();
    void text_isExact_ofAnyLength_data();
    void text_isExact_ofAnyLength();
    void text_isUtf8();
    void percentSign_ofAnArgument_isText();
    void nullFormat_writesNothing();
    void line_isQueued_onAnAudioThread();
    void longLine_isCut_onAnAudioThread();
};

void tst_Debug::error_writesOneCriticalLine()
{
    LogCapture log;
    int object = 0;
    void *const pointer = &object;
    BLDEBUG_Error(-1, "QTovelMixer::setGain: Invalid sink (%p)!!", pointer);
    QCOMPARE(log.count(), 1);
    QCOMPARE(log.lines()[0].type, QtCriticalMsg);
    QCOMPARE(log.lines()[0].text, QStringLiteral("QTovelMixer::setGain: Invalid sink (0x%1)!!")
                                      .arg(reinterpret_cast<quintptr>(pointer), 0, 16));
}

void tst_Debug::log_writesOneInformationLine()
{
    LogCapture log;
    BLDEBUG_Log(0, "%d of %u, %.2f", -3, 7u, 0.5);
    QCOMPARE(log.count(), 1);
    QCOMPARE(log.lines()[0].type, QtInfoMsg);
    QCOMPARE(log.lines()[0].text, QStringLiteral("-3 of 7, 0.50"));
}

void tst_Debug::message_writesOneDebugLine()
{
    LogCapture log;
    BLDEBUG_Message(5, "Frame Offset = %d (mixer = %d, buffer_frame = %d)", 1, 2, 3);
    QCOMPARE(log.count(), 1);
    QCOMPARE(log.lines()[0].type, QtDebugMsg);
    QCOMPARE(log.lines()[0].text, QStringLiteral("Frame Offset = 1 (mixer = 2, buffer_frame = 3)"));
}

void tst_Debug::text_isExact_ofAnyLength_data()
{
    QTest::addColumn<int>("length");
    for (const int length : {0, 1, 238, 239, 240, 241, 1023, 1024, 100000})
        QTest::addRow("%d bytes", length) << length;
}

void tst_Debug::text_isExact_ofAnyLength()
{
    QFETCH(int, length);
    const QByteArray text(length, 'x');
    LogCapture log;
    BLDEBUG_Error(-1, "%s", text.constData());
    BLDEBUG_Log(-1, "%s", text.constData());
    BLDEBUG_Message(-1, "%s", text.constData());
    QCOMPARE(log.texts(QtCriticalMsg), QStringList(QString::fromLatin1(text)));
    QCOMPARE(log.texts(QtInfoMsg), QStringList(QString::fromLatin1(text)));
    QCOMPARE(log.texts(QtDebugMsg), QStringList(QString::fromLatin1(text)));
}

void tst_Debug::text_isUtf8()
{
    LogCapture log;
    BLDEBUG_Error(-1, "%s", "Lautsprecher (Küche) \xe2\x99\xab");
    QCOMPARE(log.texts(), QStringList(QString::fromUtf8("Lautsprecher (Küche) \xe2\x99\xab")));
}

void tst_Debug::percentSign_ofAnArgument_isText()
{
    LogCapture log;
    BLDEBUG_Error(-1, "%s", "100%s %1 %n");
    QCOMPARE(log.texts(), QStringList("100%s %1 %n"));
}

void tst_Debug::nullFormat_writesNothing()
{
    const char *const format = nullptr;
    LogCapture log;
    BLDEBUG_Error(-1, format);
    BLDEBUG_Log(-1, format);
    BLDEBUG_Message(-1, format);
    QCOMPARE(log.count(), 0);
}

void tst_Debug::line_isQueued_onAnAudioThread()
{
    LogCapture log;
    int inside = -1;
    int violations = -1;
    {
        AudioThreadMark mark;
        RealtimeGuard guard;
        BLDEBUG_Error(-1, "%s failed (%d)", "callback", 17);
        BLDEBUG_Message(-1, "Frame Offset = %d (mixer = %d, buffer_frame = %d)", 1, 2, 3);
        guard.end();
        violations = guard.violations();
        inside = log.count();
    }
    QVERIFY2(violations == 0, qPrintable(RealtimeGuard::first()));
    QCOMPARE(inside, 0);
    flushTrace();
    QCOMPARE(log.texts(QtCriticalMsg), QStringList("callback failed (17)"));
    QCOMPARE(log.texts(QtDebugMsg), QStringList("Frame Offset = 1 (mixer = 2, buffer_frame = 3)"));
    QCOMPARE(log.count(), 2);
}

void tst_Debug::longLine_isCut_onAnAudioThread()
{
    const QByteArray text(1000, 'x');
    LogCapture log;
    {
        AudioThreadMark mark;
        BLDEBUG_Error(-1, "%s", text.constData());
    }
    flushTrace();
    QCOMPARE(log.texts(), QStringList(QString(239, QLatin1Char('x'))));
}

QTEST_GUILESS_MAIN(tst_Debug)
#include "tst_debug.moc"
