// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_INTERRUPT_H
#define TOVELMIX_INTERRUPT_H

#include <QtCore/QObject>

#include <thread>

namespace tovelmix {

/// Turns Ctrl-C and the polite kill into a Qt signal. A program that has not ended 5 s later,
/// because something in it waits for a disk, a server or a reader of its output, is ended with
/// status 1. One at a time; create it first, so that it covers everything that may wait.
class Interrupt : public QObject
{
    Q_OBJECT

public:
    Interrupt();
    /// From here on the two signals end the program at once.
    ~Interrupt() override;

Q_SIGNALS:
    void interrupted();

private:
    void guard();

    std::thread m_guard;
};

} // namespace tovelmix

#endif
