#include "remote/DNSSDService.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>

#include <utility>

namespace quorva {

struct DNSSDService::State {
    std::string name;
    std::string type;
    uint16_t port;
    Callbacks callbacks;

    AvahiThreadedPoll* poll = nullptr;
    AvahiClient* client = nullptr;
    AvahiEntryGroup* group = nullptr;
    bool reported = false; // one outcome is reported per publication

    void report(bool published, const std::string& message, bool collision = false) {
        if (reported)
            return;
        reported = true;
        if (published) {
            if (callbacks.didPublish)
                callbacks.didPublish(name);
        } else if (callbacks.didNotPublish) {
            callbacks.didNotPublish(Failure{collision, message});
        }
    }

    // Called from Avahi's callbacks, with `c` the client (the field may not be set yet).
    void addService(AvahiClient* c);
};

namespace {

bool IsCollision(int error) {
    return error == AVAHI_ERR_COLLISION;
}

void GroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) {
    auto* self = static_cast<DNSSDService::State*>(userdata);
    switch (state) {
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        self->report(true, "");
        break;
    case AVAHI_ENTRY_GROUP_COLLISION:
        self->report(false, avahi_strerror(AVAHI_ERR_COLLISION), true);
        break;
    case AVAHI_ENTRY_GROUP_FAILURE:
        self->report(false, avahi_strerror(avahi_client_errno(avahi_entry_group_get_client(group))));
        break;
    default:
        break;
    }
}

void ClientChanged(AvahiClient* client, AvahiClientState state, void* userdata) {
    auto* self = static_cast<DNSSDService::State*>(userdata);
    switch (state) {
    case AVAHI_CLIENT_S_RUNNING:
        self->addService(client);
        break;
    case AVAHI_CLIENT_S_COLLISION:
    case AVAHI_CLIENT_S_REGISTERING:
        // The daemon is renaming its host: services go out and come back once it runs again.
        if (self->group)
            avahi_entry_group_reset(self->group);
        break;
    case AVAHI_CLIENT_FAILURE:
        self->report(false, std::string("the Avahi daemon went away: ") +
                                avahi_strerror(avahi_client_errno(client)));
        break;
    default:
        break;
    }
}

} // namespace

void DNSSDService::State::addService(AvahiClient* c) {
    if (!group) {
        group = avahi_entry_group_new(c, GroupChanged, this);
        if (!group) {
            report(false, avahi_strerror(avahi_client_errno(c)));
            return;
        }
    }
    if (!avahi_entry_group_is_empty(group))
        return;
    int error =
        avahi_entry_group_add_service(group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                                      name.c_str(), type.c_str(), nullptr, nullptr, port, nullptr);
    if (error == 0)
        error = avahi_entry_group_commit(group);
    if (error < 0)
        report(false, avahi_strerror(error), IsCollision(error));
}

DNSSDService::DNSSDService(std::string name, std::string type, uint16_t port, Callbacks callbacks)
    : _state(std::make_unique<State>()) {
    _state->name = std::move(name);
    _state->type = std::move(type);
    _state->port = port;
    _state->callbacks = std::move(callbacks);
    _state->poll = avahi_threaded_poll_new();
    if (!_state->poll) {
        _state->report(false, "Avahi could not start its event thread");
        return;
    }
    // Until the poll thread starts, the client's first callbacks (and so the service's) run here.
    int error = 0;
    _state->client = avahi_client_new(avahi_threaded_poll_get(_state->poll), AvahiClientFlags(0),
                                      ClientChanged, _state.get(), &error);
    if (!_state->client) {
        _state->report(false, std::string("the Avahi daemon cannot be reached: ") + avahi_strerror(error));
        return;
    }
    if (avahi_threaded_poll_start(_state->poll) < 0)
        _state->report(false, "Avahi could not start its event thread");
}

DNSSDService::~DNSSDService() {
    if (_state->poll) {
        avahi_threaded_poll_stop(_state->poll);
        _state->reported = true; // whatever the teardown says, nobody is listening any more
    }
    if (_state->client)
        avahi_client_free(_state->client); // frees the entry group with it
    if (_state->poll)
        avahi_threaded_poll_free(_state->poll);
}

const std::string& DNSSDService::name() const {
    return _state->name;
}

} // namespace quorva
