// SPDX-License-Identifier: MIT
#include <tovelmix/interrupt.h>

#include <QtCore/QSocketNotifier>

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace tovelmix {

namespace {

// A signal handler may do little more than write to a descriptor.
int pipeEnds[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = write(pipeEnds[1], &byte, 1);
}

} // namespace

Interrupt::Interrupt()
{
    if (pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("no pipe for the signal handler");
    m_notifier = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        m_notifier->setEnabled(false);
        emit interrupted();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

} // namespace tovelmix
