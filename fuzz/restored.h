// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_FUZZ_RESTORED_H
#define QTOVELMIXER_FUZZ_RESTORED_H

#include <mixer/store/store.h>

#include "require.h"

#include <QtCore/QMap>

#include <algorithm>
#include <cstdint>

namespace Fuzz {

/// One of the store's tables, whose entries are what `Kind` tells of them:
/// Entry, table, restore, save, elementsOf, same, check.
template <typename Kind>
using Table = QMap<QString, typename Kind::Entry>;

template <typename Kind>
bool isSame(const Table<Kind> &earlier, const Table<Kind> &later)
{
    return earlier.keys() == later.keys() &&
           std::equal(earlier.cbegin(), earlier.cend(), later.cbegin(), later.cend(), Kind::same);
}

/// Restores any text: refused, it changes nothing; taken, it gives a table that can be saved and
/// restored. What libFuzzer is to do with the text.
template <typename Kind>
int restore(const std::uint8_t *data, std::size_t size)
{
    // What the text names, and what it may claim beyond that.
    const qint64 most = qint64(size) + (qint64{1} << 18);
    constexpr qint64 mostSaved = 4096; // that a round trip is worth its time
    QTovelMixer::Store &store = *QTovelMixer::Store::store();
    const auto text =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const Table<Kind> before = Kind::table(store);
    if (!Kind::restore(store, text)) {
        require(isSame<Kind>(before, Kind::table(store)), "refused text changes nothing");
        return 0;
    }
    const Table<Kind> restored = Kind::table(store);
    qint64 elements = 0;
    for (auto entry = restored.cbegin(); entry != restored.cend(); ++entry) {
        require(entry->isValid(), "only valid entries are kept");
        Kind::check(entry.key(), *entry);
        elements += Kind::elementsOf(*entry);
    }
    require(elements <= most, "all entries together are bounded by the text");
    if (elements > mostSaved)
        return -1; // slow, so libFuzzer is not to make more of these
    require(Kind::restore(store, Kind::save(store)), "what was saved can be restored");
    require(isSame<Kind>(restored, Kind::table(store)), "saving and restoring keeps every entry");
    return 0;
}

} // namespace Fuzz

#endif
