// SPDX-License-Identifier: MIT
#include <base/thread.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <memory>
#include <thread>

namespace {
struct Answers
{
    bool loadingThread = false;
    bool otherThread = true;
};

Answers withoutApplication;

bool askOnAnotherThread()
{
    bool answer = true;
    std::thread([&] { answer = BLTHREAD_IsRunningInMainThread(); }).join();
    return answer;
}
} // namespace

class tst_Thread : public QObject
{
    Q_OBJECT

private slots:
    void isRunningInMainThread_isTrue_onTheApplicationsThread();
    void isRunningInMainThread_isFalse_onOtherThreads();
    void isRunningInMainThread_meansTheLoadingThread_withoutApplication();
};

void tst_Thread::isRunningInMainThread_isTrue_onTheApplicationsThread()
{
    QCOMPARE(QThread::currentThread(), QCoreApplication::instance()->thread());
    QVERIFY(BLTHREAD_IsRunningInMainThread());
}

void tst_Thread::isRunningInMainThread_isFalse_onOtherThreads()
{
    bool answer = true;
    const std::unique_ptr<QThread> thread(
        QThread::create([&] { answer = BLTHREAD_IsRunningInMainThread(); }));
    thread->start();
    QVERIFY(thread->wait(10000));
    QVERIFY(!answer);
    QVERIFY(!askOnAnotherThread());
}

void tst_Thread::isRunningInMainThread_meansTheLoadingThread_withoutApplication()
{
    QVERIFY(withoutApplication.loadingThread);
    QVERIFY(!withoutApplication.otherThread);
}

int main(int argc, char **argv)
{
    withoutApplication = {BLTHREAD_IsRunningInMainThread(), askOnAnotherThread()};
    QCoreApplication application(argc, argv);
    tst_Thread test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_thread.moc"
