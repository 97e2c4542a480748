// SPDX-License-Identifier: MIT
#include <mixer/api/note_queue_p.h>

#include <QtTest/QTest>

#include <string>
#include <thread>
#include <vector>

using QTovelMixer::NoteQueue;

class tst_NoteQueue : public QObject
{
    Q_OBJECT

private slots:
    void notes_comeOutInOrder();
    void push_cutsWhatIsTooLong();
    void push_countsWhatItLoses();
    void push_fromManyThreads_losesNothingUncounted();
};

void tst_NoteQueue::notes_comeOutInOrder()
{
    NoteQueue queue;
    NoteQueue::Note note;
    QVERIFY(!queue.pop(note));
    for (int round = 0; round < 100; ++round) {
        QVERIFY(queue.push(round, std::to_string(round)));
        QVERIFY(queue.push(-round, ""));
        QVERIFY(queue.pop(note));
        QCOMPARE(note.kind, round);
        QCOMPARE(std::string(note.view()), std::to_string(round));
        QVERIFY(queue.pop(note));
        QCOMPARE(note.kind, -round);
        QVERIFY(note.view().empty());
        QVERIFY(!queue.pop(note));
    }
}

void tst_NoteQueue::push_cutsWhatIsTooLong()
{
    NoteQueue queue;
    const std::string text(1000, 'x');
    QVERIFY(queue.push(1, text));
    NoteQueue::Note note;
    QVERIFY(queue.pop(note));
    QCOMPARE(std::string(note.view()), text.substr(0, NoteQueue::textSize));
}

void tst_NoteQueue::push_countsWhatItLoses()
{
    NoteQueue queue;
    for (size_t i = 0; i < NoteQueue::capacity; ++i)
        QVERIFY(queue.push(int(i), "kept"));
    QVERIFY(!queue.push(0, "lost"));
    QVERIFY(!queue.push(0, "lost"));
    QCOMPARE(queue.takeLost(), 2u);
    QCOMPARE(queue.takeLost(), 0u);
    NoteQueue::Note note;
    for (size_t i = 0; i < NoteQueue::capacity; ++i) {
        QVERIFY(queue.pop(note));
        QCOMPARE(note.kind, int(i));
    }
    QVERIFY(queue.push(7, "again"));
}

void tst_NoteQueue::push_fromManyThreads_losesNothingUncounted()
{
    constexpr int threads = 4;
    constexpr int each = 20000;
    NoteQueue queue;
    std::atomic<int> running{threads};
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < each; ++i)
                queue.push(t, std::to_string(i));
            --running;
        });
    }
    quint64 taken = 0;
    std::vector<int> last(threads, -1);
    bool ordered = true;
    for (bool done = false; !done;) {
        done = running == 0;
        NoteQueue::Note note;
        while (queue.pop(note)) {
            const int number = std::stoi(std::string(note.view()));
            ordered = ordered && number > last[size_t(note.kind)];
            last[size_t(note.kind)] = number;
            ++taken;
        }
    }
    for (std::thread &writer : writers)
        writer.join();
    QVERIFY(ordered);
    QCOMPARE(taken + queue.takeLost(), quint64(threads) * each);
}

QTEST_APPLESS_MAIN(tst_NoteQueue)
#include "tst_note_queue.moc"
