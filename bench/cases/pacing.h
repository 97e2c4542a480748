// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_CASES_PACING_H
#define QTOVELMIXER_BENCH_CASES_PACING_H

#include "cases/host.h"
#include "harness/suite.h"

#include <functional>
#include <vector>

namespace Bench {

/// One mixer whose blocks are measured beside another's.
struct Mixing
{
    QString name;
    std::function<void()> block;
    std::function<void()> refill; ///< waits until what the blocks took is there again; may be empty
};

/// How the blocks of a line follow each other.
struct Pacing
{
    enum Kind {
        Device,   ///< one per period of a device; other work and sleep between
        Cold,     ///< as `Device`, and nothing of the last block is left in the caches
        Hot,      ///< one after the other
        Refilled, ///< as `Hot`, with the processor time of whoever fills the rings again
    };

    Kind kind = Device;
    unsigned frames = 256; ///< of a block
};

/// A case whose contestants mix in turns of many blocks at this pace.
Case paced(Case work, const Pacing &pacing, const std::vector<Mixing> &mixers);

/// Nanoseconds of each of `count` blocks at a device's pace. Between two blocks other work of about
/// the second-level cache's size is done, or with `cold` more than all caches hold is written.
/// `behind` is called right behind each block and not measured.
std::vector<double> deviceBlocks(const std::function<void()> &block, unsigned frames, int count,
                                 bool cold = false, const std::function<void()> &behind = {});

} // namespace Bench

#endif
