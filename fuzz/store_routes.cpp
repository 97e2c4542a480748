// SPDX-License-Identifier: MIT
// Routes from text that anybody may have written.
#include "restored.h"

#include <cmath>

using namespace QTovelMixer;

namespace {

struct Routes
{
    using Entry = Route;

    static QMap<QString, Entry> table(Store &store) { return store.routes(); }
    static bool restore(Store &store, const QByteArray &text) { return store.restoreRoutes(text); }
    static QByteArray save(Store &store) { return store.saveRoutes(); }
    static qint64 elementsOf(const Entry &route)
    {
        return qint64(route.numInputs()) * route.numOutputs();
    }
    static bool same(const Entry &a, const Entry &b)
    {
        const float *const gains = a;
        return a.type() == b.type() && a.routeId() == b.routeId() &&
               a.numInputs() == b.numInputs() && a.numOutputs() == b.numOutputs() &&
               a.isActive() == b.isActive() &&
               std::equal(gains, gains + elementsOf(a), static_cast<const float *>(b));
    }
    static void check(const QString &key, const Entry &route)
    {
        Fuzz::require(elementsOf(route) <= qint64{1} << 20, "a matrix has at most 2^20 gains");
        const float *const gains = route;
        Fuzz::require(std::all_of(gains, gains + elementsOf(route),
                                  [](float gain) { return std::isfinite(gain); }),
                      "gains are finite");
        Fuzz::require(key == route.routeId(), "routes are kept under their ids");
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    return Fuzz::restore<Routes>(data, size);
}
