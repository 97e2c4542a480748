// SPDX-License-Identifier: MIT
#include <tovelmix/interrupt.h>

#include <tovelmix/outcome.h>

#include <QtCore/QMetaObject>

#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace tovelmix {

namespace {

constexpr int patience = 5000; // ms

enum Message : char { Signal, Over };

// A signal handler may do little more than write to a descriptor.
int pipeEnds[2] = {-1, -1};

void send(Message message)
{
    const char byte = message;
    [[maybe_unused]] const ssize_t written = write(pipeEnds[1], &byte, 1);
}

void onSignal(int)
{
    send(Signal);
}

/// Waits for a message; false after `timeout` ms (negative: never).
bool receive(Message &message, int timeout)
{
    pollfd descriptor = {pipeEnds[0], POLLIN, 0};
    char byte = Over;
    if (poll(&descriptor, 1, timeout) == 0)
        return false;
    if (read(pipeEnds[0], &byte, 1) == 1)
        message = Message(byte);
    return true;
}

void handle(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

} // namespace

Interrupt::Interrupt()
{
    if (pipe2(pipeEnds, O_CLOEXEC) != 0)
        qFatal("no pipe for the signal handler");
    fcntl(pipeEnds[1], F_SETFL, O_NONBLOCK);
    m_guard = std::thread(&Interrupt::guard, this);
    handle(onSignal);
}

Interrupt::~Interrupt()
{
    handle(SIG_DFL);
    send(Over);
    m_guard.join();
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

// Beside the main thread, which may be the one that waits.
void Interrupt::guard()
{
    Message message = Signal;
    while (!receive(message, -1)) {
    }
    if (message == Over)
        return;
    QMetaObject::invokeMethod(this, &Interrupt::interrupted, Qt::QueuedConnection);
    // Further signals are the impatience of the same user.
    while (message == Signal) {
        if (receive(message, patience))
            continue;
        constexpr char line[] = "tovelmix: interrupted while something waited; files named *.part "
                                "may remain\n";
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, sizeof line - 1);
        _exit(Failed);
    }
}

} // namespace tovelmix
