#pragma once

#include <pipewire/pipewire.h>

#include <cstdint>
#include <set>
#include <string>

#include "platform/hal/pipewire/PipeWireConnection.h"
#include "platform/hal/pipewire/RegistryMirror.h"

namespace bw::pipewire {

/// Mutes tapped streams without silencing our capture of them: it moves them, through the
/// "default" metadata's `target.object`, to a silent sink of ours, which keeps our links from
/// their ports and takes them off the speakers. Clearing the key sends a stream back to the
/// default output. The sink's name is new every run, since the session manager remembers moves
/// per application.
///
/// Owner: the hardware layer. Thread: everything with the loop lock held.
class StreamMover {
public:
    StreamMover(PipeWireConnection& connection, RegistryMirror& mirror);
    StreamMover(const StreamMover&) = delete;
    StreamMover& operator=(const StreamMover&) = delete;

    /// Moves the streams of `wanted` that aren't in `moved` to the silent sink and those of
    /// `moved` that aren't wanted, and still exist, back; then `moved` is what is moved. With no
    /// metadata or no sink nothing is moved, and the next call tries again.
    void update(std::set<std::uint32_t>& moved, std::set<std::uint32_t> wanted);
    /// Sends every stream of `moved` back to the default output.
    void release(const std::set<std::uint32_t>& moved);
    /// Lets go of the silent sink: at the end, or when its server is gone.
    void dropSink();

private:
    bool ensureSilentSink();
    void setTarget(std::uint32_t nodeID, const char* target);

    PipeWireConnection& connection_;
    RegistryMirror& mirror_;
    pw_proxy* silentSink_ = nullptr;
    const std::string silentSinkName_;
};

}  // namespace bw::pipewire
