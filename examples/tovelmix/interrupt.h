// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_INTERRUPT_H
#define TOVELMIX_INTERRUPT_H

#include <QtCore/QObject>

class QSocketNotifier;

namespace tovelmix {

/// Turns Ctrl-C and the polite kill into a Qt signal. One at a time.
class Interrupt : public QObject
{
    Q_OBJECT

public:
    Interrupt();

Q_SIGNALS:
    void interrupted();

private:
    QSocketNotifier *m_notifier;
};

} // namespace tovelmix

#endif
