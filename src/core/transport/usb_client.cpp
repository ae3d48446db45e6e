#include "transport/usb_client.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>

#include "platform/system.hpp"
#include "transport/libusb_loader.hpp"
#include "wire/commands.hpp"

namespace torvik::transport {

UsbError::UsbError(int code) : std::runtime_error(lu::errorText(code)), code(code) {}

UsbTimeout::UsbTimeout() : UsbError(lu::ERROR_TIMEOUT) {}

// libusb contexts. Listings share one, made on first use and kept until the process ends: a
// context per listing would rescan the bus and start and stop libusb's hotplug monitor each time
// (slow with many devices, and a monitor that comes and goes races the uevents of the devices
// being plugged meanwhile). Each client has one of its own, so that its transfers complete on
// its own event handling and never wait while another unit's completions are reaped.
class UsbContext {
public:
    static std::shared_ptr<UsbContext> shared() {
        static auto* mutex = new std::mutex;  // leaked: clients may go during static destruction
        static auto* kept = new std::shared_ptr<UsbContext>;
        std::lock_guard lock(*mutex);
        if (*kept) return *kept;
        lu::context* raw = nullptr;
        if (int rc = libusb().init(&raw); rc < 0) throw UsbError(rc);
        kept->reset(new UsbContext(raw));
        return *kept;
    }
    // The shared one stays, so the hotplug monitor runs while clients come and go.
    static std::shared_ptr<UsbContext> own() {
        shared();
        lu::context* raw = nullptr;
        if (int rc = libusb().init(&raw); rc < 0) throw UsbError(rc);
        return std::shared_ptr<UsbContext>(new UsbContext(raw));
    }
    ~UsbContext() { libusb().exit(ctx_); }
    UsbContext(const UsbContext&) = delete;
    UsbContext& operator=(const UsbContext&) = delete;
    lu::context* raw() const { return ctx_; }

private:
    explicit UsbContext(lu::context* ctx) : ctx_(ctx) {}
    lu::context* ctx_;
};

namespace {

namespace w = torvik::wire;

// A write that the unit does not take within this time fails instead of hanging.
constexpr unsigned kWriteTimeoutMs = 1000;

struct CloseHandle {
    void operator()(lu::device_handle* h) const { libusb().close(h); }
};
using HandlePtr = std::unique_ptr<lu::device_handle, CloseHandle>;

// The attached devices, referenced while the list lives.
class DeviceList {
public:
    explicit DeviceList(lu::context* ctx) {
        std::ptrdiff_t n = libusb().get_device_list(ctx, &list_);
        if (n < 0) throw UsbError(static_cast<int>(n));
        size_ = static_cast<std::size_t>(n);
    }
    ~DeviceList() { libusb().free_device_list(list_, 1); }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;
    lu::device* const* begin() const { return list_; }
    lu::device* const* end() const { return list_ + size_; }

private:
    lu::device** list_ = nullptr;
    std::size_t size_ = 0;
};

// Vendor first, then product: nothing else is read from a device of another maker.
bool isUnit(lu::device* dev, lu::device_descriptor& desc) {
    if (libusb().get_device_descriptor(dev, &desc) < 0) return false;
    return desc.idVendor == w::USB_VID && desc.idProduct == w::USB_PID;
}

void appendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | cp >> 6);
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | cp >> 12);
        out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | cp >> 18);
        out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
        out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// A string descriptor in the device's first language, as UTF-8; nullopt for index 0.
std::optional<std::string> readString(lu::device_handle* h, std::uint8_t index) {
    if (index == 0) return std::nullopt;
    unsigned char buf[255];
    int n = lu::getStringDescriptor(libusb(), h, 0, 0, buf, sizeof buf);
    if (n < 0) throw UsbError(n);
    if (n < 4 || buf[1] != lu::DT_STRING) throw UsbError(lu::ERROR_IO);
    const std::uint16_t lang = static_cast<std::uint16_t>(buf[2] | buf[3] << 8);
    n = lu::getStringDescriptor(libusb(), h, index, lang, buf, sizeof buf);
    if (n < 0) throw UsbError(n);
    if (n < 2 || buf[1] != lu::DT_STRING) throw UsbError(lu::ERROR_IO);
    n = std::min<int>(n, buf[0]);
    std::string out;
    for (int i = 2; i + 1 < n; i += 2) {
        std::uint32_t cp = buf[i] | buf[i + 1] << 8;
        if (cp >= 0xD800 && cp < 0xDC00 && i + 3 < n) {
            const std::uint32_t low = buf[i + 2] | buf[i + 3] << 8;
            if (low >= 0xDC00 && low < 0xE000) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            }
        }
        appendUtf8(out, cp);
    }
    return out;
}

// The end of one transfer: `done` for the waiting thread (it also orders the transfer's results
// before their reading), `flag` for libusb, which watches an int under its own lock.
struct Completion {
    std::atomic<bool> done{false};
    int flag = 0;
};

void TORVIK_LIBUSB_CALL onTransferDone(lu::transfer* t) {
    auto* c = static_cast<Completion*>(t->user_data);
    c->done.store(true);
    c->flag = 1;
}

}  // namespace

// One call that uses the device handle: refused once released (with UsbError, or quietly), and
// counted so that release() closes the handle only when none is inside.
class UsbClient::Use {
public:
    explicit Use(UsbClient& c, bool quiet = false) : c_(c) {
        std::lock_guard lock(c_.m_);
        if (c_.released_ || !c_.handle_) {
            if (!quiet) throw UsbError(lu::ERROR_NO_DEVICE);
            return;
        }
        ++c_.users_;
        ok_ = true;
    }
    ~Use() {
        if (!ok_) return;
        std::lock_guard lock(c_.m_);
        if (--c_.users_ == 0) c_.idle_.notify_all();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    explicit operator bool() const { return ok_; }

private:
    UsbClient& c_;
    bool ok_ = false;
};

UsbClient::UsbClient(const std::string& serial)
    : ctx_(UsbContext::own()), ep_in_(w::USB_EP_IN), ep_out_(w::USB_EP_OUT) {
    HandlePtr handle;
    {
        DeviceList list(ctx_->raw());
        for (lu::device* dev : list) {
            lu::device_descriptor desc;
            if (!isUnit(dev, desc)) continue;
            lu::device_handle* h = nullptr;
            if (libusb().open(dev, &h) < 0) continue;  // a unit we cannot open has no serial number to us
            HandlePtr candidate(h);
            std::optional<std::string> s;
            try {
                s = readString(h, desc.iSerialNumber);
            } catch (const UsbError&) {
            }
            if (s == serial) {
                handle = std::move(candidate);
                break;
            }
        }
    }
    if (!handle) throw UsbUnitNotFound("no USB unit with serial number " + serial);

    lu::device* dev = libusb().get_device(handle.get());
    lu::device_descriptor d;
    if (int rc = libusb().get_device_descriptor(dev, &d); rc < 0) throw UsbError(rc);
    device_ = UsbDeviceInfo{d.idVendor,      d.idProduct, d.bcdDevice,          libusb().get_bus_number(dev),
                            libusb().get_device_address(dev), d.iManufacturer, d.iProduct, d.iSerialNumber,
                            d.bNumConfigurations};

    lu::config_descriptor* cfg = nullptr;
    if (int rc = libusb().get_config_descriptor(dev, 0, &cfg); rc < 0) throw UsbError(rc);
    struct FreeConfig {
        void operator()(lu::config_descriptor* c) const { libusb().free_config_descriptor(c); }
    };
    std::unique_ptr<lu::config_descriptor, FreeConfig> cfg_owner(cfg);
    config_ = UsbConfigInfo{cfg->bConfigurationValue, cfg->bNumInterfaces, cfg->bmAttributes, cfg->MaxPower};
    if (cfg->bNumInterfaces == 0 || cfg->interfaces[0].num_altsetting == 0) throw UsbError(lu::ERROR_NOT_FOUND);
    const lu::interface_descriptor& alt = cfg->interfaces[0].altsetting[0];
    interface_.number = alt.bInterfaceNumber;
    interface_.alternate = alt.bAlternateSetting;
    interface_.interface_class = alt.bInterfaceClass;
    for (int i = 0; i < alt.bNumEndpoints; ++i) {
        const lu::endpoint_descriptor& ep = alt.endpoint[i];
        interface_.endpoints.push_back({ep.bEndpointAddress, ep.bmAttributes, ep.wMaxPacketSize});
        const bool interrupt = (ep.bmAttributes & 3) == lu::TRANSFER_TYPE_INTERRUPT;
        if (ep.bEndpointAddress == ep_in_) in_interrupt_ = interrupt;
        if (ep.bEndpointAddress == ep_out_) out_interrupt_ = interrupt;
    }

    if constexpr (platform::kDetachesKernelDrivers) {
        const int active = libusb().kernel_driver_active(handle.get(), interface_.number);
        if (active == 1) {
            if (int rc = libusb().detach_kernel_driver(handle.get(), interface_.number); rc < 0) throw UsbError(rc);
        } else if (active < 0 && active != lu::ERROR_NOT_SUPPORTED) {
            throw UsbError(active);
        }
    }
    handle_ = handle.release();
}

UsbClient::~UsbClient() {
    stopSender();
    if (handle_) libusb().close(handle_);
}

std::optional<std::string> UsbClient::takeSerialNumber() {
    Use use(*this);
    return readString(handle_, device_.i_serial);
}

std::optional<std::string> UsbClient::takeProductName() {
    Use use(*this);
    return readString(handle_, device_.i_product);
}

std::optional<UsbClient::Outcome> UsbClient::transfer(std::uint8_t endpoint, bool interrupt, std::uint8_t* data,
                                                      std::size_t length, unsigned timeout_ms, bool cancellable) {
    const Libusb& api = libusb();
    struct FreeTransfer {
        void operator()(lu::transfer* t) const { libusb().free_transfer(t); }
    };
    std::unique_ptr<lu::transfer, FreeTransfer> t(api.alloc_transfer(0));
    if (!t) throw UsbError(lu::ERROR_NO_MEM);
    Completion completion;
    lu::fillTransfer(t.get(), handle_, endpoint, interrupt ? lu::TRANSFER_TYPE_INTERRUPT : lu::TRANSFER_TYPE_BULK, data,
                     static_cast<int>(length), &onTransferDone, &completion, timeout_ms);
    {
        std::lock_guard lock(m_);
        if (cancellable && released_) return std::nullopt;
        if (int rc = api.submit_transfer(t.get()); rc < 0) throw UsbError(rc);
        if (cancellable) waiting_ = t.get();
    }
    // libusb's own way of waiting for one transfer: whichever thread holds the event lock reaps
    // it, the others sleep until it has. Nothing wakes while the unit is silent.
    while (!completion.done.load()) {
        const int rc = api.handle_events_completed(ctx_->raw(), &completion.flag);
        if (rc < 0 && rc != lu::ERROR_INTERRUPTED) api.cancel_transfer(t.get());  // its completion ends the wait
    }
    if (cancellable) {
        std::lock_guard lock(m_);
        waiting_ = nullptr;
    }
    return Outcome{t->status, t->actual_length};
}

namespace {

[[noreturn]] void throwFor(int status) {
    switch (status) {
        case lu::TRANSFER_TIMED_OUT: throw UsbTimeout();
        case lu::TRANSFER_STALL: throw UsbError(lu::ERROR_PIPE);
        case lu::TRANSFER_NO_DEVICE: throw UsbError(lu::ERROR_NO_DEVICE);
        case lu::TRANSFER_OVERFLOW: throw UsbError(lu::ERROR_OVERFLOW);
        case lu::TRANSFER_CANCELLED: throw UsbError(lu::ERROR_INTERRUPTED);
        default: throw UsbError(lu::ERROR_IO);
    }
}

}  // namespace

std::vector<std::uint8_t> UsbClient::recvPacket(std::size_t length, unsigned timeout_ms) {
    Use use(*this);
    std::vector<std::uint8_t> buf(length);
    // libusb reads a time limit of 0 as none; the shortest limit is 1 ms.
    const Outcome r = *transfer(ep_in_, in_interrupt_, buf.data(), length, std::max(timeout_ms, 1u), false);
    const bool some = r.actual > 0 && (r.status == lu::TRANSFER_COMPLETED || r.status == lu::TRANSFER_TIMED_OUT);
    if (r.status != lu::TRANSFER_COMPLETED && !some) throwFor(r.status);
    buf.resize(static_cast<std::size_t>(r.actual));
    return buf;
}

std::vector<wire::Packet> UsbClient::recvAndSplitPacket(std::size_t length, unsigned timeout_ms) {
    return splitAfter(recvPacket(length, timeout_ms));
}

std::vector<std::uint8_t> UsbClient::awaitPacket(std::size_t length) {
    Use use(*this, true);
    if (!use) return {};
    std::vector<std::uint8_t> buf(length);
    const auto r = transfer(ep_in_, in_interrupt_, buf.data(), length, 0, true);
    if (!r) return {};
    if (r->status != lu::TRANSFER_COMPLETED && r->status != lu::TRANSFER_CANCELLED) throwFor(r->status);
    buf.resize(static_cast<std::size_t>(r->actual));
    return buf;
}

std::vector<wire::Packet> UsbClient::awaitAndSplitPacket(std::size_t length) { return splitAfter(awaitPacket(length)); }

std::vector<wire::Packet> UsbClient::splitAfter(std::vector<std::uint8_t> chunk) {
    if (chunk.empty()) return {};
    return withStream([&](wire::FrameSplitter& s) {
        s.append(chunk);
        return s.split();
    });
}

void UsbClient::sendNow(std::span<const std::uint8_t> bytes) {
    auto data = padToPacket(bytes, w::USB_PKT_SIZE);
    Use use(*this);
    const Outcome r = *transfer(ep_out_, out_interrupt_, data.data(), data.size(), kWriteTimeoutMs, false);
    if (r.status != lu::TRANSFER_COMPLETED) throwFor(r.status);
}

void UsbClient::sendPacket(std::span<const std::uint8_t> bytes) {
    bool queued;
    {
        std::lock_guard lock(send_m_);
        queued = sender_.joinable();
    }
    // Until something was queued there is no order to keep, and no need to hand over.
    if (!queued) return sendNow(bytes);
    std::promise<void> sent;
    sendPacketLater(std::vector<std::uint8_t>(bytes.begin(), bytes.end()), [&sent](std::exception_ptr e) {
        if (e)
            sent.set_exception(e);
        else
            sent.set_value();
    });
    sent.get_future().get();
}

void UsbClient::sendPacketLater(std::vector<std::uint8_t> frame, SendDone done) {
    {
        std::lock_guard lock(send_m_);
        if (!sender_stop_) {
            sends_.push_back({std::move(frame), std::move(done)});
            if (!sender_.joinable()) sender_ = std::thread([this] { runSender(); });
            send_cv_.notify_one();
            return;
        }
    }
    done(std::make_exception_ptr(UsbError(lu::ERROR_NO_DEVICE)));
}

void UsbClient::runSender() {
    for (;;) {
        QueuedSend item;
        {
            std::unique_lock lock(send_m_);
            send_cv_.wait(lock, [this] { return sender_stop_ || !sends_.empty(); });
            if (sends_.empty()) return;
            item = std::move(sends_.front());
            sends_.pop_front();
        }
        std::exception_ptr error;
        try {
            sendNow(item.frame);
        } catch (...) {
            error = std::current_exception();
        }
        item.done(error);
    }
}

// What is queued still goes (or fails, once released) before the thread ends.
void UsbClient::stopSender() {
    std::thread sender;
    {
        std::lock_guard lock(send_m_);
        sender_stop_ = true;
        send_cv_.notify_one();
        sender.swap(sender_);
    }
    if (sender.joinable()) sender.join();
}

void UsbClient::release() {
    lu::device_handle* closing = nullptr;
    {
        std::unique_lock lock(m_);
        if (released_) return;
        released_ = true;
        if (waiting_) libusb().cancel_transfer(waiting_);
        // A cancelled read ends within milliseconds, a write within its time limit. Should a call
        // still be inside after that, the destructor closes the handle once it has let go.
        if (!idle_.wait_for(lock, std::chrono::milliseconds(kWriteTimeoutMs + 500), [this] { return users_ == 0; }))
            return;
        std::swap(closing, handle_);
    }
    stopSender();
    libusb().close(closing);
}

std::vector<std::uint8_t> padToPacket(std::span<const std::uint8_t> frame, std::size_t packet_size) {
    std::vector<std::uint8_t> out(frame.begin(), frame.end());
    if (out.size() < packet_size) out.resize(packet_size, 0);
    return out;
}

std::vector<UsbUnitStrings> listUsbUnits() {
    auto ctx = UsbContext::shared();
    std::vector<UsbUnitStrings> out;
    DeviceList list(ctx->raw());
    for (lu::device* dev : list) {
        lu::device_descriptor desc;
        if (!isUnit(dev, desc)) continue;
        lu::device_handle* h = nullptr;
        if (int rc = libusb().open(dev, &h); rc < 0) throw UsbError(rc);
        HandlePtr handle(h);
        UsbUnitStrings s;
        s.serial = readString(h, desc.iSerialNumber);
        s.product = readString(h, desc.iProduct);
        out.push_back(std::move(s));
    }
    return out;
}

std::string libusbVersion() {
    const lu::version* v = libusb().get_version();
    return std::to_string(v->major) + "." + std::to_string(v->minor) + "." + std::to_string(v->micro) +
           "." + std::to_string(v->nano);
}

}  // namespace torvik::transport
