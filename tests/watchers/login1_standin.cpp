// A stand-in for systemd-logind on a private bus, for the tests of the logind
// clients: logind itself cannot create sessions without a system instance of
// systemd, and the clients need only the manager's inhibitor locks and its
// sleep signal.
//
// It owns org.freedesktop.login1 and serves org.freedesktop.login1.Manager on
// /org/freedesktop/login1: Inhibit(ssss) -> h, ListInhibitors() -> a(ssssuu)
// (uid and pid 0), Suspend(b), and the PrepareForSleep(b) signal. Suspend
// goes as logind's does: PrepareForSleep(true), the sleep once no "delay"
// lock on sleep is left, then PrepareForSleep(false).
//
// A lock is the write end of a pipe; the stand-in keeps the read end and
// drops the lock when the last copy of the write end is closed, as logind does
// with its FIFOs.
//
// Usage: login1_standin BUS-ADDRESS

#include <fcntl.h>
#include <sys/epoll.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <list>
#include <string>

namespace {

constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

struct Inhibitor {
    std::string what, who, why, mode;
    int readEnd = -1;
    sd_event_source* source = nullptr;
};

sd_event* event = nullptr;
sd_bus* bus = nullptr;
std::list<Inhibitor> inhibitors;
bool suspending = false;

void finishSuspendUnlessDelayed() {
    if (!suspending) {
        return;
    }
    for (const auto& i : inhibitors) {
        if (i.mode == "delay" && (":" + i.what + ":").find(":sleep:") != std::string::npos) {
            return;
        }
    }
    suspending = false;
    sd_bus_emit_signal(bus, kPath, kManager, "PrepareForSleep", "b", 0);
}

int onLockClosed(sd_event_source* /*s*/, int fd, uint32_t /*revents*/, void* /*userdata*/) {
    char buf[64];
    if (::read(fd, buf, sizeof buf) > 0) {
        return 0;
    }
    for (auto it = inhibitors.begin(); it != inhibitors.end(); ++it) {
        if (it->readEnd == fd) {
            sd_event_source_disable_unref(it->source);
            ::close(it->readEnd);
            inhibitors.erase(it);
            break;
        }
    }
    finishSuspendUnlessDelayed();
    return 0;
}

int inhibit(sd_bus_message* m, void* /*userdata*/, sd_bus_error* /*error*/) {
    const char *what, *who, *why, *mode;
    int r = sd_bus_message_read(m, "ssss", &what, &who, &why, &mode);
    int ends[2];
    if (r < 0 || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return r < 0 ? r : -errno;
    }
    Inhibitor& i = inhibitors.emplace_back(Inhibitor{what, who, why, mode, ends[0], nullptr});
    sd_event_add_io(event, &i.source, ends[0], EPOLLIN, onLockClosed, nullptr);
    r = sd_bus_reply_method_return(m, "h", ends[1]);  // the message sends a duplicate
    ::close(ends[1]);
    return r;
}

int listInhibitors(sd_bus_message* m, void* /*userdata*/, sd_bus_error* /*error*/) {
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(m, &reply);
    r = r < 0 ? r : sd_bus_message_open_container(reply, 'a', "(ssssuu)");
    for (const auto& i : inhibitors) {
        r = r < 0 ? r
                  : sd_bus_message_append(reply, "(ssssuu)", i.what.c_str(), i.who.c_str(),
                                          i.why.c_str(), i.mode.c_str(), 0u, 0u);
    }
    r = r < 0 ? r : sd_bus_message_close_container(reply);
    r = r < 0 ? r : sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r;
}

int suspend(sd_bus_message* m, void* /*userdata*/, sd_bus_error* /*error*/) {
    int r = sd_bus_reply_method_return(m, "");
    if (!suspending) {
        suspending = true;
        sd_bus_emit_signal(bus, kPath, kManager, "PrepareForSleep", "b", 1);
        finishSuspendUnlessDelayed();
    }
    return r;
}

const sd_bus_vtable kManagerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Inhibit", "ssss", "h", inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ListInhibitors", "", "a(ssssuu)", listInhibitors, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Suspend", "b", "", suspend, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("PrepareForSleep", "b", 0),
    SD_BUS_VTABLE_END,
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || sd_event_new(&event) < 0 || sd_bus_new(&bus) < 0 ||
        sd_bus_set_address(bus, argv[1]) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, kPath, kManager, kManagerVtable, nullptr) < 0 ||
        sd_bus_request_name(bus, "org.freedesktop.login1", 0) < 0 ||
        sd_bus_attach_event(bus, event, 0) < 0) {
        std::fprintf(stderr, "usage: login1_standin BUS-ADDRESS (a bus that it can serve on)\n");
        return 1;
    }
    return sd_event_loop(event) < 0 ? 1 : 0;
}
