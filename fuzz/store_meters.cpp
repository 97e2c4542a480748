// SPDX-License-Identifier: MIT
// Meter layouts from text that anybody may have written.
#include "restored.h"

using namespace QTovelMixer;

namespace {

struct Layouts
{
    using Entry = MeterConfig;

    static QMap<QString, Entry> table(Store &store) { return store.meterConfigs(); }
    static bool restore(Store &store, const QByteArray &text)
    {
        return store.restoreMeterConfigs(text);
    }
    static QByteArray save(Store &store) { return store.saveMeterConfigs(); }
    static qint64 elementsOf(const Entry &config) { return config.numMeters(); }
    static bool same(const Entry &a, const Entry &b)
    {
        return a.type() == b.type() && a.meterConfigId() == b.meterConfigId() &&
               a.numMeters() == b.numMeters() && a.meters() == b.meters();
    }
    static void check(const QString &, const Entry &config)
    {
        Fuzz::require(config.numMeters() == qint64(config.meters().size()),
                      "a layout has as many flags as it says");
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    return Fuzz::restore<Layouts>(data, size);
}
