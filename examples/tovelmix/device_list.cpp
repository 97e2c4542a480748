// SPDX-License-Identifier: MIT
#include <tovelmix/device_list.h>

#include <tovelmix/printable.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cstdio>

namespace tovelmix {

using QTovelMixer::Device;

namespace {

constexpr int pollIntervalMs = 2000; // the backend probes every 1.5 s at most

void print(const QByteArray &text)
{
    std::fputs(text.constData(), stdout);
    std::fflush(stdout);
}

QString keyOf(const Device &device)
{
    return QString("%1 [%2/%3]")
        .arg(device.fullName())
        .arg(device.numInputChannels())
        .arg(device.numOutputChannels());
}

QString describe(const Device &device)
{
    QStringList sides;
    if (device.numOutputChannels() > 0)
        sides << QString("%1 out").arg(device.numOutputChannels());
    if (device.numInputChannels() > 0)
        sides << QString("%1 in").arg(device.numInputChannels());
    if (device.preferedSampleRate() > 0)
        sides << QString("%1 Hz").arg(device.preferedSampleRate());
    return QString("%1 (%2)").arg(device.name(), sides.join(", "));
}

} // namespace

DeviceList::DeviceList(const DeviceOptions &options, bool json) : m_options(options), m_json(json)
{}

bool DeviceList::open()
{
    m_api = openBackend(m_options, m_outcome);
    return m_api != nullptr;
}

DeviceList::Entries DeviceList::entries() const
{
    Entries entries;
    for (const Device *device : m_api->devices())
        entries.insert(keyOf(*device),
                       {describe(*device), device->isDefaultOutput(), device->isDefaultInput()});
    return entries;
}

QByteArray DeviceList::json(bool compact) const
{
    QJsonArray devices;
    for (const Device *device : m_api->devices()) {
        QJsonObject object = device->toJsonObject();
        object.insert("identity", device->uniqueId());
        object.insert("preferredSampleRate", int(device->preferedSampleRate()));
        object.insert("isMonitor", device->isMonitor());
        devices.append(object);
    }
    const QJsonDocument document(
        QJsonObject{{"backend", m_api->backendString()}, {"devices", devices}});
    return compact ? printable(document, QJsonDocument::Compact) + '\n'
                   : printable(document, QJsonDocument::Indented);
}

void DeviceList::print()
{
    m_printed = entries();
    if (m_json) {
        tovelmix::print(json(false));
        return;
    }
    QString text = m_api->backendString() + '\n';
    for (const Device *device : m_api->devices()) {
        text += "  " + describe(*device);
        if (device->isDefaultOutput())
            text += ", default output";
        if (device->isDefaultInput())
            text += ", default input";
        if (device->isMonitor())
            text += ", a monitor of an output";
        text += '\n';
    }
    tovelmix::print(text.toUtf8());
}

void DeviceList::watch()
{
    m_printed = entries();
    m_printedJson = json(true);
    if (m_json)
        tovelmix::print(m_printedJson);
    else
        print();
    m_timer.start(pollIntervalMs, this);
}

void DeviceList::timerEvent(QTimerEvent *)
{
    if (!m_api->canUpdateDeviceList() || !m_api->updateDeviceList())
        return;
    const Entries now = entries();
    if (m_json) {
        const QByteArray text = json(true);
        if (text != m_printedJson)
            tovelmix::print(text);
        m_printedJson = text;
    } else {
        printChanges(m_printed, now);
    }
    m_printed = now;
}

void DeviceList::printChanges(const Entries &before, const Entries &now) const
{
    QString text;
    Entries gone = before;
    Entries come = now;
    for (auto entry = before.cbegin(); entry != before.cend(); ++entry) {
        // One of several namesakes stands for any other.
        const auto same = come.find(entry.key());
        if (same == come.end())
            continue;
        come.erase(same);
        gone.erase(gone.find(entry.key()));
    }
    for (const Entry &entry : std::as_const(gone))
        text += "- " + entry.line + '\n';
    for (const Entry &entry : std::as_const(come))
        text += "+ " + entry.line + '\n';
    const auto tell = [&](const char *label, bool Entry::*flag) {
        const auto first = [flag](const Entries &entries) {
            for (const Entry &entry : entries) {
                if (entry.*flag)
                    return entry.line;
            }
            return QString("none");
        };
        if (first(before) != first(now))
            text += QString("%1: %2\n").arg(label, first(now));
    };
    tell("default output", &Entry::isDefaultOutput);
    tell("default input", &Entry::isDefaultInput);
    tovelmix::print(text.toUtf8());
}

} // namespace tovelmix
