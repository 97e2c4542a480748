// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_HARNESS_SUITE_H
#define QTOVELMIXER_BENCH_HARNESS_SUITE_H

#include <QtCore/QString>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace Bench {

/// Makes the compiler believe that a value is used.
template <class T>
inline void keep(const T &value)
{
    asm volatile("" : : "r,m"(value) : "memory");
}

/// One way of doing a piece of work.
struct Contestant
{
    QString name;
    std::function<void(long calls)> run;
    std::vector<double> rounds; ///< nanoseconds per unit, by round
    double instructions = -1.0; ///< per unit, once counted
};

/// What the library has to reach.
struct Demand
{
    enum Kind { TimesAsFast, Nanoseconds, Instructions };

    Kind kind;
    QString against; ///< a contestant, for TimesAsFast
    double bound;
};

struct Pace
{
    int rounds = 15;
    double sliceMilliseconds = 2.5;
};

/// A piece of work that the library and others do in turn.
struct Case
{
    QString section;
    QString name;
    QString unit = QStringLiteral("call");
    double unitsPerCall = 1.0;
    int64_t target = 0; ///< the vector instructions that the library is held to; 0: its choice
    std::vector<Contestant> contestants; ///< the library's way is the first
    std::vector<Demand> demands;
    /// Fills the contestants' rounds where slices on one processor are not the way; may be empty.
    std::function<void(Case &, const Pace &)> measureBy;

    Case(QString inSection, QString called) : section(std::move(inSection)), name(std::move(called))
    {}

    template <class Call>
    Case &add(const QString &who, Call call)
    {
        contestants.push_back({who,
                               [call](long calls) mutable {
                                   for (; calls > 0; --calls) {
                                       call();
                                       asm volatile("" : : : "memory");
                                   }
                               },
                               {}});
        return *this;
    }
    template <class Call>
    Case &ours(Call call)
    {
        return add(QStringLiteral("ours"), std::move(call));
    }
    Case &per(const QString &what, double count)
    {
        unit = what;
        unitsPerCall = count;
        return *this;
    }

    /// The library is to be `factor` times as fast as the contestant.
    Case &mustBeat(const QString &who, double factor)
    {
        demands.push_back({Demand::TimesAsFast, who, factor});
        return *this;
    }
    /// Nanoseconds per unit.
    Case &mustTakeAtMost(double nanoseconds)
    {
        demands.push_back({Demand::Nanoseconds, {}, nanoseconds});
        return *this;
    }
    /// Instructions per unit.
    Case &mustCountAtMost(double instructions)
    {
        demands.push_back({Demand::Instructions, {}, instructions});
        return *this;
    }
};

/// One measured value that nothing competes with.
struct Figure
{
    QString section;
    QString name;
    double value;
    QString unit;
    double bound = 0.0; ///< to hold, when not 0
    bool atLeast = false;
};

/// Everything that is measured, in the order of the table. Whatever a case works on is made when
/// its turn comes and given back after it.
struct Suite
{
    using MakeCase = std::function<Case()>;
    using MakeFigures = std::function<std::vector<Figure>()>;
    struct Entry
    {
        QString section;
        MakeCase makeCase;
        MakeFigures makeFigures;
        QString name; ///< of a case that takes long to make; may be empty
    };

    std::vector<Entry> entries;

    void add(const QString &section, MakeCase make, const QString &name = {})
    {
        entries.push_back({section, std::move(make), {}, name});
    }
    void addFigures(const QString &section, MakeFigures make)
    {
        entries.push_back({section, {}, std::move(make), {}});
    }
};

/// Runs the contestants in turn, in slices, round after round.
void measure(Case &work, const Pace &pace);

/// Nanoseconds per unit, the median over the rounds.
double median(std::vector<double> values);
double nanoseconds(const Contestant &who);
/// How many times as fast as `other` the library is: the median over the rounds.
double timesAsFast(const Case &work, const Contestant &other);

/// Nanoseconds of a clock that only goes forward.
int64_t now();

/// Keeps this thread on one processor, or frees it again (`processor` −1). Does nothing where the
/// system has no such call.
void pin(int processor);

/// Holds the library's vector loops to one kind of instructions; 0: the best of the machine.
void holdToTarget(int64_t target);

} // namespace Bench

#endif
