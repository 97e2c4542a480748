// SPDX-License-Identifier: MIT
#include <mixer/types.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_Types : public QObject
{
    Q_OBJECT

private slots:
    void toString_givesTheNames();
};

void tst_Types::toString_givesTheNames()
{
    QCOMPARE(toString(Type::Input), "input");
    QCOMPARE(toString(Type::Output), "output");
    QCOMPARE(toString(Type::Loop), "loop");
    QCOMPARE(toString(Type::NoType), "invalid");
    QCOMPARE(toString(Type(17)), "invalid");
}

QTEST_GUILESS_MAIN(tst_Types)
#include "tst_types.moc"
