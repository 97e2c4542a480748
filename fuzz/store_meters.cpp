// SPDX-License-Identifier: MIT
// Meter layouts from text that anybody may have written.
#include <mixer/store/store.h>

#include "require.h"

#include <algorithm>
#include <cstdint>

using namespace QTovelMixer;

namespace {

constexpr qint64 mostFlags = qint64{1} << 22;
constexpr qint64 mostFlagsSaved = 4096; // that a round trip is worth its time

bool sameConfig(const MeterConfig &a, const MeterConfig &b)
{
    return a.type() == b.type() && a.meterConfigId() == b.meterConfigId() &&
           a.numMeters() == b.numMeters() && a.meters() == b.meters();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Store &store = *Store::store();
    const auto text =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const QMap<QString, MeterConfig> before = store.meterConfigs();
    if (!store.restoreMeterConfigs(text)) {
        Fuzz::require(store.meterConfigs().size() == before.size(), "refused text changes nothing");
        return 0;
    }
    const QMap<QString, MeterConfig> restored = store.meterConfigs();
    qint64 flags = 0;
    for (const MeterConfig &config : restored) {
        Fuzz::require(config.isValid(), "only valid layouts are kept");
        Fuzz::require(config.numMeters() == qint64(config.meters().size()),
                      "a layout has as many flags as it says");
        flags += config.numMeters();
    }
    Fuzz::require(flags <= mostFlags, "all layouts together have at most 2^22 flags");
    if (flags > mostFlagsSaved)
        return -1; // slow, so libFuzzer is not to make more of these
    Fuzz::require(store.restoreMeterConfigs(store.saveMeterConfigs()),
                  "saved layouts can be restored");
    Fuzz::require(std::equal(restored.cbegin(), restored.cend(), store.meterConfigs().cbegin(),
                             store.meterConfigs().cend(), sameConfig),
                  "saving and restoring keeps every layout");
    return 0;
}
