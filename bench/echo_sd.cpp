// bench_echo_sd: bench_echo on sd-bus.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace {

int answer(sd_bus_message* call, void*, sd_bus_error*)
{
    return sd_bus_reply_method_return(call, "");
}

const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("empty", "", "", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

int main()
{
    constexpr const char* name = "org.tulo.BenchEchoSd";
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0
        || sd_bus_add_object_vtable(bus, nullptr, "/", name, vtable, nullptr) < 0
        || sd_bus_request_name(bus, name, 0) < 0) {
        std::fprintf(stderr, "bench_echo_sd: no session bus\n");
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        while (sd_bus_process(bus, nullptr) > 0) { }
        std::array<pollfd, 2> descriptors { {
            { sd_bus_get_fd(bus), short(sd_bus_get_events(bus)), 0 },
            { STDIN_FILENO, POLLIN, 0 },
        } };
        if (::poll(descriptors.data(), descriptors.size(), -1) < 0 || descriptors[1].revents != 0)
            break;
    }
    sd_bus_flush_close_unref(bus);
    return 0;
}
