// Preloaded into tessaryd (LD_PRELOAD) to tell how much of its start-up goes
// to the service manager: every blocking sd-bus entry point the daemon calls
// is timed, and the totals are kept, split by whether the connection is the
// manager's private socket, in the file TESSARY_BUS_TIMES names, rewritten
// after every call as one line:
//   manager_calls manager_ns manager_connects other_calls other_ns
// Only the outermost call counts, so a library function that calls another
// wrapped one is not counted twice.
#include <dlfcn.h>
#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<unsigned long long> managerCalls{0};
std::atomic<unsigned long long> managerNs{0};
std::atomic<unsigned long long> managerConnects{0};
std::atomic<unsigned long long> otherCalls{0};
std::atomic<unsigned long long> otherNs{0};
thread_local int depth = 0;

template <class F>
F real(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool isManager(sd_bus* bus) {
    const char* address = nullptr;
    return bus != nullptr && sd_bus_get_address(bus, &address) >= 0 && address != nullptr &&
           std::strstr(address, "/run/systemd/private") != nullptr;
}

void publish() {
    static const int fd = [] {
        const char* path = std::getenv("TESSARY_BUS_TIMES");
        return path != nullptr ? ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644) : -1;
    }();
    if (fd < 0) {
        return;
    }
    char line[160];
    const int n =
        std::snprintf(line, sizeof line, "%llu %llu %llu %llu %llu\n", managerCalls.load(),
                      managerNs.load(), managerConnects.load(), otherCalls.load(), otherNs.load());
    if (n > 0) {
        (void)::pwrite(fd, line, static_cast<size_t>(n), 0);
    }
}

// Times `call` when it is the outermost wrapped call on this thread.
template <class Call>
int timed(sd_bus* bus, bool connect, Call call) {
    if (depth++ > 0) {
        const int r = call();
        --depth;
        return r;
    }
    const bool manager = isManager(bus);
    const auto start = std::chrono::steady_clock::now();
    const int r = call();
    const auto ns =
        static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                            std::chrono::steady_clock::now() - start)
                                            .count());
    --depth;
    (manager ? managerCalls : otherCalls) += 1;
    (manager ? managerNs : otherNs) += ns;
    if (manager && connect) {
        managerConnects += 1;
    }
    publish();
    return r;
}

}  // namespace

extern "C" {

int sd_bus_start(sd_bus* bus) {
    static auto f = real<int (*)(sd_bus*)>("sd_bus_start");
    return timed(bus, true, [&] { return f(bus); });
}

int sd_bus_call(sd_bus* bus, sd_bus_message* m, uint64_t usec, sd_bus_error* e,
                sd_bus_message** reply) {
    static auto f =
        real<int (*)(sd_bus*, sd_bus_message*, uint64_t, sd_bus_error*, sd_bus_message**)>(
            "sd_bus_call");
    return timed(bus, false, [&] { return f(bus, m, usec, e, reply); });
}

int sd_bus_call_method(sd_bus* bus, const char* destination, const char* path,
                       const char* interface, const char* member, sd_bus_error* e,
                       sd_bus_message** reply, const char* types, ...) {
    static auto f =
        real<int (*)(sd_bus*, const char*, const char*, const char*, const char*, sd_bus_error*,
                     sd_bus_message**, const char*, va_list)>("sd_bus_call_methodv");
    va_list ap;
    va_start(ap, types);
    const int r = timed(bus, false, [&] {
        return f(bus, destination, path, interface, member, e, reply, types, ap);
    });
    va_end(ap);
    return r;
}

int sd_bus_get_property_string(sd_bus* bus, const char* destination, const char* path,
                               const char* interface, const char* member, sd_bus_error* e,
                               char** ret) {
    static auto f = real<int (*)(sd_bus*, const char*, const char*, const char*, const char*,
                                 sd_bus_error*, char**)>("sd_bus_get_property_string");
    return timed(bus, false, [&] { return f(bus, destination, path, interface, member, e, ret); });
}

int sd_bus_get_property_strv(sd_bus* bus, const char* destination, const char* path,
                             const char* interface, const char* member, sd_bus_error* e,
                             char*** ret) {
    static auto f = real<int (*)(sd_bus*, const char*, const char*, const char*, const char*,
                                 sd_bus_error*, char***)>("sd_bus_get_property_strv");
    return timed(bus, false, [&] { return f(bus, destination, path, interface, member, e, ret); });
}

int sd_bus_get_property_trivial(sd_bus* bus, const char* destination, const char* path,
                                const char* interface, const char* member, sd_bus_error* e,
                                char type, void* ret) {
    static auto f = real<int (*)(sd_bus*, const char*, const char*, const char*, const char*,
                                 sd_bus_error*, char, void*)>("sd_bus_get_property_trivial");
    return timed(bus, false,
                 [&] { return f(bus, destination, path, interface, member, e, type, ret); });
}

sd_bus* sd_bus_flush_close_unref(sd_bus* bus) {
    static auto f = real<sd_bus* (*)(sd_bus*)>("sd_bus_flush_close_unref");
    sd_bus* out = nullptr;
    (void)timed(bus, false, [&] {
        out = f(bus);
        return 0;
    });
    return out;
}

}  // extern "C"
