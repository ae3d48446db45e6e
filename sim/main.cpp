// torvik-sim: emulates Torvik units for the library's tests and for users without hardware.
// See options.hpp for the command line and control/channel.hpp for the control channel. Once everything
// listens it prints, and flushes:
//   ready
//   control <path of the control socket>
//   unit <class> <addr> cmd=<port> data=<port or -> serial=<serial>     (one line per unit)
// (not when it runs a command: the command learns the same from its environment). It runs until
// SIGINT or SIGTERM (exit 0), or, given a command, until that command ends (its exit
// status; SIGINT/SIGTERM are passed on to it, a second one kills it). The command finds the
// control socket in TORVIK_SIM_CONTROL and the units, as in the unit lines and separated by ';',
// in TORVIK_SIM_UNITS. With USB units or --usb-host it also runs under umockdev's preload with the
// emulated bus (LD_PRELOAD, UMOCKDEV_DIR), and TORVIK_SIM_USB is 1.
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "child.hpp"
#include "control/channel.hpp"
#include "link/discovery.hpp"
#include "link/event_loop.hpp"
#include "options.hpp"
#include "unit.hpp"
#include "link/usb.hpp"
#include "wire/commands.hpp"

namespace {

bool wantsUsb(const sim::Options& opts) {
    if (opts.usb_host) return true;
    for (const auto& u : opts.units)
        if (u.usb) return true;
    return false;
}

// A private directory for the default control socket, removed at exit.
class TempDir {
public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/torvik-sim.XXXXXX";
        if (!mkdtemp(templ.data())) throw std::system_error(errno, std::generic_category(), "mkdtemp " + templ);
        path_ = templ;
    }
    ~TempDir() { rmdir(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

int run(const sim::Options& opts, const sigset_t& original_mask) {
    sim::EventLoop loop;
    const auto epoch = sim::Clock::now();
    std::unique_ptr<sim::DeviceBus> bus;  // outlives the units, which unplug from it
    if (wantsUsb(opts)) bus = sim::makeUsbBus(loop);
    std::vector<std::unique_ptr<sim::Unit>> units;
    for (const auto& cfg : opts.units) {
        units.push_back(std::make_unique<sim::Unit>(loop, cfg, epoch, bus.get()));
        if (opts.echo) units.back()->setFirmware(std::make_unique<sim::EchoFirmware>());
        try {
            units.back()->listen();
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "torvik-sim: cannot listen for %s at %s: %s\n", std::string(cfg.product->class_name).c_str(),
                         cfg.addr_text.c_str(), e.what());
            return 1;
        }
    }

    // Network units answer discovery broadcasts; without the port they are still units.
    sim::DiscoveryPort discovery(loop, units);
    bool networked = false;
    for (const auto& cfg : opts.units) networked = networked || !cfg.usb;
    if (networked) {
        try {
            discovery.open(static_cast<std::uint16_t>(torvik::wire::UDP_SEND_PORT));
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "torvik-sim: no discovery answers: %s\n", e.what());
        }
    }

    std::unique_ptr<TempDir> tmp;
    std::string control_path = opts.control;
    if (control_path.empty()) {
        tmp = std::make_unique<TempDir>();
        control_path = tmp->path() + "/control";
    }
    sim::ControlServer control(loop, units, bus.get(), epoch);
    try {
        control.listen(control_path);
    } catch (const std::system_error& e) {
        std::fprintf(stderr, "torvik-sim: control socket: %s\n", e.what());
        return 1;
    }

    sigset_t handled;
    sigemptyset(&handled);
    for (int sig : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&handled, sig);
    const int sigfd = signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC);
    if (sigfd < 0) {
        std::perror("torvik-sim: signalfd");
        return 1;
    }

    // The readiness lines are for whoever started the emulator; a child learns the same from its
    // environment, and its own output then stands alone.
    std::string unit_list;
    const bool announce = opts.command.empty();
    if (announce) std::printf("ready\ncontrol %s\n", control_path.c_str());
    for (const auto& u : units) {
        if (announce) std::printf("unit %s\n", u->describe().c_str());
        unit_list += (unit_list.empty() ? "" : ";") + u->describe();
    }
    std::fflush(stdout);

    pid_t child = -1;
    int stop_requests = 0;
    if (!opts.command.empty()) {
        std::vector<std::pair<std::string, std::string>> env = {{"TORVIK_SIM_CONTROL", control_path},
                                                                 {"TORVIK_SIM_UNITS", unit_list}};
        if (bus) {
            env.emplace_back("TORVIK_SIM_USB", "1");
            // The preload sleeps after every emulated ioctl; a fine timer slack (inherited across
            // exec) keeps that short.
            prctl(PR_SET_TIMERSLACK, 1UL);
        }
        try {
            child = sim::spawnChild(opts.command, env, original_mask);
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "torvik-sim: %s\n", e.what());
            close(sigfd);
            return 127;
        }
    }

    loop.watch(sigfd, EPOLLIN, [&](std::uint32_t) {
        signalfd_siginfo si;
        while (read(sigfd, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
            if (si.ssi_signo == SIGCHLD) {
                int status = 0;
                if (child > 0 && waitpid(child, &status, WNOHANG) == child) {
                    child = -1;
                    loop.stop(sim::exitCodeOf(status));
                }
            } else if (child > 0) {
                kill(child, ++stop_requests > 1 ? SIGKILL : static_cast<int>(si.ssi_signo));
            } else {
                loop.stop(0);
            }
        }
    });
    const int code = loop.run();
    loop.unwatch(sigfd);
    close(sigfd);
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc && std::string(argv[i]) != "--"; ++i) {
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::fputs(sim::kUsage, stdout);
            return 0;
        }
    }
    sim::Options opts;
    try {
        opts = sim::parseOptions(argc, argv);
    } catch (const sim::UsageError& e) {
        std::fprintf(stderr, "torvik-sim: %s\n%s", e.message.c_str(), sim::kUsage);
        return 2;
    }

    if (wantsUsb(opts)) {
        if (const std::string why = sim::usbUnavailableReason(); !why.empty()) {
            std::fprintf(stderr, "torvik-sim: cannot play USB units: %s\n", why.c_str());
            return 77;
        }
        try {
            sim::runUnderUsbPreload(argv);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "torvik-sim: %s\n", e.what());
            return 1;
        }
    }

    // Signals arrive through a signalfd in the event loop; writes to a vanished host must not kill us.
    sigset_t handled, original;
    sigemptyset(&handled);
    for (int sig : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&handled, sig);
    sigprocmask(SIG_BLOCK, &handled, &original);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        return run(opts, original);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "torvik-sim: %s\n", e.what());
        return 1;
    }
}
