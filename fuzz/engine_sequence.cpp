// SPDX-License-Identifier: MIT
// Operations of the engine in any order, with everything that must always hold checked after each.
#include <support/random_operations.h>

#include "bytes.h"
#include "require.h"

#include <QtCore/QCoreApplication>

namespace {

constexpr int mostOperations = 60;
constexpr float bufferSeconds =
    0.4F; // short, since filling rings is most of the work; priming waits for 0.2 s

void startApplication()
{
    static int argc = 1;
    static char name[] = "fuzz_engine_sequence";
    static char *argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
    static const bool ready = [] {
        QTovelMixer::Engine::Initialize();
        return true;
    }();
    Q_UNUSED(ready)
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    startApplication();
    Fuzz::Bytes bytes(data, size);
    RandomOperations operations([&bytes](int count) { return bytes.below(count); }, bufferSeconds);
    for (int i = 0; i < mostOperations && !bytes.atEnd(); ++i) {
        operations.operate();
        Fuzz::requireNone(operations.fault());
        operations.session().runWithoutWaiting(bytes.below(3));
    }
    Fuzz::requireNone(operations.end());
    return 0;
}
