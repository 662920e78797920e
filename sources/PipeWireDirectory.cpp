#include "sources/PipeWireDirectory.h"

#include "platform/Log.h"
#include "sources/PipeWireSource.h"

namespace quorva {

PipeWireDirectory::PipeWireDirectory(std::shared_ptr<PipeWireConnection> connection)
    : _connection(std::move(connection)) {}

std::string PipeWireDirectory::title(const std::string& name, const std::string& application) {
    if (name.empty())
        return application.empty() ? "Untitled Server" : application;
    return application.empty() ? name : name + " - " + application;
}

std::vector<SourceDescription> PipeWireDirectory::availableSources() {
    std::vector<SourceDescription> sources;
    for (const auto& node : _connection->videoNodes())
        sources.emplace_back(title(node.name, node.application),
                             node.application.empty() ? "PipeWire" : node.application, SourceKindPipeWire);
    return sources;
}

std::shared_ptr<FrameSource>
PipeWireDirectory::connectToSourceWithTitle(const std::string& title,
                                            const std::shared_ptr<PictureEngine>& engine) {
    for (const auto& node : _connection->videoNodes()) {
        if (PipeWireDirectory::title(node.name, node.application) != title)
            continue;
        auto source = PipeWireSource::connect(_connection, node, title, engine);
        if (source)
            return source.value();
        Log("PipeWire: ", source.error().message());
    }
    return nullptr;
}

} // namespace quorva
