// SPDX-License-Identifier: MIT
#include "model.h"

#include <ucontext.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <unordered_set>

namespace model {

namespace {

constexpr std::size_t stackBytes = std::size_t{128} * 1024;
constexpr std::size_t outside = maxThreads; // the thread that sets up
constexpr std::uint16_t begun = 0xfffe;     // in a thread's history

struct Store
{
    std::uint64_t value;
    View view;   // what a reader that acquires learns
    Clock clock; // the same, for plain memory
};

struct Thread
{
    ucontext_t context{};
    std::vector<char> stack = std::vector<char>(stackBytes);
    std::function<void()> body;
    bool finished = false;
    const Mutex *waitsFor = nullptr;
    View view{};
    Clock clock{};
    std::string history; // what it has read, which decides all it does
};

struct Choice
{
    std::uint16_t taken;
    std::uint16_t count;
};

class Checker
{
public:
    Outcome run(const std::function<std::vector<std::function<void()>>()> &setUp);

    std::uint16_t choose(std::size_t count);
    void yield(const Mutex *waitsFor = nullptr);
    [[noreturn]] void abandon();

    Thread &self() { return *threads[active]; }
    void note(std::uint16_t what)
    {
        self().history += char(what & 0xff);
        self().history += char(what >> 8);
    }

    std::size_t active = outside;
    std::vector<std::vector<Store>> atomics;
    Outcome outcome;

private:
    void execute(const std::function<std::vector<std::function<void()>>()> &setUp);
    bool isKnown();
    bool nextPath();
    static void enter();

    std::vector<std::unique_ptr<Thread>> threads;
    ucontext_t scheduler{};
    std::vector<Choice> path;
    std::size_t depth = 0;
    bool abandoned = false;
    std::unordered_set<std::string> known;
};

Checker *checker = nullptr;

void join(View &view, const View &other)
{
    for (std::size_t i = 0; i < view.size(); ++i)
        view[i] = std::max(view[i], other[i]);
}

void join(Clock &clock, const Clock &other)
{
    for (std::size_t i = 0; i < clock.size(); ++i)
        clock[i] = std::max(clock[i], other[i]);
}

bool acquires(std::memory_order order)
{
    return order == std::memory_order_acquire || order == std::memory_order_seq_cst;
}

bool releases(std::memory_order order)
{
    return order == std::memory_order_release || order == std::memory_order_seq_cst;
}

Outcome Checker::run(const std::function<std::vector<std::function<void()>>()> &setUp)
{
    checker = this;
    for (std::size_t i = 0; i < maxThreads; ++i)
        threads.push_back(std::make_unique<Thread>());
    do
        execute(setUp);
    while (outcome.violation.empty() && nextPath());
    outcome.states = known.size();
    checker = nullptr;
    return outcome;
}

std::uint16_t Checker::choose(std::size_t count)
{
    if (count == 1)
        return 0;
    if (depth == path.size())
        path.push_back({0, std::uint16_t(count)});
    return path[depth++].taken;
}

/// The next path in order that begins like the last one.
bool Checker::nextPath()
{
    path.resize(depth);
    while (!path.empty() && path.back().taken + 1 == path.back().count)
        path.pop_back();
    if (path.empty())
        return false;
    ++path.back().taken;
    return true;
}

/// Two orders of steps that leave every thread with the same reads leave the same state.
bool Checker::isKnown()
{
    std::string key;
    for (const auto &thread : threads) {
        key += thread->history;
        key += "\xff\xff";
    }
    return !known.insert(std::move(key)).second;
}

void Checker::enter()
{
    checker->note(begun);
    checker->self().body();
    checker->self().finished = true;
    swapcontext(&checker->self().context, &checker->scheduler);
}

void Checker::execute(const std::function<std::vector<std::function<void()>>()> &setUp)
{
    depth = 0;
    abandoned = false;
    atomics.clear();
    active = outside;
    std::vector<std::function<void()>> bodies = setUp();
    for (std::size_t i = 0; i < threads.size(); ++i) {
        Thread &thread = *threads[i];
        thread.finished = i >= bodies.size();
        thread.waitsFor = nullptr;
        thread.view = {};
        thread.clock = {};
        thread.clock[i] = 1;
        thread.history.clear();
        if (thread.finished)
            continue;
        thread.body = std::move(bodies[i]);
        getcontext(&thread.context);
        thread.context.uc_stack.ss_sp = thread.stack.data();
        thread.context.uc_stack.ss_size = thread.stack.size();
        thread.context.uc_link = nullptr;
        makecontext(&thread.context, &Checker::enter, 0);
    }
    std::vector<std::size_t> ready;
    for (;;) {
        ready.clear();
        bool over = true;
        for (std::size_t i = 0; i < threads.size(); ++i) {
            over = over && threads[i]->finished;
            const Mutex *const mutex = threads[i]->waitsFor;
            if (!threads[i]->finished && !(mutex && mutex->isLocked()))
                ready.push_back(i);
        }
        if (ready.empty()) {
            if (!over)
                outcome.violation = "deadlock";
            else if (!isKnown())
                ++outcome.executions;
            break;
        }
        // Before the frontier this is how the path came here.
        if (depth == path.size() && isKnown())
            break;
        active = ready[choose(ready.size())];
        swapcontext(&scheduler, &self().context);
        active = outside;
        if (abandoned)
            break;
    }
    active = outside;
}

/// Lets the scheduler decide who does the next step.
void Checker::yield(const Mutex *waitsFor)
{
    if (active == outside)
        return;
    self().waitsFor = waitsFor;
    swapcontext(&self().context, &scheduler);
    self().waitsFor = nullptr;
    ++self().clock[active];
}

/// Never comes back: the stack is used anew by the next execution.
void Checker::abandon()
{
    abandoned = true;
    swapcontext(&self().context, &scheduler);
    std::abort();
}

} // namespace

Outcome explore(const std::function<std::vector<std::function<void()>>()> &setUp)
{
    return Checker().run(setUp);
}

void require(bool condition, const char *violation)
{
    if (condition)
        return;
    checker->outcome.violation = violation;
    checker->abandon();
}

std::size_t makeAtomic(std::uint64_t value)
{
    checker->atomics.push_back({Store{value, {}, {}}});
    return checker->atomics.size() - 1;
}

std::uint64_t load(std::size_t atomic, std::memory_order order)
{
    checker->yield();
    const std::vector<Store> &stores = checker->atomics[atomic];
    if (checker->active == outside)
        return stores.back().value;
    Thread &self = checker->self();
    const std::size_t newest = stores.size() - 1;
    const std::size_t read = newest - checker->choose(newest - self.view[atomic] + 1);
    self.view[atomic] = std::uint16_t(read);
    checker->note(std::uint16_t(read));
    if (acquires(order)) {
        join(self.view, stores[read].view);
        join(self.clock, stores[read].clock);
    }
    return stores[read].value;
}

void store(std::size_t atomic, std::uint64_t value, std::memory_order order)
{
    checker->yield();
    std::vector<Store> &stores = checker->atomics[atomic];
    if (checker->active == outside) {
        stores.back().value = value;
        return;
    }
    Thread &self = checker->self();
    require(self.view[atomic] == stores.size() - 1, "stores that nothing orders");
    self.view[atomic] = std::uint16_t(stores.size());
    checker->note(std::uint16_t(stores.size()));
    Store made{value, {}, {}};
    if (releases(order)) {
        made.view = self.view;
        made.clock = self.clock;
    }
    stores.push_back(made);
}

void Cell::write(std::uint64_t value)
{
    const Thread &self = checker->self();
    require(m_writer == maxThreads || self.clock[m_writer] >= m_written, "a race of two writes");
    for (std::size_t i = 0; i < maxThreads; ++i)
        require(self.clock[i] >= m_read[i], "a race of a read and a write");
    m_value = value;
    m_writer = checker->active;
    m_written = self.clock[m_writer];
}

std::uint64_t Cell::read()
{
    const Thread &self = checker->self();
    require(m_writer == maxThreads || self.clock[m_writer] >= m_written,
            "a race of a write and a read");
    m_read[checker->active] = self.clock[checker->active];
    return m_value;
}

void Mutex::lock()
{
    checker->yield(this);
    m_locked = true;
    checker->note(m_version);
    join(checker->self().view, m_view);
    join(checker->self().clock, m_clock);
}

void Mutex::unlock()
{
    checker->yield();
    m_locked = false;
    ++m_version;
    checker->note(m_version);
    m_view = checker->self().view;
    m_clock = checker->self().clock;
}

} // namespace model
