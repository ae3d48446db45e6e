#include "unit.hpp"

#include <arpa/inet.h>

#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "wire/commands.hpp"

namespace sim {

Unit::Unit(EventLoop& loop, UnitConfig config, Clock::time_point epoch, DeviceBus* bus)
    : loop_(loop), config_(std::move(config)), firmware_(makeFirmware(identity())), log_(epoch),
      sender_(std::make_unique<StreamSender>(loop, *this)), uart_sender_(std::make_unique<UartSender>(loop, *this)),
      can_sender_(std::make_unique<CanSender>(loop, *this)) {
    can_sender_->attach();
    if (!config_.can_bus.empty()) can_sender_->setBus(config_.can_bus);
    if (config_.usb) {
        if (!bus) throw std::runtime_error("no USB bus for " + config_.addr_text);
        usb_ = bus->plug(*this, config_.usb_device);
        cmd_ = usb_.get();
        return;
    }
    tcp_ = std::make_unique<TcpPort>(loop, Channel::Cmd, *this);
    cmd_ = tcp_.get();
    if (config_.product->link == torvik::products::Link::Wifi)
        data_ = std::make_unique<TcpPort>(loop, Channel::Data, *this);
}

Unit::~Unit() {
    if (outbox_timer_) loop_.cancel(outbox_timer_);
    on_change = nullptr;
    usb_.reset();  // unplugs while the unit is still whole
}

void Unit::listen() {
    if (!tcp_) return;
    tcp_->listen(config_.addr, config_.cmd_port);
    if (data_) data_->listen(config_.addr, config_.data_port);
}

UnitIdentity Unit::identity() const {
    // A USB unit has no address of its own.
    return UnitIdentity{config_.product, config_.serial, config_.usb ? 0u : ntohl(config_.addr.s_addr)};
}

std::string Unit::describe() const {
    std::string s(className());
    if (config_.usb) return s + ' ' + config_.addr_text + " cmd=- data=- serial=" + config_.serial + " product=" + config_.usb_device.product;
    s += ' ' + config_.addr_text + " cmd=" + std::to_string(cmdPort());
    s += " data=" + (data_ ? std::to_string(dataPort()) : std::string("-"));
    s += " serial=" + config_.serial;
    return s;
}

std::size_t Unit::junk() const {
    std::size_t n = junk_of_closed_;
    for (const auto& [link, parser] : parsers_) n += parser.junk();
    return n;
}

Transport* Unit::transport(Channel channel) {
    if (channel == Channel::Cmd) return cmd_;
    if (channel == Channel::Data) return data_.get();
    return nullptr;
}

std::vector<Bytes> Unit::answerBroadcast(const Frame& request) {
    if (config_.usb) return {};
    ++counters_.frames;
    log_.add(Channel::Udp, 0, request);
    changed();
    if (faults_.silent()) return {};
    std::optional<Bytes> payload;
    if (const auto* scripted = faults_.scripted(request.code))
        payload = *scripted;
    else
        payload = firmware_->broadcast(request.code, request.payload, [this](std::uint32_t ip) { return moveTo(ip); });
    if (!payload) return {};
    counters_.replies += broadcast_copies_;
    return std::vector<Bytes>(broadcast_copies_, encodeUnitFrame(request.code, *payload));
}

bool Unit::moveTo(std::uint32_t ipv4) {
    if (!tcp_) return false;
    in_addr addr{};
    addr.s_addr = htonl(ipv4);
    if (addr.s_addr == config_.addr.s_addr) return true;  // a repeated request finds it there already
    int cmd_fd = -1, data_fd = -1;
    try {
        cmd_fd = tcp_->bind(addr, tcp_->port());
        if (data_) data_fd = data_->bind(addr, data_->port());
    } catch (const std::system_error&) {
        if (cmd_fd >= 0) close(cmd_fd);
        return false;
    }
    tcp_->adopt(cmd_fd);
    if (data_) data_->adopt(data_fd);
    config_.addr = addr;
    char text[INET_ADDRSTRLEN];
    config_.addr_text = inet_ntop(AF_INET, &addr, text, sizeof text);
    changed();
    return true;
}

bool Unit::writeNow(Channel channel, std::span<const std::uint8_t> bytes) {
    Transport* p = transport(channel);
    Link* link = p ? p->newest() : nullptr;
    if (!link) return false;
    link->send(bytes);
    return true;
}

std::size_t Unit::finish(Channel channel) {
    Transport* p = transport(channel);
    if (!p) return 0;
    auto links = p->links();
    for (Link* l : links) l->finish();
    return links.size();
}

std::size_t Unit::abort(Channel channel) {
    Transport* p = transport(channel);
    if (!p) return 0;
    auto links = p->links();
    for (Link* l : links) l->abort();
    return links.size();
}

void Unit::linkOpened(Link& link) {
    parsers_.try_emplace(&link);
    sender_->poke();  // a stream may have waited for a link
    can_sender_->poke();
    uart_sender_->poke();
    changed();
}

void Unit::linkClosed(Link& link) {
    if (auto it = parsers_.find(&link); it != parsers_.end()) {
        junk_of_closed_ += it->second.junk();
        parsers_.erase(it);
    }
    sender_->linkClosed();
    can_sender_->linkClosed();
    uart_sender_->linkClosed();
    changed();
}

void Unit::linkDrained(Link&) {
    sender_->linkDrained();
    can_sender_->linkDrained();
    uart_sender_->linkDrained();
}

void Unit::linkReceived(Link& link, std::span<const std::uint8_t> bytes) {
    auto frames = parsers_[&link].feed(bytes);
    for (auto& frame : frames) {
        ++counters_.frames;
        log_.add(link.channel(), link.id(), frame);
        // A silent unit hears but does not act, as a hung firmware would.
        if (faults_.silent()) continue;
        if (const auto* scripted = faults_.scripted(frame.code)) {
            if (*scripted) queueReply(link, Frame{frame.code, **scripted}, false);
            continue;
        }
        for (auto& reply : firmware_->handle(Request{frame.code, std::move(frame.payload), link.channel()})) {
            const bool stream = torvik::wire::isStreamingCommand(reply.code);
            queueReply(link, std::move(reply), !stream);
        }
    }
    if (!frames.empty()) {
        sender_->poke();  // the requests may have started or stopped a stream
        can_sender_->poke();
        uart_sender_->poke();
        changed();
    }
}

void Unit::queueReply(Link& link, Frame reply, bool padded) {
    const Shaping shaping = faults_.shape(reply, firmware_->statusIndex(reply.code));
    if (shaping.drop) {
        ++counters_.dropped;
        return;
    }
    Clock::time_point due = Clock::now() + shaping.delay;
    if (!outbox_.empty()) due = std::max(due, outbox_.back().due);
    Bytes bytes = encodeUnitFrame(reply.code, reply.payload);
    // A firmware that works with this host pads a reply the host would otherwise cut short (a
    // start byte in the payload whose length field points at the terminator).
    for (int pads = 0; padded && pads < 4 && !hostTakesWhole(bytes); ++pads) {
        reply.payload.push_back(0);
        bytes = encodeUnitFrame(reply.code, reply.payload);
        ++counters_.padded;
    }
    for (int i = 0; i < shaping.copies; ++i) outbox_.push_back(Pending{due, link.channel(), link.id(), bytes});
    pump();
}

// Sends every reply that is due, then sleeps until the next one.
void Unit::pump() {
    if (outbox_timer_) {
        loop_.cancel(outbox_timer_);
        outbox_timer_ = 0;
    }
    const auto now = Clock::now();
    while (!outbox_.empty() && outbox_.front().due <= now) {
        Pending p = std::move(outbox_.front());
        outbox_.pop_front();
        Transport* tp = transport(p.channel);
        Link* link = tp ? tp->find(p.link) : nullptr;
        if (link && link->writable() && !faults_.silent()) {
            link->send(p.bytes);
            ++counters_.replies;
        } else {
            ++counters_.lost;
        }
    }
    if (!outbox_.empty())
        outbox_timer_ = loop_.at(outbox_.front().due, [this] {
            outbox_timer_ = 0;
            pump();
        });
}

}  // namespace sim
