// SPDX-License-Identifier: MIT
// Routes from text that anybody may have written: what is restored, saved and restored again is the
// same, and no text makes the store keep more than it says.
#include <mixer/store/store.h>

#include "require.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

using namespace QTovelMixer;

namespace {

constexpr qint64 mostGains = qint64{1} << 22;
constexpr qint64 mostGainsSaved = 4096; // that a round trip is worth its time

qint64 cellsOf(const Route &route)
{
    return qint64(route.numInputs()) * route.numOutputs();
}

bool sameRoute(const Route &a, const Route &b)
{
    return a.type() == b.type() && a.routeId() == b.routeId() && a.numInputs() == b.numInputs() &&
           a.numOutputs() == b.numOutputs() && a.isActive() == b.isActive() &&
           std::equal(static_cast<const float *>(a), static_cast<const float *>(a) + cellsOf(a),
                      static_cast<const float *>(b),
                      [](float x, float y) { return std::isfinite(x) ? x == y : y == 0.0F; });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Store &store = *Store::store();
    const auto text =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const QMap<QString, Route> before = store.routes();
    if (!store.restoreRoutes(text)) {
        Fuzz::require(store.routes().size() == before.size(), "refused text changes nothing");
        return 0;
    }
    const QMap<QString, Route> restored = store.routes();
    qint64 gains = 0;
    for (const Route &route : restored) {
        Fuzz::require(route.isValid(), "only valid routes are kept");
        Fuzz::require(cellsOf(route) <= qint64{1} << 20, "a matrix has at most 2^20 gains");
        gains += cellsOf(route);
    }
    Fuzz::require(gains <= mostGains, "all routes together have at most 2^22 gains");
    if (gains > mostGainsSaved)
        return -1; // slow, so libFuzzer is not to make more of these
    Fuzz::require(store.restoreRoutes(store.saveRoutes()), "saved routes can be restored");
    Fuzz::require(std::equal(restored.cbegin(), restored.cend(), store.routes().cbegin(),
                             store.routes().cend(), sameRoute),
                  "saving and restoring keeps every route");
    for (auto entry = restored.cbegin(); entry != restored.cend(); ++entry)
        Fuzz::require(entry.key() == entry->routeId(), "routes are kept under their ids");
    return 0;
}
