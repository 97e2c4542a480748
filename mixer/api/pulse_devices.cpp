// SPDX-License-Identifier: MIT
#include <mixer/api/pulse_devices_p.h>

#include <mixer/api/pulse_connection_p.h>

#include <algorithm>

namespace QTovelMixer {

namespace {

// The server converts any other, too.
constexpr unsigned usualRates[] = {8000, 16000, 22050, 32000, 44100, 48000, 96000, 192000};

struct Answer
{
    std::string defaultSink;
    std::string defaultSource;
    std::vector<PulseDevice> devices;
};

std::string text(const char *words)
{
    return words ? words : "";
}

std::vector<std::string> channelNames(const pa_channel_map &map)
{
    std::vector<std::string> names;
    for (unsigned channel = 0; channel < map.channels; ++channel)
        names.push_back(text(pa_channel_position_to_string(map.map[channel])));
    return names;
}

template <typename Info>
PulseDevice describe(const Info &node)
{
    PulseDevice device;
    device.info.name = node.description ? node.description : text(node.name);
    device.info.preferredSampleRate = node.sample_spec.rate;
    device.info.sampleRates.assign(std::begin(usualRates), std::end(usualRates));
    device.info.nativeFormats = RTAUDIO_SINT16 | RTAUDIO_SINT24 | RTAUDIO_SINT32 | RTAUDIO_FLOAT32;
    device.info.formFactor = text(pa_proplist_gets(node.proplist, PA_PROP_DEVICE_FORM_FACTOR));
    device.info.bus = text(pa_proplist_gets(node.proplist, PA_PROP_DEVICE_BUS));
    return device;
}

void addSink(pa_context *, const pa_sink_info *node, int end, void *answer)
{
    auto &found = *static_cast<Answer *>(answer);
    if (end || !node)
        return;
    PulseDevice device = describe(*node);
    device.sink = node->name;
    device.info.outputChannels = node->sample_spec.channels;
    device.info.outputChannelNames = channelNames(node->channel_map);
    device.info.isDefaultOutput = device.sink == found.defaultSink;
    found.devices.push_back(std::move(device));
}

// A source that bears the description of a sink is the other side of one device.
void addSource(pa_context *, const pa_source_info *node, int end, void *answer)
{
    auto &found = *static_cast<Answer *>(answer);
    if (end || !node)
        return;
    PulseDevice alone = describe(*node);
    const auto other =
        std::find_if(found.devices.begin(), found.devices.end(), [&](const PulseDevice &device) {
            return device.source.empty() && device.info.name == alone.info.name;
        });
    PulseDevice &device = other == found.devices.end() ? alone : *other;
    device.source = node->name;
    device.info.inputChannels = node->sample_spec.channels;
    device.info.duplexChannels = std::min(device.info.inputChannels, device.info.outputChannels);
    device.info.inputChannelNames = channelNames(node->channel_map);
    device.info.isDefaultInput = device.source == found.defaultSource;
    device.info.isMonitor = node->monitor_of_sink != PA_INVALID_INDEX;
    if (&device == &alone)
        found.devices.push_back(std::move(alone));
}

} // namespace

PulseDevices pulseDevices(int timeout)
{
    PulseDevices found;
    Answer answer;
    PulseConnection connection;
    if (!connection.open("device list", timeout)) {
        found.reason = connection.reason();
        return found;
    }
    const PulseConnection::Lock lock(connection);
    const auto readServer = [](pa_context *, const pa_server_info *info, void *user) {
        auto &read = *static_cast<Answer *>(user);
        if (info) {
            read.defaultSink = text(info->default_sink_name);
            read.defaultSource = text(info->default_source_name);
        }
    };
    pa_context *const context = connection.context();
    // In this order, since the lists refer to the names of the defaults, and the sources to the
    // sinks.
    if (!connection.waitFor(pa_context_get_server_info(context, readServer, &answer)) ||
        !connection.waitFor(pa_context_get_sink_info_list(context, addSink, &answer)) ||
        !connection.waitFor(pa_context_get_source_info_list(context, addSource, &answer))) {
        found.reason = connection.reason();
        return found;
    }
    found.devices = std::move(answer.devices);
    return found;
}

void numberDevices(std::vector<PulseDevice> &devices, const std::vector<PulseDevice> &before,
                   unsigned &next)
{
    for (PulseDevice &device : devices) {
        const auto known =
            std::find_if(before.begin(), before.end(), [&](const PulseDevice &other) {
                return other.info.name == device.info.name && other.sink == device.sink &&
                       (other.source == device.source || !device.sink.empty());
            });
        device.info.ID = known == before.end() ? next++ : known->info.ID;
    }
    std::sort(devices.begin(), devices.end(),
              [](const PulseDevice &a, const PulseDevice &b) { return a.info.ID < b.info.ID; });
}

} // namespace QTovelMixer
