// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <QtCore/QMutex>

class Counter : public QTovelMixer::Sink
{
public:
    using Sink::Sink;
    void mixer_callback(QTovelMixer::aligned_vector<float, 16> *, int, long long) override
    {
        mutex.lock();
        ++blocks;
        mutex.unlock();
    }

    QMutex mutex;
    int blocks = 0;
};
