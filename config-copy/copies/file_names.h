// The files that the agents of a run write, so that no two of them write the same one.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace config_copy {

class FileNames {
  public:
    // Takes the name for the agent, unless another agent has it: then returns that agent. Any
    // thread may call it.
    std::optional<std::string> taken(const std::string &file, const std::string &agent) {
        const std::lock_guard lock(mutex_);
        const auto &[name, owner] = *agents_.emplace(file, agent).first;
        return owner == agent ? std::nullopt : std::optional(owner);
    }

  private:
    std::mutex mutex_;
    std::map<std::string, std::string> agents_;
};

} // namespace config_copy
