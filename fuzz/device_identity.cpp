// SPDX-License-Identifier: MIT
// Devices of any name, and remembered identities of any form: the graded matching against a slow
// one, and what the store makes of such names.
#include <mixer/api/rtaudio_device.h>
#include <mixer/store/store.h>

#include "bytes.h"
#include "require.h"

#include <QtCore/QJsonObject>

using namespace QTovelMixer;

namespace {

/// The letters from `first` to before `last` without white space around them.
QString trimmed(const QString &text, qsizetype first, qsizetype last)
{
    while (first < last && text.at(first).isSpace())
        ++first;
    while (last > first && text.at(last - 1).isSpace())
        --last;
    return text.mid(first, last - first);
}

QString before(const QString &text, QChar end)
{
    qsizetype last = 0;
    while (last < text.size() && text.at(last) != end)
        ++last;
    return trimmed(text, 0, last);
}

QString modelOf(const QString &id)
{
    const QString name = before(id, '[');
    qsizetype first = name.size();
    while (first > 0 && name.at(first - 1) != ':')
        --first;
    return trimmed(name, first, name.size());
}

int expectedScore(const QString &own, const QString &id)
{
    if (own == id)
        return 128;
    if (before(own, ']') == before(id, ']'))
        return 64;
    if (before(own, '[') == before(id, '['))
        return 32;
    return modelOf(own) == modelOf(id) ? 16 : 0;
}

/// A name in which nothing has a meaning for the identity.
bool isPlain(const QString &name)
{
    return std::none_of(name.begin(), name.end(),
                        [](QChar letter) { return QString("%[]:").contains(letter); });
}

void checkChanges(const QTovelMixerRtAudioDevice &device)
{
    RtAudio::DeviceInfo changed = device.info();
    QTovelMixerRtAudioDevice other(nullptr, changed);
    changed.ID += 1;
    changed.isDefaultInput = !changed.isDefaultInput;
    other.setInfo(changed);
    Fuzz::require(device.matchScore(other.uniqueId()) == 64, "numbers and defaults may change");
    changed.inputChannels += 1;
    other.setInfo(changed);
    Fuzz::require(device.matchScore(other.uniqueId()) == 32, "channel counts may change");
    changed.name = "Other: " + changed.name;
    other.setInfo(changed);
    Fuzz::require(device.matchScore(other.uniqueId()) == 16, "the maker may change");
}

void checkStore(QTovelMixerRtAudioDevice &device)
{
    Store &store = *Store::store();
    store.restoreRoutes("[]");
    store.restoreMeterConfigs("[]");
    store.addRoute(Route(&device, 2));
    store.addRoute(Route(2, &device));
    store.addMeterConfig(MeterConfig(Type::Input, &device));
    Fuzz::require(store.restoreRoutes(store.saveRoutes()) &&
                      store.restoreMeterConfigs(store.saveMeterConfigs()),
                  "what was saved can be restored");
    Fuzz::require(store.findRoute(&device, 2, nullptr).isValid() &&
                      store.findRoute(nullptr, 2, &device).isValid(),
                  "routes of a device are found again");
    Fuzz::require(store.findMeterConfig(Type::Input, &device).isValid() ==
                      (device.numInputChannels() > 0),
                  "meters of a device are found again");
    Fuzz::require(device.toJsonObject().value(Device::kName).toString() == device.name(),
                  "the device says its name");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Fuzz::Bytes bytes(data, size);
    RtAudio::DeviceInfo info;
    info.ID = bytes.take<std::uint32_t>();
    info.inputChannels = bytes.take<std::uint8_t>();
    info.outputChannels = bytes.take<std::uint8_t>();
    const int flags = bytes.take<std::uint8_t>();
    info.isDefaultInput = flags & 1;
    info.isDefaultOutput = flags & 2;
    info.name = bytes.text(bytes.take<std::uint8_t>()).toStdString();
    const QString id = QString::fromUtf8(bytes.rest());

    QTovelMixerRtAudioDevice device(nullptr, info);
    const QString own = device.uniqueId();
    Fuzz::require(device.matchScore(own) == 128, "a device has its own identity");
    Fuzz::require(device.matchScore(id) == expectedScore(own, id), "the grades are right");
    const QString mixed = own.left(flags) + id;
    Fuzz::require(device.matchScore(mixed) == expectedScore(own, mixed), "the grades are right");
    if (isPlain(device.name()))
        checkChanges(device);
    checkStore(device);
    return 0;
}
