// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_PLAIN_API_H
#define QTOVELMIXER_TESTS_MIXER_API_PLAIN_API_H

#include <mixer/api/api.h>

/// A backend that overrides nothing that it need not.
class PlainApi : public QTovelMixer::Api
{
public:
    explicit PlainApi(unsigned frames) : Api(QTovelMixer::Jack, "Plain", frames) {}
    bool updateDeviceList() override { return true; }
    bool open(QTovelMixer::Device *, QTovelMixer::Device *, unsigned) override { return true; }
    bool start() override { return true; }
    bool stop() override { return true; }
    bool close() override { return false; }
    bool isOpen() const override { return false; }
    bool isRunning() const override { return false; }
};

#endif
