#include "config-copy/agents/name_lookup.h"

#include "config-copy/interrupt.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace config_copy {
namespace {

struct Lookup {
    std::mutex mutex;
    std::condition_variable ended;
    bool has_ended = false;
    int error = 0;
    Addresses list{nullptr, &::freeaddrinfo};
};

Failure not_found_in_time(const std::string &what, const std::string &host,
                          std::chrono::seconds limit) {
    return {ExitStatus::unreachable,
            "the " + what + " \"" + host + "\" can't be found in " + std::to_string(limit.count()) +
                " s: no name server answers; try again later, or write its address"};
}

} // namespace

Failure not_found(const std::string &what, const std::string &host, int error) {
    return {ExitStatus::unreachable,
            "the " + what + " \"" + host + "\" can't be found: " + ::gai_strerror(error) +
                (error == EAI_AGAIN ? "; try again later, or write its address"
                                    : "; check its name, or write its address")};
}

// An address is there at once. A name is asked for in a thread, which is left behind when it takes
// too long: nothing can end getaddrinfo(3).
Addresses look_up(const std::string &what, const std::string &host, const char *port,
                  const addrinfo &hints, std::chrono::seconds limit, Resolver resolver) {
    addrinfo numeric = hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    addrinfo *list = nullptr;
    if (::getaddrinfo(host.c_str(), port, &numeric, &list) == 0) {
        return {list, &::freeaddrinfo};
    }
    const auto lookup = std::make_shared<Lookup>();
    std::thread([lookup, resolver, host, hints,
                 service = port == nullptr ? std::nullopt : std::optional<std::string>(port)] {
        addrinfo *found = nullptr;
        const int error =
            resolver(host.c_str(), service ? service->c_str() : nullptr, &hints, &found);
        const std::lock_guard lock(lookup->mutex);
        lookup->error = error;
        lookup->list.reset(error == 0 ? found : nullptr);
        lookup->has_ended = true;
        lookup->ended.notify_one();
    }).detach();
    constexpr std::chrono::milliseconds between_looks(100); // for a signal
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::unique_lock lock(lookup->mutex);
    while (!lookup->ended.wait_for(lock, between_looks, [&] { return lookup->has_ended; })) {
        if (interrupting_signal() != 0) {
            throw Interrupted{};
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            throw not_found_in_time(what, host, limit);
        }
    }
    if (lookup->error != 0) {
        throw not_found(what, host, lookup->error);
    }
    return std::move(lookup->list);
}

} // namespace config_copy
