#include "child.hpp"

#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <system_error>

extern char** environ;

namespace sim {

pid_t spawnChild(const std::vector<std::string>& argv, const std::vector<std::pair<std::string, std::string>>& extra_env,
                 const sigset_t& sigmask) {
    std::vector<std::string> env_store;
    for (char** e = environ; *e; ++e) {
        bool replaced = false;
        for (const auto& [k, v] : extra_env)
            if (std::strncmp(*e, k.c_str(), k.size()) == 0 && (*e)[k.size()] == '=') replaced = true;
        if (!replaced) env_store.emplace_back(*e);
    }
    for (const auto& [k, v] : extra_env) env_store.push_back(k + "=" + v);

    std::vector<char*> env, args;
    for (auto& s : env_store) env.push_back(s.data());
    env.push_back(nullptr);
    std::vector<std::string> argv_store = argv;
    for (auto& s : argv_store) args.push_back(s.data());
    args.push_back(nullptr);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int sig : {SIGPIPE, SIGINT, SIGTERM, SIGCHLD}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setsigmask(&attr, &sigmask);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, args[0], nullptr, &attr, args.data(), env.data());
    posix_spawnattr_destroy(&attr);
    if (rc != 0) throw std::system_error(rc, std::generic_category(), "cannot run " + argv[0]);
    return pid;
}

int exitCodeOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}

}  // namespace sim
