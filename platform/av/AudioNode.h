#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/av/AudioFormat.h"

namespace bw {

class AudioEngine;

/// A node of the audio graph. Nodes are made by their users, attached to one `AudioEngine` (which
/// then shares their ownership) and connected at a format. Rendering pulls: each node renders its
/// inputs into its own output when the node below it asks.
///
/// Thread: attach, connect and the formats are for the engine's controlling thread while the
/// engine is stopped. `render` runs on the render thread.
class AudioNode {
public:
    virtual ~AudioNode();
    AudioNode(const AudioNode&) = delete;
    AudioNode& operator=(const AudioNode&) = delete;

    /// The format of the node's output, set by connecting it; nothing before.
    const std::optional<AudioFormat>& outputFormat() const { return outputFormat_; }

    /// The format at which input bus `bus` was connected; nothing for a free bus.
    std::optional<AudioFormat> inputFormat(std::uint32_t bus) const;

    /// Connected input buses.
    std::uint32_t numberOfInputs() const { return std::uint32_t(inputs_.size()); }

    /// The engine the node is attached to, or null.
    AudioEngine* engine() const { return engine_; }

    // Realtime: renders this node into `output` (one pointer per output channel), or silence
    // when it couldn't be prepared. For the node below it in the graph, on the render thread.
    void pull(float* const* output, FrameCount frames);

protected:
    AudioNode() = default;

    struct Input {
        std::shared_ptr<AudioNode> node;
        AudioFormat format;
    };

    /// How many input buses the node takes: 0 for sources, 1 for effects, many for mixers.
    virtual std::uint32_t maximumInputs() const = 0;

    /// Engine stopped: allocate what rendering up to `maxFrames` frames per call needs. False when
    /// the node's formats don't fit together; it then renders silence.
    virtual bool prepareRender(FrameCount maxFrames) = 0;

    // Realtime: renders `frames` frames (at most the prepared maximum) into `output`, one pointer
    // per channel of `outputFormat()`. No allocation, lock or wait.
    virtual void render(float* const* output, FrameCount frames) = 0;

    /// Rendering has stopped for good (the device is stopped and no cycle runs).
    virtual void renderingStopped() {}

    const std::vector<Input>& inputs() const { return inputs_; }
    void setOutputFormat(const AudioFormat& format) { outputFormat_ = format; }

private:
    friend class AudioEngine;

    AudioEngine* engine_ = nullptr;
    std::optional<AudioFormat> outputFormat_;
    std::vector<Input> inputs_;
    bool renderable_ = false;
};

}  // namespace bw
