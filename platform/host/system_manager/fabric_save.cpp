#include "platform/host/system_manager/fabric_save.h"

#include "base/posix.h"
#include "base/unique_fd.h"
#include "copy_client/session.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/member_save.h"

#include <sys/eventfd.h>

#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace ulmo {
namespace {

using Clock = std::chrono::steady_clock;

// in addition to a thread's own limit, in case the thread exceeds it
constexpr std::chrono::seconds ending_time{2};

// The outcome of each member. The threads share it, so that it stays valid for a thread that is
// left behind.
class Outcomes {
  public:
    explicit Outcomes(std::size_t count)
        : outcomes_(count),
          ended_(check(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "saving the fabric")) {}

    void set(std::size_t member, std::string words, std::string error) {
        const std::lock_guard lock(mutex_);
        outcomes_[member] = {std::move(words), std::move(error)};
        ++known_;
        ::eventfd_write(ended_.get(), 1);
    }

    // Waits until all are known or `end` has passed. Throws copy_client::Stopped as soon as `stop`
    // is readable.
    void await(Clock::time_point end, int stop) {
        while (!is_all_known() && Clock::now() < end) {
            copy_client::wait_for_input(
                ended_.get(), stop,
                std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()));
            eventfd_t count = 0;
            ::eventfd_read(ended_.get(), &count);
        }
    }

    // The outcome in words, and the error to log; both empty if the outcome is not known.
    std::pair<std::string, std::string> of(std::size_t member) {
        const std::lock_guard lock(mutex_);
        return outcomes_[member];
    }

  private:
    bool is_all_known() {
        const std::lock_guard lock(mutex_);
        return known_ == outcomes_.size();
    }

    std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> outcomes_;
    std::size_t known_ = 0;
    UniqueFd ended_;
};

void start(const std::shared_ptr<Outcomes> &outcomes, std::size_t number,
           const FabricMember &member, std::chrono::seconds limit, int stop, MemberSave save) {
    try {
        std::thread([=] {
            try {
                outcomes->set(number, save(member, limit, stop), "");
            } catch (const std::exception &error) {
                outcomes->set(number, "", error.what());
            }
        }).detach();
    } catch (const std::system_error &error) {
        outcomes->set(number, "", error.what());
    }
}

} // namespace

std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members,
                                             std::chrono::seconds limit, int stop,
                                             MemberSave save) {
    const auto outcomes = std::make_shared<Outcomes>(members.size());
    for (std::size_t i = 0; i < members.size(); ++i) {
        start(outcomes, i, members[i], limit, stop, save);
    }
    bool is_given_up = false;
    try {
        outcomes->await(Clock::now() + limit + ending_time, stop);
    } catch (const copy_client::Stopped &) {
        is_given_up = true;
        outcomes->await(Clock::now() + ending_time, -1);
    }
    std::vector<FabricSwitchStatus> switches;
    for (std::size_t i = 0; i < members.size(); ++i) {
        auto [words, error] = outcomes->of(i);
        if (words.empty() && error.empty() && is_given_up) {
            words = save_given_up;
        } else if (words.empty()) {
            log_error("saving %s: %s", wwn_to_text(members[i].wwn).c_str(),
                      error.empty() ? "it does not end" : error.c_str());
            words = "internal error";
        }
        switches.push_back({members[i].wwn, false, members[i].address, std::move(words)});
    }
    return switches;
}

std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members,
                                             std::chrono::seconds limit, int stop) {
    copy_client::set_up_library("wardend");
    return save_members(members, limit, stop, save_member);
}

} // namespace ulmo
