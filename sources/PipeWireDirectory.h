#pragma once

#include "core/source/SourceDirectory.h"
#include "sources/PipeWireConnection.h"

#include <memory>
#include <string>

namespace quorva {

// The pictures that other programs on this computer publish through PipeWire: cameras, virtual cameras,
// programs that publish a video source, and other programs' video output streams. Each node is listed in
// the registry's order under the title that its name and application give.
//
// Threads: listing and connecting are never done on the PipeWire thread (the connection's loop, where
// every handler of its sources and the change handler run): both wait for that thread's answers, a
// listing up to two seconds for a daemon's first account, a connection up to a second for each node of
// the title. The change handler runs on the PipeWire thread as nodes come and go, so it must not list or
// connect either; it posts to the thread that does.
class PipeWireDirectory final : public SourceDirectory {
public:
    explicit PipeWireDirectory(std::shared_ptr<PipeWireConnection> connection = PipeWireConnection::make());

    // "name - application", or whichever of the two there is, or "Untitled Server". Equal titles stay equal.
    static std::string title(const std::string& name, const std::string& application);

    // Each with the application as its detail, or "PipeWire" without one.
    std::vector<SourceDescription> availableSources() override;
    // The first node of this title, in the registry's order, whose stream can be linked.
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) override;
    ChangeNotifier& changes() override { return _connection->nodeChanges(); }

private:
    const std::shared_ptr<PipeWireConnection> _connection;
};

} // namespace quorva
