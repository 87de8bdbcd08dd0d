// Stand-ins, each on a private bus, for the services the desktop and power
// backends ask: logind (which cannot create sessions or sleep without a
// system instance of systemd) and a notification server. FILE.ready appears
// once the name is owned.
//
// bus_standin login1 BUS-ADDRESS FILE [UID GID RUNTIME-PATH CLASS]
//   org.freedesktop.login1. The manager: GetSeat("seat0"), Inhibit(ssss) -> h,
//   ListInhibitors() -> a(ssssuu) (uid and pid 0), Suspend(b) and the
//   PrepareForSleep(b) signal; the seat's ActiveSession (so), the session's
//   Class (s) and User (uo), the user's GID (u) and RuntimePath (s). Without
//   UID no session is active: ("", "/").
//   Suspend goes as logind's does: PrepareForSleep(true), the sleep once no
//   "delay" lock on sleep is left, then PrepareForSleep(false). A lock is the
//   write end of a pipe; the stand-in keeps the read end and drops the lock
//   when the last copy of the write end is closed, as logind does with its
//   FIFOs.
//
// bus_standin notifications BUS-ADDRESS FILE [hang]
//   org.freedesktop.Notifications: appends each Notify call to FILE before it
//   answers (with "hang" it never answers).
//
// bus_standin BUS-ADDRESS
//   logind without a session, and no FILE (the demo's sandbox).

#include <fcntl.h>
#include <sys/epoll.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <list>
#include <string>

namespace {

constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr const char* kSeatPath = "/org/freedesktop/login1/seat/seat0";
constexpr const char* kSessionPath = "/org/freedesktop/login1/session/c1";
constexpr const char* kUserPath = "/org/freedesktop/login1/user/_4242";

struct Console {
    bool active = false;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    const char* runtimePath = "";
    const char* sessionClass = "";
} console;

struct Inhibitor {
    std::string what, who, why, mode;
    int readEnd = -1;
    sd_event_source* source = nullptr;
};

sd_event* event = nullptr;
sd_bus* bus = nullptr;
std::list<Inhibitor> inhibitors;
bool suspending = false;
std::string file;
bool hang = false;

int getSeat(sd_bus_message* m, void* /*userdata*/, sd_bus_error* error) {
    const char* name = "";
    if (sd_bus_message_read(m, "s", &name) < 0 || std::string(name) != "seat0") {
        return sd_bus_error_set(error, "org.freedesktop.login1.NoSuchSeat", "No such seat");
    }
    return sd_bus_reply_method_return(m, "o", kSeatPath);
}

// ActiveSession and User, the two (id, object) pairs.
int pair(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/, const char* property,
         sd_bus_message* reply, void* /*userdata*/, sd_bus_error* /*error*/) {
    if (std::string(property) == "User") {
        return sd_bus_message_append(reply, "(uo)", console.uid, kUserPath);
    }
    return console.active ? sd_bus_message_append(reply, "(so)", "c1", kSessionPath)
                          : sd_bus_message_append(reply, "(so)", "", "/");
}

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
    sd_bus_emit_signal(bus, kManagerPath, kManager, "PrepareForSleep", "b", 0);
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
        sd_bus_emit_signal(bus, kManagerPath, kManager, "PrepareForSleep", "b", 1);
        finishSuspendUnlessDelayed();
    }
    return r;
}

// Without a getter sd-bus reads the value at the offset into `console`.
const sd_bus_vtable kManagerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetSeat", "s", "o", getSeat, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Inhibit", "ssss", "h", inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ListInhibitors", "", "a(ssssuu)", listInhibitors, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Suspend", "b", "", suspend, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("PrepareForSleep", "b", 0),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable kSeat[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("ActiveSession", "(so)", pair, 0, 0),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable kSession[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Class", "s", nullptr, offsetof(Console, sessionClass), 0),
    SD_BUS_PROPERTY("User", "(uo)", pair, 0, 0),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable kUser[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("GID", "u", nullptr, offsetof(Console, gid), 0),
    SD_BUS_PROPERTY("RuntimePath", "s", nullptr, offsetof(Console, runtimePath), 0),
    SD_BUS_VTABLE_END,
};

// One argument a line, no actions; the hints as KEY=TYPE:VALUE.
int notify(sd_bus_message* m, void* /*userdata*/, sd_bus_error* /*error*/) {
    const char *app = "", *icon = "", *summary = "", *body = "", *key = "", *type = "";
    std::uint32_t replaces = 0;
    std::int32_t expire = 0;
    std::uint8_t byte = 0;
    std::ofstream out(file, std::ios::app);
    int r = sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body);
    out << app << '\n' << replaces << '\n' << icon << '\n' << summary << '\n' << body << "\nhints:";
    r = r < 0 ? r : sd_bus_message_skip(m, "as");
    r = r < 0 ? r : sd_bus_message_enter_container(m, 'a', "{sv}");
    while (r >= 0 && sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        sd_bus_message_read(m, "s", &key);
        sd_bus_message_peek_type(m, nullptr, &type);
        out << ' ' << key << '=' << type << ':';
        if (std::string(type) == "y" && sd_bus_message_read(m, "v", "y", &byte) > 0) {
            out << int(byte);
        } else {
            sd_bus_message_skip(m, "v");
        }
        sd_bus_message_exit_container(m);
    }
    r = r < 0 ? r : sd_bus_message_exit_container(m);
    r = r < 0 ? r : sd_bus_message_read(m, "i", &expire);
    out << "\nexpire: " << expire << (r < 0 ? "\nunreadable\n" : "\n");
    out.close();
    if (hang) {
        ::pause();
    }
    return sd_bus_reply_method_return(m, "u", 7u);
}

const sd_bus_vtable kNotifications[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", notify, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

bool serves(const char* path, const char* interface, const sd_bus_vtable* vtable) {
    return sd_bus_add_object_vtable(bus, nullptr, path, interface, vtable, &console) >= 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 2 ? "login1" : argc >= 4 ? argv[1] : "";
    if (mode.empty() || sd_event_new(&event) < 0 || sd_bus_new(&bus) < 0 ||
        sd_bus_set_address(bus, argv[argc == 2 ? 1 : 2]) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0 || sd_bus_attach_event(bus, event, 0) < 0) {
        return 1;
    }
    file = argc == 2 ? "" : argv[3];
    const char* name = nullptr;
    if (mode == "login1" && (argc == 2 || argc == 4 || argc == 8)) {
        if (argc == 8) {
            console = {true, static_cast<std::uint32_t>(std::atoi(argv[4])),
                       static_cast<std::uint32_t>(std::atoi(argv[5])), argv[6], argv[7]};
        }
        name = serves(kManagerPath, kManager, kManagerVtable) &&
                       serves(kSeatPath, "org.freedesktop.login1.Seat", kSeat) &&
                       serves(kSessionPath, "org.freedesktop.login1.Session", kSession) &&
                       serves(kUserPath, "org.freedesktop.login1.User", kUser)
                   ? "org.freedesktop.login1"
                   : nullptr;
    } else if (mode == "notifications" && (argc == 4 || argc == 5)) {
        hang = argc == 5;
        name = serves("/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                      kNotifications)
                   ? "org.freedesktop.Notifications"
                   : nullptr;
    }
    if (name == nullptr || sd_bus_request_name(bus, name, 0) < 0) {
        return 1;
    }
    if (!file.empty()) {
        std::ofstream(file + ".ready").put('\n');
    }
    return sd_event_loop(event) < 0 ? 1 : 0;
}
