#include "platform/SystemActivity.h"

#include "platform/Log.h"

#include <atomic>
#include <dbus/dbus.h>
#include <string>
#include <unistd.h>

namespace quorva {

namespace {

// Logind answers at once or not at all; a recording should not wait on it for long.
constexpr int CallTimeoutMilliseconds = 1000;

void LogOnce(const std::string& why) {
    static std::atomic<bool> said{false};
    if (!said.exchange(true))
        Log("SystemActivity: ", "the machine may sleep while recording: " + why);
}

} // namespace

std::unique_ptr<SystemActivity> SystemActivity::begin(std::string_view reason) {
    DBusError error;
    dbus_error_init(&error);
    // A private connection, so that closing it leaves nobody else's shared one closed.
    DBusConnection* bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    if (!bus) {
        LogOnce(error.message ? error.message : "no system bus");
        dbus_error_free(&error);
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(bus, FALSE);

    int lock = -1;
    DBusMessage* call = dbus_message_new_method_call("org.freedesktop.login1", "/org/freedesktop/login1",
                                                     "org.freedesktop.login1.Manager", "Inhibit");
    const std::string why(reason);
    const char *what = "idle:sleep", *who = "QuorvaRecorder", *whyText = why.c_str(), *mode = "block";
    if (call &&
        dbus_message_append_args(call, DBUS_TYPE_STRING, &what, DBUS_TYPE_STRING, &who, DBUS_TYPE_STRING,
                                 &whyText, DBUS_TYPE_STRING, &mode, DBUS_TYPE_INVALID)) {
        DBusMessage* reply =
            dbus_connection_send_with_reply_and_block(bus, call, CallTimeoutMilliseconds, &error);
        if (reply) {
            if (!dbus_message_get_args(reply, &error, DBUS_TYPE_UNIX_FD, &lock, DBUS_TYPE_INVALID))
                lock = -1;
            dbus_message_unref(reply);
        }
    }
    if (call)
        dbus_message_unref(call);
    if (lock < 0)
        LogOnce(dbus_error_is_set(&error) && error.message ? error.message : "logind gave no lock");
    dbus_error_free(&error);
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    if (lock < 0)
        return nullptr;
    return std::unique_ptr<SystemActivity>(new SystemActivity(lock));
}

SystemActivity::~SystemActivity() {
    ::close(_lock);
}

} // namespace quorva
