#pragma once

#include <memory>
#include <string_view>

namespace quorva {

// Keeps the machine from idling into sleep while it is held: a systemd-logind inhibitor lock taken over
// the system bus, released when this is destroyed. Machines without the bus or logind (containers,
// test machines) simply record without one.
class SystemActivity {
public:
    // Nothing, and the reason logged once per run, when no lock can be taken.
    static std::unique_ptr<SystemActivity> begin(std::string_view reason);

    ~SystemActivity();
    SystemActivity(const SystemActivity&) = delete;
    SystemActivity& operator=(const SystemActivity&) = delete;

private:
    explicit SystemActivity(int lock) : _lock(lock) {}

    int _lock; // the file descriptor that logind holds the lock for
};

} // namespace quorva
