// SPDX-License-Identifier: MIT
#include <mixer/types.h>

#include <base/thread.h>

#include <stdexcept>

namespace QTovelMixer {

namespace {

struct BackendName
{
    Backend backend;
    const char *name;
};

// In the order in which a text is compared.
constexpr BackendName backendNames[] = {
    {Alsa, "Alsa"},           {Pulse, "Pulse"},   {OSS, "OSS"},   {Jack, "Jack"},
    {CoreAudio, "CoreAudio"}, {WASAPI, "WASAPI"}, {ASIO, "ASIO"}, {DirectSound, "DirectSound"},
    {Disabled, "Disabled"},   {Auto, "Auto"},     {File, "File"},
};

} // namespace

QString toString(Type type)
{
    switch (type) {
    case Type::Input:
        return QStringLiteral("input");
    case Type::Output:
        return QStringLiteral("output");
    case Type::Loop:
        return QStringLiteral("loop");
    case Type::NoType:
        break;
    }
    return QStringLiteral("invalid");
}

Type fromTypeString(const QString &text)
{
    for (const Type type : {Type::Input, Type::Output, Type::Loop}) {
        if (text.compare(toString(type), Qt::CaseInsensitive) == 0)
            return type;
    }
    return Type::NoType;
}

QString convertBackendToString(Backend backend)
{
    if (backend == NoBackend)
        return QString();
    for (const BackendName &entry : backendNames) {
        if (entry.backend == backend)
            return QString::fromLatin1(entry.name);
    }
    throw std::logic_error("Invalid backend");
}

Backend convertStringToBackend(const QString &name)
{
    for (const BackendName &entry : backendNames) {
        if (name.compare(QLatin1String(entry.name), Qt::CaseInsensitive) == 0)
            return entry.backend;
    }
    return Auto;
}

bool IsRunningInMainThread()
{
    return BLTHREAD_IsRunningInMainThread();
}

} // namespace QTovelMixer
