#pragma once

#include "core/source/SourceDirectory.h"
#include "sources/PipeWireConnection.h"

#include <memory>
#include <string>

namespace quorva {

// The pictures that other programs on this computer publish through PipeWire: cameras, virtual cameras,
// programs that publish a video source, and other programs' video output streams. Each node is listed in
// the registry's order under the title that its name and application give; the change handler runs on
// the PipeWire thread as nodes come and go.
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
    ChangeHandler changeHandler() const override;
    void setChangeHandler(ChangeHandler handler) override;

private:
    const std::shared_ptr<PipeWireConnection> _connection;
};

} // namespace quorva
