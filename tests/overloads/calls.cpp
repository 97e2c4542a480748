// SPDX-License-Identifier: MIT
// One call of an engine, given by whoever compiles this.
#include <mixer/engine.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>

using namespace QTovelMixer;

void call(Engine &engine, [[maybe_unused]] Source *source, [[maybe_unused]] Sink *sink,
          [[maybe_unused]] const SourcePointer &guarded)
{
    static_cast<void>(engine.CALL);
}
