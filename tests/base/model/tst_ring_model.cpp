// SPDX-License-Identifier: MIT
// The ring's own counters, in every order of steps and with every stale read that the memory model
// allows.
#include "model.h"

#include <base/ring_counters_p.h>

#include <QtTest/QTest>

#include <array>
#include <memory>

using QTovelMixer::RingCounters;
using QTovelMixer::RingPolicy;

namespace {

struct Modelled : RingPolicy
{
    template <typename T>
    using Atomic = model::Atomic<T>;
};
struct RelaxedProduce : Modelled
{
    static constexpr auto publishProduced = std::memory_order_relaxed;
};
struct RelaxedConsume : Modelled
{
    static constexpr auto publishConsumed = std::memory_order_relaxed;
};
struct RelaxedLookAtProduced : Modelled
{
    static constexpr auto seeProduced = std::memory_order_relaxed;
};
struct RelaxedLookAtConsumed : Modelled
{
    static constexpr auto seeConsumed = std::memory_order_relaxed;
};

/// A flush as one would write it first.
struct ZeroingCounters : RingCounters<Modelled>
{
    using RingCounters::RingCounters;
    void flush()
    {
        producer.produced.store(0, std::memory_order_relaxed);
        moveLap(producer, producer.size - producer.lapEnd.load(std::memory_order_relaxed));
        consumer.produced.store(0, std::memory_order_relaxed);
        moveLap(consumer, consumer.size - consumer.lapEnd.load(std::memory_order_relaxed));
        consumer.consumed.store(0, std::memory_order_release);
    }
};

constexpr quint64 capacity = 2;
constexpr quint64 places = 3; // more than fit, so that places repeat at another moment than room

/// The ring with its memory, and what its two sides know.
template <typename Counters>
struct World
{
    Counters counters{capacity, places};
    std::array<model::Cell, places> memory;
    quint64 written = 0; // the producer's
    quint64 read = 0;    // the consumer's: the next value must be higher
    bool gaps = false;   // the consumer's: flushed values are missing

    void write(quint64 most)
    {
        const auto look = counters.lookToWrite();
        model::require(look.bytes <= capacity, "more room than the ring has");
        model::require(look.address < places, "a place to write outside the memory");
        model::require(look.position <= written + 1, "a write position out of order");
        const quint64 count = std::min(most, look.bytes);
        for (quint64 i = 0; i < count; ++i)
            memory[(look.address + i) % places].write(++written);
        model::require(counters.roomFor(count) == count, "room that went away");
        counters.produce(count);
    }

    void readAll()
    {
        const auto look = counters.lookToRead();
        model::require(look.bytes <= capacity, "more to read than the ring holds");
        model::require(look.address < places, "a place to read outside the memory");
        for (quint64 i = 0; i < look.bytes; ++i)
            expect(memory[(look.address + i) % places].read());
        counters.consume(look.bytes);
    }

    void expect(quint64 value)
    {
        model::require(gaps ? value > read : value == read + 1, "values out of order");
        read = value;
    }

    void flush()
    {
        counters.flush();
        gaps = true;
        model::require(counters.lookToRead().position == 0,
                       "a read position that is not 0 after a flush");
    }
};

template <typename Counters>
model::Outcome producingAndConsuming()
{
    return model::explore([] {
        auto world = std::make_shared<World<Counters>>();
        return std::vector<std::function<void()>>{[world] {
                                                      world->write(1);
                                                      world->write(2);
                                                      world->write(2);
                                                      world->write(1);
                                                  },
                                                  [world] {
                                                      for (int i = 0; i < 4; ++i)
                                                          world->readAll();
                                                  }};
    });
}

template <typename Counters>
model::Outcome flushing()
{
    return model::explore([] {
        auto world = std::make_shared<World<Counters>>();
        return std::vector<std::function<void()>>{[world] {
                                                      world->write(2);
                                                      world->write(2);
                                                      world->write(2);
                                                  },
                                                  [world] {
                                                      world->readAll();
                                                      world->flush();
                                                      world->readAll();
                                                      world->flush();
                                                  }};
    });
}

template <typename Counters>
model::Outcome lookingOn()
{
    return model::explore([] {
        auto world = std::make_shared<World<Counters>>();
        return std::vector<std::function<void()>>{
            [world] {
                world->write(2);
                world->write(1);
            },
            [world] {
                world->readAll();
                world->flush();
            },
            [world] { model::require(world->counters.fill() <= capacity, "an impossible fill"); }};
    });
}

/// The third thread cuts the future off: a worker and a callback rest meanwhile.
template <bool protectedFromBoth>
model::Outcome withdrawing()
{
    struct Shared : World<RingCounters<Modelled>>
    {
        model::Mutex worker;   // the source's
        model::Mutex callback; // the mix's
    };
    return model::explore([] {
        auto world = std::make_shared<Shared>();
        world->gaps = true; // values are written anew after a withdrawal
        return std::vector<std::function<void()>>{[world] {
                                                      for (int i = 0; i < 2; ++i) {
                                                          world->worker.lock();
                                                          world->write(2);
                                                          world->worker.unlock();
                                                      }
                                                  },
                                                  [world] {
                                                      for (int i = 0; i < 2; ++i) {
                                                          world->callback.lock();
                                                          world->readAll();
                                                          world->callback.unlock();
                                                      }
                                                  },
                                                  [world] {
                                                      world->worker.lock();
                                                      if (protectedFromBoth)
                                                          world->callback.lock();
                                                      world->counters.withdraw(1);
                                                      model::require(
                                                          world->counters.lookToWrite().position >=
                                                              world->counters.lookToRead().position,
                                                          "positions out of order");
                                                      if (protectedFromBoth)
                                                          world->callback.unlock();
                                                      world->worker.unlock();
                                                  }};
    });
}

void report(const char *name, const model::Outcome &outcome)
{
    qInfo("%s: %llu executions, %llu states%s%s", name,
          static_cast<unsigned long long>(outcome.executions),
          static_cast<unsigned long long>(outcome.states),
          outcome.violation.empty() ? "" : ", found: ", outcome.violation.c_str());
}

} // namespace

class tst_ring_model : public QObject
{
    Q_OBJECT

private slots:
    void model_findsAMissingAcquire();
    void ring_isRight();
    void ring_isWrong_withWeakerOrders();
    void ring_isWrong_withAFlushOfBothCounters();
    void ring_isWrong_whenAWithdrawalMeetsTheConsumer();
};

// The textbook's example, so that a checker that sees nothing does not pass for one.
void tst_ring_model::model_findsAMissingAcquire()
{
    struct Message
    {
        model::Cell text;
        model::Atomic<int> sent{0};
    };
    const auto outcome = [](std::memory_order store, std::memory_order load) {
        return model::explore([store, load] {
            auto message = std::make_shared<Message>();
            return std::vector<std::function<void()>>{
                [message, store] {
                    message->text.write(42);
                    message->sent.store(1, store);
                },
                [message, load] {
                    if (message->sent.load(load) == 1)
                        model::require(message->text.read() == 42, "a stale read");
                }};
        });
    };
    const model::Outcome right = outcome(std::memory_order_release, std::memory_order_acquire);
    QCOMPARE(right.violation, std::string());
    QCOMPARE(right.executions, std::uint64_t{2}); // sent, and not yet
    QCOMPARE(outcome(std::memory_order_relaxed, std::memory_order_acquire).violation,
             std::string("a race of a write and a read"));
    QCOMPARE(outcome(std::memory_order_release, std::memory_order_relaxed).violation,
             std::string("a race of a write and a read"));
}

void tst_ring_model::ring_isRight()
{
    const std::pair<const char *, model::Outcome> outcomes[] = {
        {"produce and consume", producingAndConsuming<RingCounters<Modelled>>()},
        {"flush", flushing<RingCounters<Modelled>>()},
        {"a third thread looks on", lookingOn<RingCounters<Modelled>>()},
        {"withdraw", withdrawing<true>()},
    };
    for (const auto &[name, outcome] : outcomes) {
        report(name, outcome);
        QCOMPARE(outcome.violation, std::string());
        QVERIFY(outcome.executions > 10);
    }
}

void tst_ring_model::ring_isWrong_withWeakerOrders()
{
    const std::pair<const char *, model::Outcome> outcomes[] = {
        {"relaxed produce", producingAndConsuming<RingCounters<RelaxedProduce>>()},
        {"relaxed consume", producingAndConsuming<RingCounters<RelaxedConsume>>()},
        {"relaxed look at produced", producingAndConsuming<RingCounters<RelaxedLookAtProduced>>()},
        {"relaxed look at consumed", producingAndConsuming<RingCounters<RelaxedLookAtConsumed>>()},
    };
    for (const auto &[name, outcome] : outcomes) {
        report(name, outcome);
        QVERIFY2(!outcome.violation.empty(), name);
    }
}

void tst_ring_model::ring_isWrong_withAFlushOfBothCounters()
{
    const model::Outcome outcome = flushing<ZeroingCounters>();
    report("a flush of both counters", outcome);
    QVERIFY(!outcome.violation.empty());
}

void tst_ring_model::ring_isWrong_whenAWithdrawalMeetsTheConsumer()
{
    const model::Outcome outcome = withdrawing<false>();
    report("a withdrawal beside the consumer", outcome);
    QVERIFY(!outcome.violation.empty());
}

QTEST_GUILESS_MAIN(tst_ring_model)
#include "tst_ring_model.moc"
