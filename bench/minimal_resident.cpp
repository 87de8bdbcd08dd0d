// The floor for the daemon's resident memory: a C++ program on the same
// libraries (sd-event, sd-bus, libplist) that opens an event loop and a
// connection to the system bus, parses one small property list and then
// idles in the loop. The sandbox suite reads its VmRSS next to the daemon's.
#include <plist/plist.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdio>
#include <string>

int main() {
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<plist version=\"1.0\"><dict><key>Label</key><string>com.example.minimal</string>"
        "<key>RunAtLoad</key><true/></dict></plist>\n";
    plist_t parsed = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &parsed);
    if (parsed == nullptr) {
        std::fprintf(stderr, "minimal_resident: the property list did not parse\n");
        return 1;
    }
    plist_free(parsed);

    sd_event* event = nullptr;
    sd_bus* bus = nullptr;
    if (sd_event_default(&event) < 0 || sd_bus_new(&bus) < 0 ||
        sd_bus_set_address(bus, "unix:path=/run/dbus/system_bus_socket") < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0 ||
        sd_bus_attach_event(bus, event, 0) < 0) {
        std::fprintf(stderr, "minimal_resident: no event loop or no system bus\n");
        return 1;
    }
    return sd_event_loop(event) < 0 ? 1 : 0;
}
