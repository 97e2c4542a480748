// SPDX-License-Identifier: MIT
#include <support/test_api.h>

#include <base/trace_p.h>

using namespace QTovelMixer;

TestApi::TestApi(unsigned bufferFrames, QTovelMixer::Backend backend, const QString &name)
    : Api(backend, name, bufferFrames)
{}

TestApi::~TestApi()
{
    stopThread();
    for (TestDevice *device : std::as_const(m_owned)) {
        if (findDevice(device->uniqueId()) != device)
            delete device;
    }
}

TestDevice *TestApi::addTestDevice(const QString &name, unsigned inputs, unsigned outputs)
{
    auto *device = new TestDevice(this);
    device->deviceName = name;
    device->fullDeviceName = name;
    device->inputs = inputs;
    device->outputs = outputs;
    device->id = int(m_owned.size());
    m_owned.append(device);
    m_found.append(device);
    return device;
}

void TestApi::hideDevice(TestDevice *device)
{
    m_found.removeOne(device);
}

void TestApi::showDevice(TestDevice *device)
{
    m_found.append(device);
}

bool TestApi::updateDeviceList()
{
    calls << QStringLiteral("update");
    if (failUpdate)
        return false;
    beginDeviceUpdate();
    for (TestDevice *device : std::as_const(m_found))
        addDevice(device);
    endDeviceUpdate();
    return true;
}

bool TestApi::open(Device *out, Device *in, unsigned int rate)
{
    calls << QStringLiteral("open %1/%2 %3")
                 .arg(Device::deviceName(out), Device::deviceName(in))
                 .arg(rate);
    if (acceptOpen && !acceptOpen(out, in, rate))
        return false;
    input = Buffer(size_t(bufferFrames()) * Device::numInputChannels(in));
    output = Buffer(size_t(bufferFrames()) * Device::numOutputChannels(out));
    m_open = true;
    m_streamTime = 0.0;
    return true;
}

bool TestApi::start()
{
    calls << QStringLiteral("start");
    m_running = m_open && !failStart;
    return m_running;
}

bool TestApi::stop()
{
    calls << QStringLiteral("stop");
    m_running = false;
    stopThread();
    return true;
}

bool TestApi::close()
{
    calls << QStringLiteral("close");
    m_running = false;
    stopThread();
    m_open = false;
    return true;
}

void TestApi::onPause()
{
    calls << QStringLiteral("pause");
}

void TestApi::onResume()
{
    calls << QStringLiteral("resume");
}

int TestApi::callEngine(unsigned status)
{
    int result = 0;
    {
        const AudioThreadMark mark;
        result = mixerCallback(input, output, bufferFrames(), m_streamTime, status);
    }
    m_streamTime += double(bufferFrames()) / sampleRate();
    ++blocks;
    return result;
}

int TestApi::runBlock(unsigned status)
{
    const int result = m_running ? callEngine(status) : -1;
    // A test may look at the block's trace lines at once.
    if (!isAudioThread())
        flushTrace();
    return result;
}

void TestApi::startThread()
{
    stopThread();
    m_threadWanted = true;
    m_thread = std::thread([this] {
        while (m_threadWanted) {
            if (m_running)
                callEngine(0x4);
            std::this_thread::yield();
        }
    });
}

void TestApi::stopThread()
{
    m_threadWanted = false;
    if (m_thread.joinable())
        m_thread.join();
}
