#include "link/usb.hpp"

#include <endian.h>
#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <pty.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>

#include "link/umockdev_api.hpp"
#include "wire/commands.hpp"

namespace sim {

using namespace um;

namespace {

constexpr const char* kPreloadMarker = "TORVIK_SIM_UNDER_PRELOAD";
constexpr std::size_t kPacket = torvik::wire::USB_PKT_SIZE;
constexpr std::size_t kTransfersKept = 512;
constexpr int kUnitsPerBus = 120;  // device numbers 2..121 on each emulated bus

// A URB the host submitted, resolved into this process: the struct and its buffer.
struct Urb {
    UMockdevIoctlData* data = nullptr;  // owned reference
    UMockdevIoctlData* buf = nullptr;   // child of data
    usbdevfs_urb* u() const { return reinterpret_cast<usbdevfs_urb*>(data->data); }
};

void freeUrb(Urb* urb) {
    g_object_unref(urb->data);
    delete urb;
}

// One open of the device node by the host (one libusb device handle).
struct HostOpen {
    std::deque<Urb*> pending_in;  // IN URBs waiting for data
    std::deque<Urb*> reapable;    // completed, not yet reaped
    std::deque<Bytes> in_packets; // packets the unit sent, waiting for an IN URB
    const void* key = nullptr;    // the client, as events name this open
    // Sends of the unit's link pushed so far, and the last one whose packets were all taken.
    std::uint64_t pushed = 0, drained = 0;
};

class Bus;
class Port;

// One device on the bus: fixed facts, then the state the ioctl handler keeps (guarded by
// Bus::m_), then the port it belongs to (event loop only).
struct Device {
    Bus* bus = nullptr;
    UsbDeviceConfig config;
    int busnum = 1, devnum = 2;
    std::string syspath, devnode;
    Bytes dev_desc, cfg_desc;

    int pty_master = -1, pty_slave = -1;
    bool flow_on = true;
    bool gone = false;
    bool driver_bound = true;  // a kernel driver claims interface 0 until the host detaches it
    std::map<const void*, HostOpen> opens;

    Port* port = nullptr;
};

// What the handler thread tells the event loop.
struct Event {
    enum class Kind { Open, Data, Close, Drained } kind;
    Device* device;  // the bus keeps every device
    const void* open;
    Bytes bytes;
    std::uint64_t sends = 0;  // Drained: the host took the packets of this many sends
};

Bytes deviceDescriptor() {
    using namespace torvik::wire;
    return {18, USB_DT_DEVICE, 0x00, 0x02, 0, 0, 0, 64,
            static_cast<std::uint8_t>(USB_VID & 0xFF), static_cast<std::uint8_t>(USB_VID >> 8),
            static_cast<std::uint8_t>(USB_PID & 0xFF), static_cast<std::uint8_t>(USB_PID >> 8),
            0x00, 0x01, 1, 2, 3, 1};
}

Bytes configDescriptor(bool interrupt) {
    using namespace torvik::wire;
    const std::uint8_t type = interrupt ? USB_ENDPOINT_XFER_INT : USB_ENDPOINT_XFER_BULK;
    const std::uint8_t interval = interrupt ? 1 : 0;
    return {9, USB_DT_CONFIG, 32, 0, 1, 1, 0, 0x80, 50,          // one configuration, 32 bytes in all
            9, USB_DT_INTERFACE, 0, 0, 2, 0xFF, 0, 0, 0,         // interface 0, two endpoints
            7, USB_DT_ENDPOINT, static_cast<std::uint8_t>(USB_EP_IN), type, kPacket, 0, interval,
            7, USB_DT_ENDPOINT, static_cast<std::uint8_t>(USB_EP_OUT), type, kPacket, 0, interval};
}

Bytes stringDescriptor(const std::string& s) {
    Bytes d{static_cast<std::uint8_t>(std::min<std::size_t>(2 + 2 * s.size(), 254)), USB_DT_STRING};
    for (std::size_t i = 0; i < s.size() && d.size() < 254; ++i) {
        d.push_back(static_cast<std::uint8_t>(s[i]));
        d.push_back(0);
    }
    return d;
}

// Frames of the unit as USB packets: 64 bytes each, the last one padded with zeros.
std::deque<Bytes> toPackets(std::span<const std::uint8_t> bytes) {
    std::deque<Bytes> out;
    for (std::size_t at = 0; at < bytes.size(); at += kPacket) {
        Bytes p(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), at + kPacket)));
        p.resize(kPacket, 0);
        out.push_back(std::move(p));
    }
    return out;
}

class UsbLink;

class Port final : public Transport {
public:
    Port(Bus& bus, LinkEvents& events, UsbDeviceConfig config);
    ~Port() override;

    Channel channel() const override { return Channel::Cmd; }
    Link* find(std::uint64_t id) const override;
    Link* newest() const override;
    std::vector<Link*> links() const override;
    std::uint64_t accepted() const override { return accepted_; }
    std::size_t open() const override { return links_.size(); }
    bool setPlugged(bool plugged) override;
    bool plugged() const override { return device_ != nullptr; }
    std::string statsFields() const override;
    std::vector<Bytes> transfers() const override { return {transfers_.begin(), transfers_.end()}; }
    void clearTransfers() override { transfers_.clear(); }

    void handle(Event& e);
    Bus& bus() { return bus_; }

private:
    UsbLink* byOpen(const Device* device, const void* open) const;

    Bus& bus_;
    LinkEvents& events_;
    UsbDeviceConfig config_;
    std::shared_ptr<Device> device_;                   // null while unplugged
    std::vector<std::shared_ptr<Device>> devices_;     // every device this unit was, for their links
    std::vector<std::unique_ptr<UsbLink>> links_;      // open ones, oldest first
    std::uint64_t accepted_ = 0;
    std::deque<Bytes> transfers_;
};

class Bus final : public DeviceBus {
public:
    explicit Bus(EventLoop& loop);
    ~Bus() override;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    std::unique_ptr<Transport> plug(LinkEvents& events, const UsbDeviceConfig& config) override {
        return std::make_unique<Port>(*this, events, config);
    }

    // Event loop side.
    std::shared_ptr<Device> attach(const UsbDeviceConfig& config, Port* port);
    void detach(Device& device);
    // Runs fn with the device state's lock on the handler thread, where the URBs live; inline
    // while that thread has not shown itself (then no host has opened anything yet).
    void onHandlerThread(std::function<void()> fn, bool wait);

    // Handler thread side.
    void post(Event e);
    void noteHandlerThread() {
        if (!worker_.load()) worker_.store(g_main_context_ref(g_main_context_get_thread_default()));
    }

    std::mutex m_;  // guards the handler-side state of every device

private:
    void drain();

    EventLoop& loop_;
    UMockdevTestbed* testbed_ = nullptr;
    std::atomic<GMainContext*> worker_{nullptr};
    int wake_fd_ = -1;
    std::mutex queue_m_;
    std::deque<Event> queue_;  // guarded by queue_m_
    // Every device ever attached: its handler stays attached to its node (umockdev cannot attach
    // a node twice), so a replug gets a new address, as on a real bus.
    std::vector<std::shared_ptr<Device>> devices_;
    int next_ = 0;
};

class UsbLink final : public Link {
public:
    UsbLink(Port& port, std::shared_ptr<Device> device, const void* open, std::uint64_t id)
        : port_(port), device_(std::move(device)), open_(open), id_(id) {}

    std::uint64_t id() const override { return id_; }
    Channel channel() const override { return Channel::Cmd; }
    bool writable() const override { return !finished_ && !unplugged_; }
    void send(std::span<const std::uint8_t> bytes) override;
    // Bytes sent whose packets the host has not all taken yet, so that a stream waits for its drain.
    std::size_t backlog() const override { return queued_; }
    void finish() override { finished_ = true; }
    void abort() override;

    void unplugged() { unplugged_ = true; }
    // The host took every packet of the first `sends` sends: true if none is left.
    bool drained(std::uint64_t sends) {
        if (sends != sends_ || queued_ == 0) return false;
        queued_ = 0;
        return true;
    }
    const Device* device() const { return device_.get(); }
    const void* openKey() const { return open_; }

private:
    Port& port_;
    std::shared_ptr<Device> device_;
    const void* open_;
    std::uint64_t id_;
    bool finished_ = false;
    bool unplugged_ = false;
    std::size_t queued_ = 0;
    std::uint64_t sends_ = 0;
};

// ---- handler thread: URBs ---------------------------------------------------------------------

// The pty's output flow stands stopped while nothing is ready to reap, so the host's poll sleeps.
void updateFlow(Device& d) {
    if (d.pty_slave < 0) return;
    bool any = false;
    for (auto& [key, open] : d.opens) any = any || !open.reapable.empty();
    if (any != d.flow_on) {
        tcflow(d.pty_slave, any ? TCOON : TCOOFF);
        d.flow_on = any;
    }
}

void finishUrb(HostOpen& open, Urb* urb, int status, int actual) {
    urb->u()->status = status;
    urb->u()->actual_length = actual;
    open.reapable.push_back(urb);
}

// Fills waiting IN URBs with packets: whole packets until the buffer is full or a short one ends it.
void pump(Device& d, HostOpen& open) {
    while (!open.in_packets.empty() && !open.pending_in.empty()) {
        Urb* urb = open.pending_in.front();
        open.pending_in.pop_front();
        const std::size_t room = urb->buf ? static_cast<std::size_t>(urb->u()->buffer_length) : 0;
        std::size_t filled = 0;
        while (!open.in_packets.empty() && filled < room) {
            Bytes& p = open.in_packets.front();
            const std::size_t n = std::min(p.size(), room - filled);
            std::memcpy(urb->buf->data + filled, p.data(), n);
            filled += n;
            if (n < p.size()) {  // the rest waits for the next URB
                p.erase(p.begin(), p.begin() + static_cast<std::ptrdiff_t>(n));
                break;
            }
            const bool short_packet = p.size() < kPacket;
            open.in_packets.pop_front();
            if (short_packet) break;
        }
        finishUrb(open, urb, 0, static_cast<int>(filled));
    }
    if (open.in_packets.empty() && open.drained != open.pushed) {
        open.drained = open.pushed;
        d.bus->post(Event{Event::Kind::Drained, &d, open.key, {}, open.pushed});
    }
    updateFlow(d);
}

void answerControl(const Device& d, const usbdevfs_urb& u, std::uint8_t* buf, int& status, int& actual) {
    const auto* setup = reinterpret_cast<const usb_ctrlrequest*>(buf);
    const std::uint16_t value = le16toh(setup->wValue), length = le16toh(setup->wLength);
    status = 0;
    actual = 0;
    if (!(setup->bRequestType & USB_DIR_IN)) return;  // OUT requests are taken silently
    if (setup->bRequest != USB_REQ_GET_DESCRIPTOR) {
        status = -EPIPE;
        return;
    }
    const std::uint8_t type = value >> 8, index = value & 0xFF;
    Bytes reply;
    if (type == USB_DT_DEVICE) {
        reply = d.dev_desc;
    } else if (type == USB_DT_CONFIG) {
        reply = d.cfg_desc;
    } else if (type == USB_DT_STRING && index == 0) {
        reply = {4, USB_DT_STRING, 0x09, 0x04};  // English (US)
    } else if (type == USB_DT_STRING && index <= 3) {
        reply = stringDescriptor(index == 1 ? std::string("Torvik") : index == 2 ? d.config.product : d.config.serial);
    } else {
        status = -EPIPE;
        return;
    }
    actual = std::min({static_cast<int>(reply.size()), static_cast<int>(length), u.buffer_length - 8});
    std::memcpy(buf + 8, reply.data(), static_cast<std::size_t>(std::max(actual, 0)));
}

void complete(UMockdevIoctlClient* client, int result, int err) { umockdev_ioctl_client_complete(client, result, err); }

gboolean fail(UMockdevIoctlClient* client, int err) {
    complete(client, -1, err);
    return TRUE;
}

// Every ioctl is completed before returning: the preload serialises a descriptor's ioctls, so
// one left open would block the host's next one.
gboolean onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto* d = static_cast<Device*>(user);
    Bus& bus = *d->bus;
    bus.noteHandlerThread();
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    std::lock_guard lock(bus.m_);
    HostOpen& open = d->opens[client];
    open.key = client;

    // After an unplug the kernel still lets the host reap; everything else fails.
    if (d->gone && request != USBDEVFS_REAPURBNDELAY && request != USBDEVFS_REAPURB) return fail(client, ENODEV);
    switch (request) {
        case USBDEVFS_GET_CAPABILITIES: {
            UMockdevIoctlData* c = umockdev_ioctl_data_resolve(arg, 0, sizeof(guint32), nullptr);
            if (!c) return fail(client, EFAULT);
            *reinterpret_cast<guint32*>(c->data) = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                                    USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
            g_object_unref(c);
            complete(client, 0, 0);
            return TRUE;
        }
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE:
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_SETCONFIGURATION:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESETEP:
        case USBDEVFS_RESET:
            complete(client, 0, 0);
            return TRUE;
        case USBDEVFS_GET_SPEED:
            complete(client, USB_SPEED_FULL, 0);
            return TRUE;
        case USBDEVFS_GETDRIVER: {
            UMockdevIoctlData* g = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_getdriver), nullptr);
            if (!g) return fail(client, EFAULT);
            auto* gd = reinterpret_cast<usbdevfs_getdriver*>(g->data);
            const bool bound = gd->interface == 0 && d->driver_bound;
            if (bound) std::snprintf(gd->driver, sizeof gd->driver, "usbhid");
            g_object_unref(g);
            complete(client, bound ? 0 : -1, bound ? 0 : ENODATA);
            return TRUE;
        }
        case USBDEVFS_IOCTL: {  // driver detach and attach
            UMockdevIoctlData* g = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_ioctl), nullptr);
            if (!g) return fail(client, EFAULT);
            auto* io = reinterpret_cast<usbdevfs_ioctl*>(g->data);
            const int code = io->ioctl_code, ifno = io->ifno;
            g_object_unref(g);
            if (ifno != 0) {
                complete(client, -1, EINVAL);
            } else if (code == static_cast<int>(USBDEVFS_DISCONNECT)) {
                const bool was = d->driver_bound;
                d->driver_bound = false;
                complete(client, was ? 0 : -1, was ? 0 : ENODATA);
            } else if (code == static_cast<int>(USBDEVFS_CONNECT)) {
                d->driver_bound = true;
                complete(client, 1, 0);
            } else {
                complete(client, -1, ENOTTY);
            }
            return TRUE;
        }
        case USBDEVFS_DISCONNECT_CLAIM:
            d->driver_bound = false;
            complete(client, 0, 0);
            return TRUE;
        case USBDEVFS_SUBMITURB: {
            auto* urb = new Urb;
            urb->data = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
            if (!urb->data) {
                delete urb;
                return fail(client, EFAULT);
            }
            usbdevfs_urb* u = urb->u();
            if (u->buffer_length > 0) {
                urb->buf = umockdev_ioctl_data_resolve(urb->data, offsetof(usbdevfs_urb, buffer),
                                                       static_cast<gsize>(u->buffer_length), nullptr);
                if (!urb->buf) {
                    freeUrb(urb);
                    return fail(client, EFAULT);
                }
                g_object_unref(urb->buf);  // still held by urb->data
            }
            const bool data_urb = u->type == USBDEVFS_URB_TYPE_BULK || u->type == USBDEVFS_URB_TYPE_INTERRUPT;
            if (u->type == USBDEVFS_URB_TYPE_CONTROL && urb->buf && u->buffer_length >= 8) {
                int status = 0, actual = 0;
                answerControl(*d, *u, urb->buf->data, status, actual);
                finishUrb(open, urb, status, actual);
            } else if (data_urb && u->endpoint == torvik::wire::USB_EP_OUT) {
                Bytes bytes(urb->buf ? urb->buf->data : nullptr,
                            urb->buf ? urb->buf->data + u->buffer_length : nullptr);
                finishUrb(open, urb, 0, u->buffer_length);  // the unit takes OUT data at once
                bus.post(Event{Event::Kind::Data, d, client, std::move(bytes)});
            } else if (data_urb && u->endpoint == torvik::wire::USB_EP_IN && urb->buf) {
                open.pending_in.push_back(urb);
            } else {
                freeUrb(urb);
                return fail(client, EINVAL);
            }
            pump(*d, open);
            complete(client, 0, 0);
            return TRUE;
        }
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY: {
            if (open.reapable.empty()) return fail(client, d->gone ? ENODEV : EAGAIN);
            Urb* urb = open.reapable.front();
            UMockdevIoctlData* p = umockdev_ioctl_data_resolve(arg, 0, sizeof(gpointer), nullptr);
            if (!p) return fail(client, EFAULT);
            open.reapable.pop_front();
            umockdev_ioctl_data_set_ptr(p, 0, urb->data);  // *arg = the URB, written back on complete
            g_object_unref(p);
            updateFlow(*d);
            freeUrb(urb);  // arg holds its own reference until written back
            complete(client, 0, 0);
            return TRUE;
        }
        case USBDEVFS_DISCARDURB: {
            const gulong addr = *reinterpret_cast<gulong*>(arg->data);
            for (auto it = open.pending_in.begin(); it != open.pending_in.end(); ++it) {
                if ((*it)->data->client_addr == addr) {
                    Urb* urb = *it;
                    open.pending_in.erase(it);
                    finishUrb(open, urb, -ENOENT, 0);
                    updateFlow(*d);
                    complete(client, 0, 0);
                    return TRUE;
                }
            }
            return fail(client, EINVAL);
        }
        default:
            return fail(client, ENOTTY);
    }
}

// A host's close: umockdev 0.17 emits neither client-vanished nor a change of "connected" (its
// stream does not notify that it closed), but it lets go of the client object once the stream
// ends, and nothing of ours holds a reference to it.
void onClientGone(gpointer user, GObject* where_the_client_was) {
    auto* d = static_cast<Device*>(user);
    const void* key = where_the_client_was;
    {
        std::lock_guard lock(d->bus->m_);
        if (auto it = d->opens.find(key); it != d->opens.end()) {
            for (Urb* u : it->second.pending_in) freeUrb(u);
            for (Urb* u : it->second.reapable) freeUrb(u);
            d->opens.erase(it);
        }
        updateFlow(*d);
    }
    d->bus->post(Event{Event::Kind::Close, d, key, {}});
}

void onClientConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto* d = static_cast<Device*>(user);
    d->bus->noteHandlerThread();
    {
        std::lock_guard lock(d->bus->m_);
        d->opens.try_emplace(client).first->second.key = client;
    }
    g_object_weak_ref(G_OBJECT(client), onClientGone, user);
    d->bus->post(Event{Event::Kind::Open, d, client, {}});
}

// ---- the bus ----------------------------------------------------------------------------------

Bus::Bus(EventLoop& loop) : loop_(loop) {
    testbed_ = umockdev_testbed_new();  // also sets UMOCKDEV_DIR, for the children
    if (!testbed_) throw std::runtime_error("cannot create the umockdev testbed");
    wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake_fd_ < 0) throw std::runtime_error(std::string("eventfd: ") + std::strerror(errno));
    loop_.watch(wake_fd_, EPOLLIN, [this](std::uint32_t) { drain(); });
}

Bus::~Bus() {
    loop_.unwatch(wake_fd_);
    close(wake_fd_);
    {
        std::lock_guard lock(m_);
        for (auto& d : devices_) {
            for (auto& [key, open] : d->opens) {
                for (Urb* u : open.pending_in) freeUrb(u);
                for (Urb* u : open.reapable) freeUrb(u);
            }
            d->opens.clear();
            if (d->pty_master >= 0) close(d->pty_master);
            if (d->pty_slave >= 0) close(d->pty_slave);
            d->pty_master = d->pty_slave = -1;
        }
    }
    g_object_unref(testbed_);  // removes the testbed's directory
    if (GMainContext* ctx = worker_.load()) g_main_context_unref(ctx);
}

std::shared_ptr<Device> Bus::attach(const UsbDeviceConfig& config, Port* port) {
    auto d = std::make_shared<Device>();
    d->bus = this;
    d->config = config;
    d->port = port;
    const int n = next_++;
    d->busnum = 1 + n / kUnitsPerBus;
    d->devnum = 2 + n % kUnitsPerBus;
    char devnode[64];
    std::snprintf(devnode, sizeof devnode, "/dev/bus/usb/%03d/%03d", d->busnum, d->devnum);
    d->devnode = devnode;
    d->syspath = "/sys/devices/" + std::to_string(d->busnum) + "-" + std::to_string(d->devnum - 1);
    d->dev_desc = deviceDescriptor();
    d->cfg_desc = configDescriptor(config.interrupt);
    Bytes all = d->dev_desc;
    all.insert(all.end(), d->cfg_desc.begin(), d->cfg_desc.end());
    const int minor = (d->busnum - 1) * 128 + d->devnum - 1;
    std::string desc = "P: " + d->syspath.substr(4) + "\nN: " + d->devnode.substr(5) +
                       "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: DEVNAME=" + d->devnode +
                       "\nE: BUSNUM=" + std::string(devnode + 13, 3) + "\nE: DEVNUM=" + std::string(devnode + 17, 3) +
                       "\nE: PRODUCT=483/5750/100\nE: ID_SERIAL_SHORT=" + config.serial +
                       "\nA: busnum=" + std::to_string(d->busnum) + "\\n\nA: devnum=" + std::to_string(d->devnum) +
                       "\\n\nA: speed=12\\n\nA: bConfigurationValue=1\\n\nA: bNumConfigurations=1\\n\n"
                       "A: idVendor=0483\\n\nA: idProduct=5750\\n\nA: manufacturer=Torvik\\n\nA: dev=189:" +
                       std::to_string(minor) + "\\n\nH: descriptors=" + toHex(all) + "\n";

    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(onIoctl), d.get());
    g_signal_connect(handler, "client-connected", G_CALLBACK(onClientConnected), d.get());
    GError* err = nullptr;
    // The handler first, so the node answers as soon as the "add" uevent is out.
    if (!umockdev_testbed_attach_ioctl(testbed_, devnode, handler, &err)) {
        std::string why = err ? err->message : "?";
        g_clear_error(&err);
        g_object_unref(handler);
        throw std::runtime_error("umockdev attach " + d->devnode + ": " + why);
    }
    g_object_unref(handler);  // the testbed keeps it
    if (!umockdev_testbed_add_from_string(testbed_, desc.c_str(), &err)) {
        std::string why = err ? err->message : "?";
        g_clear_error(&err);
        throw std::runtime_error("umockdev add " + d->syspath + ": " + why);
    }
    devices_.push_back(d);

    // umockdev's node is a plain file, always ready to poll: swap in a pty whose flow we control.
    char name[128];
    if (openpty(&d->pty_master, &d->pty_slave, name, nullptr, nullptr) == 0) {
        termios t;
        tcgetattr(d->pty_slave, &t);
        cfmakeraw(&t);
        tcsetattr(d->pty_slave, TCSANOW, &t);
        gchar* root = umockdev_testbed_get_root_dir(testbed_);
        const std::string real = std::string(root) + d->devnode;
        g_free(root);
        // Swapped in by a rename, so that no open of the node finds it missing (see detach).
        const std::string swap = real + ".pty";
        unlink(swap.c_str());
        if (symlink(name, swap.c_str()) == 0 && rename(swap.c_str(), real.c_str()) == 0) {
            std::lock_guard lock(m_);
            d->flow_on = true;
            updateFlow(*d);
        } else {
            std::fprintf(stderr, "torvik-sim: %s stays a plain file (%s): the host will poll it busily\n",
                         d->devnode.c_str(), std::strerror(errno));
        }
    } else {
        std::fprintf(stderr, "torvik-sim: no pty for %s (%s): the host will poll it busily\n", d->devnode.c_str(),
                     std::strerror(errno));
    }
    return d;
}

void Bus::detach(Device& d) {
    // A host that listed the bus just before may still open the node. umockdev's preload fills a
    // slot of a small fixed table on every failed open of a device node and aborts the host once
    // the table is full; so the node never goes missing. It becomes a plain file (in one rename,
    // before its pty goes) whose ioctls all answer ENODEV, as an unplugged unit's do: the handler
    // stays.
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    const std::string real = std::string(root) + d.devnode;
    g_free(root);
    const std::string swap = real + ".gone";
    if (int fd = open(swap.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644); fd >= 0) close(fd);
    rename(swap.c_str(), real.c_str());
    onHandlerThread(
        [&d] {
            d.gone = true;
            for (auto& [key, open] : d.opens) {
                for (Urb* u : open.pending_in) finishUrb(open, u, -ENODEV, 0);
                open.pending_in.clear();
                open.in_packets.clear();
            }
            if (d.pty_master >= 0) {
                tcflow(d.pty_slave, TCOON);
                close(d.pty_master);  // hang-up: every open of the node polls POLLERR|POLLHUP
                close(d.pty_slave);
                d.pty_master = d.pty_slave = -1;
            }
        },
        true);
    // 0.17's remove_device sends no uevent of its own; a second one from a newer version is harmless.
    umockdev_testbed_uevent(testbed_, d.syspath.c_str(), "remove");
    // remove_device deletes the node named here: a name that is none keeps the node.
    umockdev_testbed_set_property(testbed_, d.syspath.c_str(), "DEVNAME", (d.devnode + ".gone").c_str());
    umockdev_testbed_remove_device(testbed_, d.syspath.c_str());
}

void Bus::onHandlerThread(std::function<void()> fn, bool wait) {
    GMainContext* ctx = worker_.load();
    if (!ctx) {
        std::lock_guard lock(m_);
        fn();
        return;
    }
    struct Job {
        std::function<void()> fn;
        Bus* bus;
        std::promise<void> done;
    };
    auto* job = new Job{std::move(fn), this, {}};
    std::future<void> done = job->done.get_future();
    g_main_context_invoke_full(
        ctx, G_PRIORITY_DEFAULT,
        [](gpointer p) -> gboolean {
            auto* j = static_cast<Job*>(p);
            {
                std::lock_guard lock(j->bus->m_);
                j->fn();
            }
            j->done.set_value();
            return G_SOURCE_REMOVE;
        },
        job, [](gpointer p) { delete static_cast<Job*>(p); });
    if (wait) done.wait();
}

void Bus::post(Event e) {
    {
        std::lock_guard lock(queue_m_);
        queue_.push_back(std::move(e));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wake_fd_, &one, sizeof one);
}

void Bus::drain() {
    std::uint64_t count;
    [[maybe_unused]] ssize_t n = read(wake_fd_, &count, sizeof count);
    std::deque<Event> events;
    {
        std::lock_guard lock(queue_m_);
        events.swap(queue_);
    }
    for (Event& e : events)
        if (e.device && e.device->port) e.device->port->handle(e);
}

// ---- a unit's port ------------------------------------------------------------------------------

Port::Port(Bus& bus, LinkEvents& events, UsbDeviceConfig config)
    : bus_(bus), events_(events), config_(std::move(config)) {
    device_ = bus_.attach(config_, this);
    devices_.push_back(device_);
}

Port::~Port() {
    if (device_) bus_.detach(*device_);
    for (auto& d : devices_) d->port = nullptr;
}

UsbLink* Port::byOpen(const Device* device, const void* open) const {
    for (auto& l : links_)
        if (l->device() == device && l->openKey() == open) return l.get();
    return nullptr;
}

void Port::handle(Event& e) {
    switch (e.kind) {
        case Event::Kind::Open: {
            auto it = std::find_if(devices_.begin(), devices_.end(), [&](auto& d) { return d.get() == e.device; });
            if (it == devices_.end()) break;
            links_.push_back(std::make_unique<UsbLink>(*this, *it, e.open, ++accepted_));
            if (*it != device_) links_.back()->unplugged();
            events_.linkOpened(*links_.back());
            break;
        }
        case Event::Kind::Data: {
            transfers_.push_back(e.bytes);
            if (transfers_.size() > kTransfersKept) transfers_.pop_front();
            if (UsbLink* link = byOpen(e.device, e.open)) events_.linkReceived(*link, e.bytes);
            break;
        }
        case Event::Kind::Close: {
            auto it = std::find_if(links_.begin(), links_.end(),
                                   [&](auto& l) { return l->device() == e.device && l->openKey() == e.open; });
            if (it == links_.end()) break;
            std::unique_ptr<UsbLink> doomed = std::move(*it);
            links_.erase(it);
            events_.linkClosed(*doomed);
            break;
        }
        case Event::Kind::Drained: {
            UsbLink* link = byOpen(e.device, e.open);
            if (link && link->drained(e.sends)) events_.linkDrained(*link);
            break;
        }
    }
}

Link* Port::find(std::uint64_t id) const { return findLink(links_, id); }

Link* Port::newest() const { return newestWritable(links_); }

std::vector<Link*> Port::links() const { return linkList(links_); }

bool Port::setPlugged(bool plugged) {
    if (plugged == (device_ != nullptr)) return false;
    if (!plugged) {
        bus_.detach(*device_);
        device_.reset();
        for (auto& l : links_) l->unplugged();
    } else {
        device_ = bus_.attach(config_, this);
        devices_.push_back(device_);
    }
    return true;
}

std::string Port::statsFields() const {
    std::string s = " usb.plugged=" + std::to_string(device_ ? 1 : 0);
    if (device_) {
        bool bound;
        {
            std::lock_guard lock(bus_.m_);
            bound = device_->driver_bound;
        }
        s += " usb.bus=" + std::to_string(device_->busnum) + " usb.address=" + std::to_string(device_->devnum) +
             " usb.driver=" + (bound ? "1" : "0");
    }
    return s;
}

void UsbLink::send(std::span<const std::uint8_t> bytes) {
    if (!writable() || bytes.empty()) return;
    auto packets = toPackets(bytes);
    Device* d = device_.get();
    const void* key = open_;
    queued_ += bytes.size();
    const std::uint64_t sends = ++sends_;
    port_.bus().onHandlerThread(
        [d, key, sends, packets = std::move(packets)]() mutable {
            auto it = d->opens.find(key);
            if (it == d->opens.end() || d->gone) return;
            it->second.pushed = sends;
            for (auto& p : packets) it->second.in_packets.push_back(std::move(p));
            pump(*d, it->second);
        },
        false);
}

void UsbLink::abort() {
    finished_ = true;
    Device* d = device_.get();
    const void* key = open_;
    port_.bus().onHandlerThread(
        [d, key] {
            if (auto it = d->opens.find(key); it != d->opens.end()) it->second.in_packets.clear();
        },
        false);
}

}  // namespace

std::string usbUnavailableReason() { return unavailableReason(); }

void runUnderUsbPreload(char** argv) {
    if (std::getenv(kPreloadMarker)) {
        unsetenv(kPreloadMarker);
        return;
    }
    // Other preloads (a sanitizer's) stay first; an inherited umockdev preload goes.
    std::string preload;
    if (const char* old = std::getenv("LD_PRELOAD")) {
        std::string list = old;
        for (std::size_t from = 0; from <= list.size();) {
            std::size_t end = list.find_first_of(": ", from);
            if (end == std::string::npos) end = list.size();
            std::string entry = list.substr(from, end - from);
            if (!entry.empty() && entry.find("libumockdev-preload") == std::string::npos) preload += entry + ":";
            from = end + 1;
        }
    }
    const std::string path = preloadPath();
    preload += path;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    unsetenv("UMOCKDEV_DIR");
    setenv(kPreloadMarker, "1", 1);
    execv("/proc/self/exe", argv);
    throw std::runtime_error("cannot re-execute under " + path + ": " + std::strerror(errno));
}

std::unique_ptr<DeviceBus> makeUsbBus(EventLoop& loop) { return std::make_unique<Bus>(loop); }

}  // namespace sim
