// SPDX-License-Identifier: MIT
#include <support/ramp.h>

#include <QtTest/QTest>

#include <vector>

class tst_Ramp : public QObject
{
    Q_OBJECT

private slots:
    void sample_tellsFrameAndChannel();
    void sample_repeats_afterACycle();
    void mismatch_isEmpty_forWhatFillWrote();
    void mismatch_names_theFirstWrongSample();
};

void tst_Ramp::sample_tellsFrameAndChannel()
{
    for (const qint64 frame : {0, 1, 77, 32767}) {
        for (const int channel : {0, 1, 127, 255}) {
            // Twice the code plus one, in units of 2^-24.
            const double code = (double(Ramp::sample(frame, channel)) * 16777216.0 - 1.0) / 2.0;
            QCOMPARE(code, double(frame * 256 + channel));
        }
    }
    QVERIFY(Ramp::sample(0, 0) > 0.0f);
    QVERIFY(Ramp::sample(32767, 255) < 1.0f);
}

void tst_Ramp::sample_repeats_afterACycle()
{
    QCOMPARE(Ramp::sample(32768 + 5, 3), Ramp::sample(5, 3));
    QCOMPARE(Ramp::sample(-1, 0), Ramp::sample(32767, 0));
    QCOMPARE(Ramp::sample(7, 256 + 9), Ramp::sample(7, 9));
}

void tst_Ramp::mismatch_isEmpty_forWhatFillWrote()
{
    std::vector<float> block(3 * 100);
    Ramp::fill(block.data(), 32700, 100, 3);
    QVERIFY(Ramp::mismatch(block.data(), 32700, 100, 3).isEmpty());
    for (float &value : block)
        value *= 0.25f;
    QVERIFY(Ramp::mismatch(block.data(), 32700, 100, 3, 0.25f).isEmpty());
}

void tst_Ramp::mismatch_names_theFirstWrongSample()
{
    std::vector<float> block(2 * 10);
    Ramp::fill(block.data(), 50, 10, 2);
    std::swap(block[9], block[8]);
    QVERIFY(
        Ramp::mismatch(block.data(), 50, 10, 2).startsWith(QStringLiteral("frame 54 channel 0:")));
    QVERIFY(!Ramp::mismatch(block.data(), 51, 10, 2).isEmpty());
}

QTEST_GUILESS_MAIN(tst_Ramp)
#include "tst_ramp.moc"
