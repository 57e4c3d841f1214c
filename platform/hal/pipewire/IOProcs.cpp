#include "platform/hal/pipewire/IOProcs.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/pipewire/Constants.h"
#include "platform/hal/pipewire/LoopLock.h"

namespace bw::pipewire {

struct IOProcs::IOProc {
    AudioObjectID device = 0;
    std::shared_ptr<SerialQueue> queue;
    AudioDeviceIOBlock block;
    std::shared_ptr<StreamEndpoint> endpoint;  // the aggregate's capture, or a device's own stream
    bool ownsEndpoint = false;
    std::thread pump;
    std::atomic<bool> pumping{false};
    bool started = false;
};

IOProcs::IOProcs(PipeWireConnection& connection, RegistryMirror& mirror, StandInClock& standIn)
    : connection_(connection), mirror_(mirror), standIn_(standIn) {}

IOProcs::~IOProcs() = default;

OSStatus IOProcs::create(AudioObjectID device, std::shared_ptr<StreamEndpoint> capture,
                         std::shared_ptr<SerialQueue> queue, AudioDeviceIOBlock block,
                         AudioDeviceIOProcID& outProcID) {
    auto proc = std::make_shared<IOProc>();
    proc->device = device;
    proc->block = std::move(block);
    proc->queue = std::move(queue);
    if (capture) {
        proc->endpoint = std::move(capture);
    } else if (const RegistryMirror::Node* node = mirror_.deviceNode(device)) {
        const bool sink = node->mediaClass == "Audio/Sink";
        proc->endpoint = StreamEndpoint::make(
            connection_.core(), sink, connection_.nodeName(sink ? "output" : "input"),
            mirror_.deviceChannels(*node, sink), node->rate > 0 ? node->rate : kGraphRate,
            node->name, true);
        proc->ownsEndpoint = true;
        if (!proc->endpoint) {
            return kAudioHardwareUnspecifiedError;
        }
    } else {
        return kAudioHardwareBadObjectError;
    }
    if (!proc->endpoint->isPlayback() && !proc->queue) {
        proc->queue = std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.device-io");
    }
    outProcID = nextProc_++;
    procs_[outProcID] = std::move(proc);
    return 0;
}

OSStatus IOProcs::start(AudioObjectID device, AudioDeviceIOProcID procID) {
    auto it = procs_.find(procID);
    if (it == procs_.end() || it->second->device != device) {
        return kAudioHardwareBadObjectError;
    }
    auto proc = it->second;
    if (proc->started) {
        return 0;
    }
    proc->started = true;
    if (proc->endpoint->isPlayback()) {
        proc->endpoint->startRendering(proc->block);
    } else {
        proc->pumping.store(true);
        proc->endpoint->startConsuming();
        proc->pump = std::thread([this, proc] {
            pthread_setname_np(pthread_self(), "bw-device-io");
            pump(proc);
        });
    }
    return 0;
}

OSStatus IOProcs::stop(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::shared_ptr<IOProc> proc;
    {
        LoopLock lock(connection_.loop());
        auto it = procs_.find(procID);
        if (it == procs_.end() || it->second->device != device) {
            return kAudioHardwareBadObjectError;
        }
        proc = it->second;
    }
    stopProc(proc);
    return 0;
}

OSStatus IOProcs::destroy(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::shared_ptr<IOProc> proc;
    {
        LoopLock lock(connection_.loop());
        auto it = procs_.find(procID);
        if (it == procs_.end() || it->second->device != device) {
            return kAudioHardwareBadObjectError;
        }
        proc = it->second;
        procs_.erase(it);
    }
    stopProc(proc);
    if (proc->ownsEndpoint) {
        LoopLock lock(connection_.loop());
        proc->endpoint->destroy();
    }
    return 0;
}

void IOProcs::removeAll(AudioObjectID device) {
    std::vector<std::shared_ptr<IOProc>> orphans;
    {
        LoopLock lock(connection_.loop());
        for (auto it = procs_.begin(); it != procs_.end();) {
            if (it->second->device == device) {
                orphans.push_back(it->second);
                it = procs_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& proc : orphans) {
        stopProc(proc);
    }
}

void IOProcs::stopAll() {
    std::vector<std::shared_ptr<IOProc>> running;
    {
        LoopLock lock(connection_.loop());
        for (auto& [id, proc] : procs_) {
            running.push_back(proc);
        }
    }
    for (auto& proc : running) {
        stopProc(proc);
    }
}

void IOProcs::destroyAll() {
    for (auto& [id, proc] : procs_) {
        if (proc->ownsEndpoint) {
            proc->endpoint->destroy();
        }
    }
    procs_.clear();
}

std::vector<std::shared_ptr<StreamEndpoint>> IOProcs::ownedEndpoints() const {
    std::vector<std::shared_ptr<StreamEndpoint>> list;
    for (const auto& [id, proc] : procs_) {
        if (proc->ownsEndpoint && proc->endpoint) {
            list.push_back(proc->endpoint);
        }
    }
    return list;
}

void IOProcs::pump(const std::shared_ptr<IOProc>& proc) {
    StreamEndpoint& endpoint = *proc->endpoint;
    const std::uint32_t channels = endpoint.channels();
    std::vector<float> block(std::size_t(channels) * 8192);
    double sampleTime = 0;
    std::uint64_t announcedDrops = 0;
    while (proc->pumping.load()) {
        endpoint.waitForAudio(std::chrono::milliseconds(50));
        if (const auto dropped = endpoint.dropped(); dropped > announcedDrops) {
            // The ring was full: the reader fell behind and audio is missing.
            announcedDrops = dropped;
            LoopLock lock(connection_.loop());
            mirror_.notify(proc->device, kAudioDeviceProcessorOverload);
        }
        while (proc->pumping.load()) {
            const std::size_t available = endpoint.readable() / channels * channels;
            if (available == 0) {
                break;
            }
            const std::size_t count =
                endpoint.read(block.data(), std::min(available, block.size()));
            AudioBuffer audio{channels, std::uint32_t(count * 4), block.data()};
            AudioBufferList list{1, &audio};
            const AudioTimeStamp now{sampleTime, 0};
            sampleTime += double(count / channels);
            proc->queue->sync([&] {
                if (proc->pumping.load()) {
                    proc->block(&now, &list, &now, nullptr, &now);
                }
            });
        }
    }
}

void IOProcs::stopProc(const std::shared_ptr<IOProc>& proc) {
    if (proc->endpoint) {
        proc->endpoint->stopIO();
    }
    standIn_.waitIdle();
    if (proc->pumping.exchange(false) && proc->endpoint) {
        proc->endpoint->wake();
    }
    if (proc->pump.joinable()) {
        if (proc->queue && proc->queue->isCurrent()) {
            proc->pump.detach();  // it waits for this very queue; it ends once we return
        } else {
            proc->pump.join();
        }
    }
    proc->started = false;
}

}  // namespace bw::pipewire
