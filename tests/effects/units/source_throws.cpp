// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <stdexcept>

class Thrower : public QTovelMixer::Source
{
public:
    using Source::Source;
    double time(bool) const override { throw std::runtime_error("no time"); }
};
