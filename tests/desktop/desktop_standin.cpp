// Stand-ins, each on a private bus, for the two services the desktop backends
// ask: logind (which cannot create sessions without a system instance of
// systemd) and a notification server. FILE.ready appears once the name is
// owned.
//
// desktop_standin login1 BUS-ADDRESS FILE [UID GID RUNTIME-PATH CLASS]
//   org.freedesktop.login1: Manager.GetSeat("seat0"), the seat's
//   ActiveSession (so), the session's Class (s) and User (uo), the user's GID
//   (u) and RuntimePath (s). Without UID no session is active: ("", "/").
//
// desktop_standin notifications BUS-ADDRESS FILE [hang]
//   org.freedesktop.Notifications: appends each Notify call to FILE before it
//   answers (with "hang" it never answers).

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

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

// Without a getter sd-bus reads the value at the offset into `console`.
const sd_bus_vtable kManager[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetSeat", "s", "o", getSeat, SD_BUS_VTABLE_UNPRIVILEGED),
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

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc >= 4 ? argv[1] : "";
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, argc >= 4 ? argv[2] : "") < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        return 1;
    }
    file = argc >= 4 ? argv[3] : "";
    const auto serves = [&](const char* path, const char* interface, const sd_bus_vtable* vtable) {
        return sd_bus_add_object_vtable(bus, nullptr, path, interface, vtable, &console) >= 0;
    };
    const char* name = nullptr;
    if (mode == "login1" && (argc == 4 || argc == 8)) {
        if (argc == 8) {
            console = {true, static_cast<std::uint32_t>(std::atoi(argv[4])),
                       static_cast<std::uint32_t>(std::atoi(argv[5])), argv[6], argv[7]};
        }
        name = serves("/org/freedesktop/login1", "org.freedesktop.login1.Manager", kManager) &&
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
    std::ofstream(file + ".ready").put('\n');
    for (int r = 0; r >= 0;) {
        r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            r = sd_bus_wait(bus, UINT64_MAX);
        }
    }
    return 1;
}
