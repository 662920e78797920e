#include "sources/PipeWireConnection.h"

#include "platform/Log.h"
#include "platform/MediaClock.h"

#include <pipewire/pipewire.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quorva {

namespace {

const char* const LogPrefix = "PipeWire: ";
// How often a missing daemon is looked for again, and how long the first account of the registry may take.
constexpr double RetryInterval = 5;
constexpr int RegistryTimeoutSeconds = 2;

std::string Property(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? value : "";
}

uint32_t NumberProperty(const spa_dict* props, const char* key) {
    const std::string text = Property(props, key);
    return text.empty() ? SPA_ID_INVALID : uint32_t(std::strtoul(text.c_str(), nullptr, 10));
}

} // namespace

// The core and registry of one link to the daemon. Made and let go of under the loop's lock.
struct PipeWireConnection::Registry {
    PipeWireConnection* owner;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook coreListener{};
    spa_hook registryListener{};
    int syncSequence = 0;
    bool synced = false;
    bool broken = false;

    ~Registry() {
        if (registry) {
            spa_hook_remove(&registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
        }
        if (core) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
        }
    }

    static void global(void* data, uint32_t id, uint32_t, const char* type, uint32_t, const spa_dict* props) {
        auto* self = static_cast<Registry*>(data);
        PipeWireConnection& owner = *self->owner;
        if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
            std::lock_guard guard(owner._lock);
            owner._clients.emplace_back(id, Property(props, PW_KEY_APP_NAME));
            return;
        }
        if (std::strcmp(type, PW_TYPE_INTERFACE_Node) != 0)
            return;
        const std::string mediaClass = Property(props, PW_KEY_MEDIA_CLASS);
        if (mediaClass != "Video/Source" && mediaClass != "Stream/Output/Video")
            return;
        Node node;
        node.id = id;
        node.serial = Property(props, PW_KEY_OBJECT_SERIAL);
        node.name = Property(props, PW_KEY_NODE_DESCRIPTION);
        if (node.name.empty())
            node.name = Property(props, PW_KEY_NODE_NAME);
        node.application = Property(props, PW_KEY_APP_NAME);
        node.client = NumberProperty(props, PW_KEY_CLIENT_ID);
        {
            std::lock_guard guard(owner._lock);
            owner._nodes.push_back(std::move(node));
        }
        owner._nodeChanges.notify();
    }

    static void globalRemove(void* data, uint32_t id) {
        PipeWireConnection& owner = *static_cast<Registry*>(data)->owner;
        bool wasNode;
        {
            std::lock_guard guard(owner._lock);
            std::erase_if(owner._clients, [id](const auto& client) { return client.first == id; });
            wasNode = std::erase_if(owner._nodes, [id](const Node& node) { return node.id == id; }) > 0;
        }
        if (wasNode)
            owner._nodeChanges.notify();
    }

    static void done(void* data, uint32_t id, int sequence) {
        auto* self = static_cast<Registry*>(data);
        if (id == PW_ID_CORE && sequence == self->syncSequence) {
            self->synced = true;
            pw_thread_loop_signal(self->owner->_threadLoop, false);
        }
    }

    static void error(void* data, uint32_t id, int, int result, const char* message) {
        auto* self = static_cast<Registry*>(data);
        if (id != PW_ID_CORE || result != -EPIPE)
            return;
        // The daemon went away: everything it listed went with it.
        Log(LogPrefix, std::string("lost the daemon: ") + (message ? message : std::strerror(-result)));
        self->broken = true;
        PipeWireConnection& owner = *self->owner;
        {
            std::lock_guard guard(owner._lock);
            owner._nodes.clear();
            owner._clients.clear();
        }
        owner._nodeChanges.notify();
        pw_thread_loop_signal(owner._threadLoop, false);
    }
};

std::shared_ptr<PipeWireConnection> PipeWireConnection::make() {
    return std::shared_ptr<PipeWireConnection>(new PipeWireConnection());
}

PipeWireConnection::PipeWireConnection() {
    pw_init(nullptr, nullptr);
    _threadLoop = pw_thread_loop_new("pipewire", nullptr);
    _context = pw_context_new(pw_thread_loop_get_loop(_threadLoop), nullptr, 0);
    _laterEvent = pw_loop_add_event(
        pw_thread_loop_get_loop(_threadLoop),
        [](void* data, uint64_t) {
            auto* self = static_cast<PipeWireConnection*>(data);
            std::vector<std::function<void()>> tasks;
            {
                std::lock_guard guard(self->_laterLock);
                tasks.swap(self->_laterTasks);
            }
            for (auto& task : tasks)
                task();
        },
        this);
    pw_thread_loop_start(_threadLoop);
}

PipeWireConnection::~PipeWireConnection() {
    {
        Lock lock(*this);
        _registry.reset();
    }
    pw_thread_loop_stop(_threadLoop);
    // What was left for later runs now, on this thread, with the loop stopped.
    for (auto& task : _laterTasks)
        task();
    pw_loop_destroy_source(pw_thread_loop_get_loop(_threadLoop), _laterEvent);
    pw_context_destroy(_context);
    pw_thread_loop_destroy(_threadLoop);
}

pw_loop* PipeWireConnection::loop() const {
    return pw_thread_loop_get_loop(_threadLoop);
}

bool PipeWireConnection::inLoopThread() const {
    return pw_thread_loop_in_thread(_threadLoop);
}

void PipeWireConnection::later(std::function<void()> task) {
    {
        std::lock_guard guard(_laterLock);
        _laterTasks.push_back(std::move(task));
    }
    pw_loop_signal_event(loop(), _laterEvent);
}

PipeWireConnection::Lock::Lock(const PipeWireConnection& connection) : _loop(connection._threadLoop) {
    pw_thread_loop_lock(_loop);
}

PipeWireConnection::Lock::~Lock() {
    pw_thread_loop_unlock(_loop);
}

void PipeWireConnection::connect() {
    if (_registry && !_registry->broken)
        return;
    const double now = MediaClock::now();
    if (now - _lastAttempt < RetryInterval)
        return;
    _lastAttempt = now;
    _registry.reset();
    auto registry = std::make_unique<Registry>();
    registry->owner = this;
    registry->core = pw_context_connect(_context, nullptr, 0);
    if (!registry->core) {
        if (!_absenceLogged)
            Log(LogPrefix, std::string("no PipeWire daemon to connect to (") + std::strerror(errno) +
                               "): no PipeWire sources are listed");
        _absenceLogged = true;
        return;
    }
    // Built field by field: the structures grow with PipeWire's versions.
    static const pw_core_events CoreEvents = [] {
        pw_core_events events{};
        events.version = PW_VERSION_CORE_EVENTS;
        events.done = Registry::done;
        events.error = Registry::error;
        return events;
    }();
    static const pw_registry_events RegistryEvents = [] {
        pw_registry_events events{};
        events.version = PW_VERSION_REGISTRY_EVENTS;
        events.global = Registry::global;
        events.global_remove = Registry::globalRemove;
        return events;
    }();
    pw_core_add_listener(registry->core, &registry->coreListener, &CoreEvents, registry.get());
    registry->registry = pw_core_get_registry(registry->core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry->registry, &registry->registryListener, &RegistryEvents,
                             registry.get());
    // The nodes that exist now are listed before the first answer: a listing right after start finds them.
    registry->syncSequence = pw_core_sync(registry->core, PW_ID_CORE, 0);
    while (!registry->synced && !registry->broken)
        if (pw_thread_loop_timed_wait(_threadLoop, RegistryTimeoutSeconds) != 0)
            break;
    if (_absenceLogged && !registry->broken)
        Log(LogPrefix, "connected to the daemon");
    _absenceLogged = _absenceLogged && registry->broken;
    _registry = std::move(registry);
}

std::vector<PipeWireConnection::Node> PipeWireConnection::videoNodes() {
    {
        Lock lock(*this);
        connect();
    }
    std::lock_guard guard(_lock);
    std::vector<Node> nodes = _nodes;
    for (Node& node : nodes) {
        if (!node.application.empty())
            continue;
        auto client = std::find_if(_clients.begin(), _clients.end(),
                                   [&](const auto& client) { return client.first == node.client; });
        if (client != _clients.end())
            node.application = client->second;
    }
    return nodes;
}

bool PipeWireConnection::hasNode(uint32_t id) const {
    std::lock_guard guard(_lock);
    return std::any_of(_nodes.begin(), _nodes.end(), [id](const Node& node) { return node.id == id; });
}

} // namespace quorva
