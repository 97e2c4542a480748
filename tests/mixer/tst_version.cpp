// SPDX-License-Identifier: MIT
#include <mixer/version.h>

#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

class tst_Version : public QObject
{
    Q_OBJECT

private slots:
    void versionString_givesNameNumbersAndDate();
    void versionString_isOneStaticBuffer();
    void versionNumber_writesTheFourNumbers();
    void versionNumber_skipsNullPointers();
};

void tst_Version::versionString_givesNameNumbersAndDate()
{
    const QString text = QString::fromLatin1(QtTovelMixerVersionString());
    const QRegularExpression form(QRegularExpression::anchoredPattern(
        QStringLiteral("libtovelcomponents version 3\\.20\\.4\\.1 \\(built in "
                       "\\d{4}-\\d{2}-\\d{2}\\)")));
    QVERIFY2(form.match(text).hasMatch(), qPrintable(text));
    QVERIFY(text.size() < 256);
}

void tst_Version::versionString_isOneStaticBuffer()
{
    QCOMPARE(QtTovelMixerVersionString(), QtTovelMixerVersionString());
}

void tst_Version::versionNumber_writesTheFourNumbers()
{
    int major = -1;
    int minor = -1;
    int patch = -1;
    int build = -1;
    QtTovelMixerVersionNumber(&major, &minor, &patch, &build);
    QCOMPARE(major, 3);
    QCOMPARE(minor, 20);
    QCOMPARE(patch, 4);
    QCOMPARE(build, 1);
}

void tst_Version::versionNumber_skipsNullPointers()
{
    constexpr int expected[] = {3, 20, 4, 1};
    for (int mask = 0; mask < 16; ++mask) {
        int numbers[] = {-1, -1, -1, -1};
        const auto at = [&](int i) { return mask >> i & 1 ? &numbers[i] : nullptr; };
        QtTovelMixerVersionNumber(at(0), at(1), at(2), at(3));
        for (int i = 0; i < 4; ++i)
            QCOMPARE(numbers[i], mask >> i & 1 ? expected[i] : -1);
    }
}

QTEST_GUILESS_MAIN(tst_Version)
#include "tst_version.moc"
