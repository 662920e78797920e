#pragma once

#include "core/source/ChangeNotifier.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct pw_context;
struct pw_loop;
struct pw_thread_loop;
struct spa_source;

namespace quorva {

// The program's one link to the PipeWire daemon: a thread loop of its own, on which every PipeWire
// callback of the program runs, and the registry's account of the nodes that publish pictures. A daemon
// that is not there (or goes away) leaves the list empty; the link is tried again when the list is asked
// for, at most every few seconds, and its absence is logged once.
class PipeWireConnection {
public:
    // A node that publishes pictures: a video source ("Video/Source") or another program's video output
    // stream ("Stream/Output/Video").
    struct Node {
        uint32_t id = 0;
        std::string serial; // what a stream names as its target
        std::string name;   // the node's description, else its name
        std::string application;
        uint32_t client = 0; // whose application name stands in for a node without one
    };

    // Never null: a connection whose daemon is not there lists nothing.
    static std::shared_ptr<PipeWireConnection> make();
    ~PipeWireConnection();
    PipeWireConnection(const PipeWireConnection&) = delete;
    PipeWireConnection& operator=(const PipeWireConnection&) = delete;

    // The nodes in the order the registry announced them. Not on the loop's thread.
    std::vector<Node> videoNodes();
    // Whether the registry still lists the node.
    bool hasNode(uint32_t id) const;
    // Notified on the loop's thread when a node comes or goes, and when the daemon goes away.
    ChangeNotifier& nodeChanges() { return _nodeChanges; }

    pw_thread_loop* threadLoop() const { return _threadLoop; }
    pw_loop* loop() const;
    bool inLoopThread() const;
    // Runs `task` on the loop's thread once the callback now running has returned: a stream cannot be
    // destroyed from its own callback.
    void later(std::function<void()> task);

    // Holds the loop's lock, which every use of this connection's PipeWire objects needs off its thread.
    class Lock {
    public:
        explicit Lock(const PipeWireConnection& connection);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pw_thread_loop* _loop;
    };

private:
    struct Registry;
    PipeWireConnection();
    // Under the loop's lock.
    void connect();

    pw_thread_loop* _threadLoop = nullptr;
    pw_context* _context = nullptr;
    std::unique_ptr<Registry> _registry; // under the loop's lock
    double _lastAttempt = -1e9;          // under the loop's lock
    bool _absenceLogged = false;         // under the loop's lock
    spa_source* _laterEvent = nullptr;
    std::mutex _laterLock; // guards _laterTasks
    std::vector<std::function<void()>> _laterTasks;
    mutable std::mutex _lock; // guards _nodes and _clients, read by other threads
    std::vector<Node> _nodes;
    std::vector<std::pair<uint32_t, std::string>> _clients; // id and application name
    ChangeNotifier _nodeChanges;
};

} // namespace quorva
