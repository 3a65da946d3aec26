#include "copy_client/waiting.h"

#include <poll.h>

#include <array>

namespace copy_client {

bool wait_for_input(int descriptor, int stop, Milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    for (;;) {
        const auto left =
            std::chrono::ceil<Milliseconds>(end - std::chrono::steady_clock::now()).count();
        std::array<pollfd, 2> waited{{{stop, POLLIN, 0}, {descriptor, POLLIN, 0}}};
        const int ready =
            ::poll(waited.data(), waited.size(), left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0 && waited[0].revents != 0) {
            throw Stopped{};
        }
        if (ready > 0 || left <= 0) {
            return ready > 0;
        }
    }
}

void pause_for(Milliseconds time, int stop) {
    wait_for_input(-1, stop, time);
}

} // namespace copy_client
