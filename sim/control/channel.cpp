#include "control/channel.hpp"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <sstream>
#include <system_error>

#include "control/analog.hpp"
#include "control/can.hpp"
#include "control/bus.hpp"
#include "control/firmware.hpp"
#include "control/thermal.hpp"
#include "options.hpp"
#include "wire/commands.hpp"

namespace sim {

namespace {

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// A failed argument; its text is the reason in "err <reason>".
struct BadRequest {
    std::string reason;
};

unsigned long number(const std::string& text, unsigned long max, const char* what) {
    unsigned long v = 0;
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v, base);
    if (ec != std::errc{} || end != digits.data() + digits.size() || v > max)
        throw BadRequest{std::string("bad ") + what + " '" + text + "'"};
    return v;
}

std::uint16_t code(const std::string& text) {
    for (const auto& row : torvik::wire::kCommandTable)
        if (row.name == text) return static_cast<std::uint16_t>(row.value);
    return static_cast<std::uint16_t>(number(text, 0xFFFF, "code"));
}

Bytes hex(const std::string& text) {
    auto bytes = fromHex(text);
    if (!bytes) throw BadRequest{"bad hex '" + text + "'"};
    return *bytes;
}

Clock::duration seconds(const std::string& text) {
    char* end = nullptr;
    double s = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(s) || s < 0 || s > 86400)
        throw BadRequest{"bad seconds '" + text + "'"};
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

Channel channel(const std::string& text) {
    if (text == "cmd") return Channel::Cmd;
    if (text == "data") return Channel::Data;
    throw BadRequest{"bad channel '" + text + "'"};
}

// "key=value" words after the fixed ones.
std::optional<std::string> option(const std::vector<std::string>& w, std::size_t from, const std::string& key) {
    for (std::size_t i = from; i < w.size(); ++i)
        if (w[i].rfind(key + "=", 0) == 0) return w[i].substr(key.size() + 1);
    return std::nullopt;
}

void need(const std::vector<std::string>& w, std::size_t n, const char* usage) {
    if (w.size() < n) throw BadRequest{std::string("usage: ") + usage};
}

}  // namespace

ControlServer::ControlServer(EventLoop& loop, std::vector<std::unique_ptr<Unit>>& units, DeviceBus* bus,
                             Clock::time_point epoch)
    : loop_(loop), units_(units), bus_(bus), epoch_(epoch) {
    for (auto& u : units_) {
        u->on_change = [this] { recheck(); };
        if (u->config().usb) ++usb_units_;
    }
}

std::string ControlServer::addUnit(const std::vector<std::string>& w) {
    need(w, 3, "add usb CLASS:SERIAL[,product=TEXT][,transfer=bulk|interrupt]");
    if (w[1] != "usb") throw BadRequest{"only USB units can be added at run time"};
    if (!bus_) throw BadRequest{"no USB bus here (start torvik-sim with --usb-host)"};
    UnitConfig cfg;
    try {
        cfg = parseUsbUnit(w[2], usb_units_ + 1);
    } catch (const UsageError& e) {
        throw BadRequest{e.message};
    }
    std::unique_ptr<Unit> unit;
    try {
        unit = std::make_unique<Unit>(loop_, cfg, epoch_, bus_);
    } catch (const std::exception& e) {
        throw BadRequest{e.what()};
    }
    ++usb_units_;
    unit->on_change = [this] { recheck(); };
    units_.push_back(std::move(unit));
    return "ok " + units_.back()->describe();
}

void ControlServer::removeUnit(Unit* unit) {
    for (auto it = waiters_.begin(); it != waiters_.end();) {
        auto next = std::next(it);
        if (it->unit == unit) finishWait(it, "err unit removed");
        it = next;
    }
    for (auto it = units_.begin(); it != units_.end(); ++it) {
        if (it->get() == unit) {
            std::shared_ptr<Unit> doomed(std::move(*it));
            units_.erase(it);
            doomed->on_change = nullptr;
            loop_.defer([doomed] {});  // one of its handlers may be on the stack
            return;
        }
    }
}

ControlServer::~ControlServer() {
    for (auto& u : units_) u->on_change = nullptr;
    for (auto& w : waiters_) loop_.cancel(w.timer);
    for (auto& c : clients_) {
        loop_.unwatch(c->fd);
        close(c->fd);
    }
    if (fd_ >= 0) {
        loop_.unwatch(fd_);
        close(fd_);
        unlink(path_.c_str());
    }
}

void ControlServer::listen(const std::string& path) {
    sockaddr_un sa{};
    if (path.size() >= sizeof sa.sun_path)
        throw std::system_error(ENAMETOOLONG, std::generic_category(), "control socket path");
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "socket");
    sa.sun_family = AF_UNIX;
    std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0)
        throw std::system_error(errno, std::generic_category(), "bind " + path);
    path_ = path;  // ours to remove from now on
    if (::listen(fd_, 16) < 0) throw std::system_error(errno, std::generic_category(), "listen");
    loop_.watch(fd_, EPOLLIN, [this](std::uint32_t) { onAccept(); });
}

void ControlServer::onAccept() {
    for (;;) {
        int fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        clients_.push_back(std::make_unique<Client>());
        Client* c = clients_.back().get();
        c->fd = fd;
        loop_.watch(fd, EPOLLIN, [this, c](std::uint32_t ev) { onClient(c, ev); });
    }
}

void ControlServer::onClient(Client* c, std::uint32_t events) {
    if (events & EPOLLOUT) flush(c);
    if (c->fd < 0 || !(events & (EPOLLIN | EPOLLHUP | EPOLLERR))) return;
    char buf[4096];
    ssize_t n = recv(c->fd, buf, sizeof buf, 0);
    if (n <= 0) {
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
        drop(c);
        return;
    }
    c->in.append(buf, static_cast<std::size_t>(n));
    process(c);
}

void ControlServer::process(Client* c) {
    while (c->fd >= 0 && !c->waiting) {
        auto nl = c->in.find('\n');
        if (nl == std::string::npos) return;
        std::string line = c->in.substr(0, nl);
        c->in.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::optional<std::string> reply;
        try {
            reply = execute(c, line);
        } catch (const BadRequest& e) {
            reply = "err " + e.reason;
        }
        if (reply) respond(c, *reply);
    }
}

void ControlServer::respond(Client* c, const std::string& line) {
    c->out += line;
    c->out += '\n';
    flush(c);
}

void ControlServer::flush(Client* c) {
    while (!c->out.empty()) {
        ssize_t n = send(c->fd, c->out.data(), c->out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) break;
            drop(c);
            return;
        }
        c->out.erase(0, static_cast<std::size_t>(n));
    }
    loop_.modify(c->fd, c->out.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

void ControlServer::drop(Client* c) {
    for (auto it = waiters_.begin(); it != waiters_.end();) {
        if (it->client == c) {
            loop_.cancel(it->timer);
            it = waiters_.erase(it);
        } else {
            ++it;
        }
    }
    loop_.unwatch(c->fd);
    close(c->fd);
    c->fd = -1;
    for (auto it = clients_.begin(); it != clients_.end(); ++it) {
        if (it->get() == c) {
            std::shared_ptr<Client> doomed(std::move(*it));
            clients_.erase(it);
            loop_.defer([doomed] {});  // its handler may be on the stack
            break;
        }
    }
}

void ControlServer::finishWait(std::list<Waiter>::iterator it, const std::string& line) {
    Client* c = it->client;
    loop_.cancel(it->timer);
    waiters_.erase(it);
    c->waiting = false;
    respond(c, line);
    if (c->fd >= 0) loop_.defer([this, c] {
        for (auto& live : clients_)
            if (live.get() == c) process(c);
    });
}

void ControlServer::recheck() {
    for (auto it = waiters_.begin(); it != waiters_.end();) {
        auto next = std::next(it);
        if (it->done()) finishWait(it, "ok");
        it = next;
    }
}

std::optional<std::string> ControlServer::execute(Client* client, const std::string& line) {
    const auto w = words(line);
    if (w.empty()) throw BadRequest{"empty request"};
    const std::string& verb = w[0];
    if (verb == "ping") return "ok";
    if (verb == "units") {
        std::string out = "ok ";
        for (std::size_t i = 0; i < units_.size(); ++i) out += (i ? ";" : "") + units_[i]->describe();
        return out;
    }

    if (verb == "add") return addUnit(w);

    need(w, 2, "VERB SEL ...");
    Unit* unit = nullptr;
    for (auto& u : units_) {
        const auto& cfg = u->config();
        const bool by_port = !cfg.usb && w[1] == cfg.addr_text + ":" + std::to_string(u->cmdPort());
        if (by_port || w[1] == cfg.serial || w[1] == cfg.addr_text) {
            if (unit && !by_port)
                throw BadRequest{"several units match " + w[1] + ", give ADDR:PORT or usb:N"};
            unit = u.get();
        }
    }
    if (!unit) throw BadRequest{"no unit '" + w[1] + "'"};
    Faults& faults = unit->faults();

    auto channelArg = [&](std::size_t i) {
        Channel ch = i < w.size() ? channel(w[i]) : Channel::Cmd;
        if (!unit->transport(ch)) throw BadRequest{"unit has no data channel"};
        return ch;
    };
    auto eachChannel = [&](std::size_t i, auto&& fn) {
        if (i < w.size() && w[i] == "both") {
            fn(Channel::Cmd);
            if (unit->hasData()) fn(Channel::Data);
        } else {
            fn(channelArg(i));
        }
    };

    if (verb == "reply") {
        need(w, 4, "reply SEL CODE HEX|none|default");
        const std::uint16_t c = code(w[2]);
        if (w[3] == "none")
            faults.setReply(c, std::nullopt);
        else if (w[3] == "default")
            faults.clearReply(c);
        else
            faults.setReply(c, hex(w[3]));
        return "ok";
    }
    if (verb == "status") {
        need(w, 3, "status SEL BYTE next=N | status SEL BYTE code=CODE | status SEL clear");
        if (w[2] == "clear") {
            faults.clearStatus();
            return "ok";
        }
        const auto value = static_cast<std::uint8_t>(number(w[2], 255, "status"));
        if (auto n = option(w, 3, "next"))
            faults.statusNext(value, static_cast<unsigned>(number(*n, 1000000, "count")));
        else if (auto c = option(w, 3, "code"))
            faults.statusFor(code(*c), value);
        else
            throw BadRequest{"status needs next=N or code=CODE"};
        return "ok";
    }
    if (verb == "delay") {
        need(w, 3, "delay SEL SECONDS [next=N]");
        const auto d = seconds(w[2]);
        if (auto n = option(w, 3, "next"))
            faults.delayNext(d, static_cast<unsigned>(number(*n, 1000000, "count")));
        else
            faults.delayAll(d);
        return "ok";
    }
    if (verb == "drop" || verb == "dup") {
        need(w, 3, "drop|dup SEL N");
        const auto n = static_cast<unsigned>(number(w[2], 1000000, "count"));
        if (verb == "drop")
            faults.dropNext(n);
        else
            faults.duplicateNext(n);
        return "ok";
    }
    if (verb == "send" || verb == "frame") {
        need(w, verb == "send" ? 4 : 5, "send SEL CHAN HEX | frame SEL CHAN CODE HEX");
        const Channel ch = channelArg(2);
        const Bytes bytes = verb == "send" ? hex(w[3]) : encodeUnitFrame(code(w[3]), hex(w[4]));
        if (!unit->writeNow(ch, bytes)) return "err no open " + std::string(channelName(ch)) + " link";
        return "ok";
    }
    if (verb == "shutdown" || verb == "reset") {
        eachChannel(2, [&](Channel ch) { verb == "shutdown" ? unit->finish(ch) : unit->abort(ch); });
        return "ok";
    }
    if (verb == "silent" || verb == "resume") {
        faults.setSilent(verb == "silent");
        unit->uartSender().poke();  // what the serial ports held back goes out
        return "ok";
    }
    if (verb == "clear") {
        faults.clear();
        unit->sender().clearFaults();
        unit->canSender().clearFaults();
        clearBusFaults(*unit);
        return "ok";
    }
    if (verb == "discovery") {
        if (auto n = option(w, 2, "copies")) unit->setBroadcastCopies(static_cast<unsigned>(number(*n, 100, "copies")));
        return "ok copies=" + std::to_string(unit->broadcastCopies()) + " heard=" + std::to_string(unit->log().countOn(Channel::Udp));
    }
    if (verb == "log") return "ok " + unit->log().json();
    if (verb == "clearlog") {
        unit->log().clear();
        unit->transport(Channel::Cmd)->clearTransfers();
        return "ok";
    }
    if (verb == "remove" || verb == "unplug" || verb == "replug" || verb == "transfers") {
        if (!unit->config().usb) throw BadRequest{"'" + verb + "' is for USB units"};
        Transport* port = unit->transport(Channel::Cmd);
        if (verb == "remove") {
            removeUnit(unit);
            return "ok";
        }
        if (verb == "transfers") {
            std::string out = "ok";
            for (const auto& t : port->transfers()) out += " " + toHex(t);
            return out;
        }
        if (!port->setPlugged(verb == "replug")) return "err already " + std::string(verb == "replug" ? "plugged" : "unplugged");
        return "ok";
    }
    if (verb == "stats") {
        const auto& k = unit->counters();
        std::ostringstream out;
        out << "ok";
        for (Channel ch : {Channel::Cmd, Channel::Data}) {
            Transport* p = unit->transport(ch);
            out << ' ' << channelName(ch) << ".accepted=" << (p ? p->accepted() : 0) << ' ' << channelName(ch)
                << ".open=" << (p ? p->open() : 0);
        }
        out << " frames=" << k.frames << " replies=" << k.replies << " dropped=" << k.dropped << " lost=" << k.lost << " padded=" << k.padded
            << " junk=" << unit->junk() << unit->transport(Channel::Cmd)->statsFields() << streamStats(*unit);
        return out.str();
    }
    if (verb == "wait") {
        need(w, 3, "wait SEL open|closed|accepted N|frames N ...");
        const std::string& what = w[2];
        std::size_t rest = 3;
        std::uint64_t n = 0;
        if (what == "accepted" || what == "frames") {
            need(w, 4, "wait SEL accepted|frames N ...");
            n = number(w[3], 1000000000, "count");
            rest = 4;
        } else if (what != "open" && what != "closed") {
            throw BadRequest{"unknown condition '" + what + "'"};
        }
        Channel ch = Channel::Cmd;
        for (std::size_t i = rest; i < w.size(); ++i)
            if (w[i] == "cmd" || w[i] == "data") ch = channelArg(i);
        const auto timeout = seconds(option(w, rest, "timeout").value_or("5"));
        std::function<bool()> done;
        Transport* port = unit->transport(ch);
        if (what == "open")
            done = [port] { return port->open() > 0; };
        else if (what == "closed")
            done = [port] { return port->open() == 0; };
        else if (what == "accepted")
            done = [port, n] { return port->accepted() >= n; };
        else if (auto c = option(w, rest, "code"); c) {
            const std::uint16_t cc = code(*c);
            done = [unit, n, cc] { return unit->log().count(cc) >= n; };
        } else {
            done = [unit, n] { return unit->log().count() >= n; };
        }
        if (done()) return "ok";
        client->waiting = true;
        waiters_.push_back(Waiter{client, unit, std::move(done), 0});
        auto it = std::prev(waiters_.end());
        it->timer = loop_.after(timeout, [this, it] { finishWait(it, "err timeout"); });
        return std::nullopt;
    }
    if (auto response = firmwareControl(*unit, w)) return *response;
    if (auto response = analogControl(*unit, w)) return *response;
    if (auto response = canControl(*unit, w)) return *response;
    if (auto response = thermalControl(*unit, w)) return *response;
    if (auto response = busControl(*unit, w)) return *response;
    throw BadRequest{"unknown request '" + verb + "'"};
}

}  // namespace sim
