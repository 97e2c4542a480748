// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_DEVICE_LIST_H
#define TOVELMIX_DEVICE_LIST_H

#include <tovelmix/device_choice.h>

#include <QtCore/QBasicTimer>
#include <QtCore/QMap>
#include <QtCore/QObject>

#include <memory>

namespace tovelmix {

/// The devices that there are, and with `follow` what comes, goes, or becomes the default one.
class DeviceList : public QObject
{
    Q_OBJECT

public:
    DeviceList(const DeviceOptions &options, bool json);

    /// Finds the devices. Errors: false, with the reason in `outcome`.
    bool open();
    /// Prints them.
    void print();
    /// Prints every change from now on.
    void watch();

    const Outcome &outcome() const { return m_outcome; }

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Entry
    {
        QString line;
        bool isDefaultOutput = false;
        bool isDefaultInput = false;
    };
    using Entries = QMultiMap<QString, Entry>; ///< by name and channel counts

    Entries entries() const;
    QByteArray json(bool compact) const;
    void printChanges(const Entries &before, const Entries &now) const;

    DeviceOptions m_options;
    bool m_json;
    std::unique_ptr<QTovelMixer::Api> m_api;
    Entries m_printed;
    QByteArray m_printedJson;
    QBasicTimer m_timer;
    Outcome m_outcome;
};

} // namespace tovelmix

#endif
