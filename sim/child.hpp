// The command that runs beside the emulator ("torvik-sim ... -- COMMAND ARGS"), as its child.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

namespace sim {

// Starts `argv` with the environment of this process plus `extra_env`, with `sigmask` as its
// signal mask and default dispositions (this process blocks and ignores some). Returns the pid, or
// throws std::system_error.
pid_t spawnChild(const std::vector<std::string>& argv, const std::vector<std::pair<std::string, std::string>>& extra_env,
                 const sigset_t& sigmask);

// Exit status as a shell reports it: the exit code, or 128 + the signal that ended it.
int exitCodeOf(int wait_status);

}  // namespace sim
