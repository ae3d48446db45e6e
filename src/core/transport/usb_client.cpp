#include "transport/usb_client.hpp"

#include <libusb.h>

#include <algorithm>
#include <chrono>

#include "wire/commands.hpp"

namespace torvik::transport {

UsbError::UsbError(int code) : std::runtime_error(libusb_strerror(code)), code(code) {}

UsbTimeout::UsbTimeout() : UsbError(LIBUSB_ERROR_TIMEOUT) {}

// The one libusb context of the library. It lives while a client or a listing uses it, so that
// no event monitor thread of libusb outlives the last USB handle.
class UsbContext {
public:
    static std::shared_ptr<UsbContext> get() {
        static auto* mutex = new std::mutex;  // leaked: clients may go during static destruction
        static auto* cached = new std::weak_ptr<UsbContext>;
        std::lock_guard lock(*mutex);
        if (auto ctx = cached->lock()) return ctx;
        libusb_context* raw = nullptr;
        if (int rc = libusb_init(&raw); rc < 0) throw UsbError(rc);
        std::shared_ptr<UsbContext> ctx(new UsbContext(raw));
        *cached = ctx;
        return ctx;
    }
    ~UsbContext() { libusb_exit(ctx_); }
    UsbContext(const UsbContext&) = delete;
    UsbContext& operator=(const UsbContext&) = delete;
    libusb_context* raw() const { return ctx_; }

private:
    explicit UsbContext(libusb_context* ctx) : ctx_(ctx) {}
    libusb_context* ctx_;
};

namespace {

namespace w = torvik::wire;

// A write that the unit does not take within this time fails instead of hanging.
constexpr unsigned kWriteTimeoutMs = 1000;

using HandlePtr = std::unique_ptr<libusb_device_handle, decltype(&libusb_close)>;

// The attached devices, referenced while the list lives.
class DeviceList {
public:
    explicit DeviceList(libusb_context* ctx) {
        ssize_t n = libusb_get_device_list(ctx, &list_);
        if (n < 0) throw UsbError(static_cast<int>(n));
        size_ = static_cast<std::size_t>(n);
    }
    ~DeviceList() { libusb_free_device_list(list_, 1); }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;
    libusb_device* const* begin() const { return list_; }
    libusb_device* const* end() const { return list_ + size_; }

private:
    libusb_device** list_ = nullptr;
    std::size_t size_ = 0;
};

// Vendor first, then product: nothing else is read from a device of another maker.
bool isUnit(libusb_device* dev, libusb_device_descriptor& desc) {
    if (libusb_get_device_descriptor(dev, &desc) < 0) return false;
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
std::optional<std::string> readString(libusb_device_handle* h, std::uint8_t index) {
    if (index == 0) return std::nullopt;
    unsigned char buf[255];
    int n = libusb_get_string_descriptor(h, 0, 0, buf, sizeof buf);
    if (n < 0) throw UsbError(n);
    if (n < 4 || buf[1] != LIBUSB_DT_STRING) throw UsbError(LIBUSB_ERROR_IO);
    const std::uint16_t lang = static_cast<std::uint16_t>(buf[2] | buf[3] << 8);
    n = libusb_get_string_descriptor(h, index, lang, buf, sizeof buf);
    if (n < 0) throw UsbError(n);
    if (n < 2 || buf[1] != LIBUSB_DT_STRING) throw UsbError(LIBUSB_ERROR_IO);
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

void LIBUSB_CALL onTransferDone(libusb_transfer* t) { *static_cast<int*>(t->user_data) = 1; }

}  // namespace

// One call that uses the device handle: refused once released, and counted so that release()
// closes the handle only when none is inside.
class UsbClient::Use {
public:
    explicit Use(UsbClient& c) : c_(c) {
        std::lock_guard lock(c_.m_);
        if (c_.released_ || !c_.handle_) throw UsbError(LIBUSB_ERROR_NO_DEVICE);
        ++c_.users_;
    }
    ~Use() {
        std::lock_guard lock(c_.m_);
        if (--c_.users_ == 0) c_.idle_.notify_all();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

private:
    UsbClient& c_;
};

UsbClient::UsbClient(const std::string& serial)
    : ctx_(UsbContext::get()), ep_in_(w::USB_EP_IN), ep_out_(w::USB_EP_OUT) {
    HandlePtr handle(nullptr, &libusb_close);
    {
        DeviceList list(ctx_->raw());
        for (libusb_device* dev : list) {
            libusb_device_descriptor desc;
            if (!isUnit(dev, desc)) continue;
            libusb_device_handle* h = nullptr;
            if (libusb_open(dev, &h) < 0) continue;  // a unit we cannot open has no serial number to us
            HandlePtr candidate(h, &libusb_close);
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

    libusb_device* dev = libusb_get_device(handle.get());
    libusb_device_descriptor d;
    if (int rc = libusb_get_device_descriptor(dev, &d); rc < 0) throw UsbError(rc);
    device_ = UsbDeviceInfo{d.idVendor,      d.idProduct, d.bcdDevice,          libusb_get_bus_number(dev),
                            libusb_get_device_address(dev), d.iManufacturer, d.iProduct, d.iSerialNumber,
                            d.bNumConfigurations};

    libusb_config_descriptor* cfg = nullptr;
    if (int rc = libusb_get_config_descriptor(dev, 0, &cfg); rc < 0) throw UsbError(rc);
    std::unique_ptr<libusb_config_descriptor, decltype(&libusb_free_config_descriptor)> cfg_owner(
        cfg, &libusb_free_config_descriptor);
    config_ = UsbConfigInfo{cfg->bConfigurationValue, cfg->bNumInterfaces, cfg->bmAttributes, cfg->MaxPower};
    if (cfg->bNumInterfaces == 0 || cfg->interface[0].num_altsetting == 0) throw UsbError(LIBUSB_ERROR_NOT_FOUND);
    const libusb_interface_descriptor& alt = cfg->interface[0].altsetting[0];
    interface_.number = alt.bInterfaceNumber;
    interface_.alternate = alt.bAlternateSetting;
    interface_.interface_class = alt.bInterfaceClass;
    for (int i = 0; i < alt.bNumEndpoints; ++i) {
        const libusb_endpoint_descriptor& ep = alt.endpoint[i];
        interface_.endpoints.push_back({ep.bEndpointAddress, ep.bmAttributes, ep.wMaxPacketSize});
        const bool interrupt = (ep.bmAttributes & 3) == LIBUSB_TRANSFER_TYPE_INTERRUPT;
        if (ep.bEndpointAddress == ep_in_) in_interrupt_ = interrupt;
        if (ep.bEndpointAddress == ep_out_) out_interrupt_ = interrupt;
    }

#ifdef __linux__
    const int active = libusb_kernel_driver_active(handle.get(), interface_.number);
    if (active == 1) {
        if (int rc = libusb_detach_kernel_driver(handle.get(), interface_.number); rc < 0) throw UsbError(rc);
    } else if (active < 0 && active != LIBUSB_ERROR_NOT_SUPPORTED) {
        throw UsbError(active);
    }
#endif
    handle_ = handle.release();
}

UsbClient::~UsbClient() {
    if (handle_) libusb_close(handle_);
}

std::optional<std::string> UsbClient::takeSerialNumber() {
    Use use(*this);
    return readString(handle_, device_.i_serial);
}

std::optional<std::string> UsbClient::takeProductName() {
    Use use(*this);
    return readString(handle_, device_.i_product);
}

std::vector<std::uint8_t> UsbClient::transferIn(std::size_t length, unsigned timeout_ms) {
    Use use(*this);
    std::vector<std::uint8_t> buf(length);
    int n = 0;
    const int len = static_cast<int>(length);
    const int rc = in_interrupt_ ? libusb_interrupt_transfer(handle_, ep_in_, buf.data(), len, &n, timeout_ms)
                                 : libusb_bulk_transfer(handle_, ep_in_, buf.data(), len, &n, timeout_ms);
    if (rc == LIBUSB_ERROR_TIMEOUT && n == 0) throw UsbTimeout();
    if (rc < 0 && rc != LIBUSB_ERROR_TIMEOUT) throw UsbError(rc);
    buf.resize(static_cast<std::size_t>(n));
    return buf;
}

std::vector<std::uint8_t> UsbClient::recvPacket(std::size_t length, unsigned timeout_ms) {
    // libusb reads a time limit of 0 as none; the shortest limit is 1 ms.
    return transferIn(length, std::max(timeout_ms, 1u));
}

std::vector<wire::Packet> UsbClient::recvAndSplitPacket(std::size_t length, unsigned timeout_ms) {
    auto chunk = recvPacket(length, timeout_ms);
    if (chunk.empty()) return {};
    return withStream([&](wire::FrameSplitter& s) {
        s.append(chunk);
        return s.split();
    });
}

std::vector<std::uint8_t> UsbClient::awaitPacket(std::size_t length) {
    std::unique_ptr<libusb_transfer, decltype(&libusb_free_transfer)> t(libusb_alloc_transfer(0), &libusb_free_transfer);
    if (!t) throw UsbError(LIBUSB_ERROR_NO_MEM);
    std::vector<std::uint8_t> buf(length);
    int done = 0;
    {
        std::lock_guard lock(m_);
        if (released_ || !handle_) return {};
        (in_interrupt_ ? libusb_fill_interrupt_transfer : libusb_fill_bulk_transfer)(
            t.get(), handle_, ep_in_, buf.data(), static_cast<int>(length), &onTransferDone, &done, 0);
        if (int rc = libusb_submit_transfer(t.get()); rc < 0) throw UsbError(rc);
        waiting_ = t.get();
        ++users_;
    }
    // libusb's own way of waiting for one transfer: whichever thread holds the event lock reaps
    // it, the others sleep until it has. Nothing wakes while the unit is silent.
    while (!done) {
        const int rc = libusb_handle_events_completed(ctx_->raw(), &done);
        if (rc < 0 && rc != LIBUSB_ERROR_INTERRUPTED) libusb_cancel_transfer(t.get());  // its completion ends the wait
    }
    {
        std::lock_guard lock(m_);
        waiting_ = nullptr;
        if (--users_ == 0) idle_.notify_all();
    }
    switch (t->status) {
        case LIBUSB_TRANSFER_COMPLETED:
        case LIBUSB_TRANSFER_CANCELLED:
            buf.resize(static_cast<std::size_t>(t->actual_length));
            return buf;
        case LIBUSB_TRANSFER_TIMED_OUT: throw UsbTimeout();
        case LIBUSB_TRANSFER_STALL: throw UsbError(LIBUSB_ERROR_PIPE);
        case LIBUSB_TRANSFER_NO_DEVICE: throw UsbError(LIBUSB_ERROR_NO_DEVICE);
        case LIBUSB_TRANSFER_OVERFLOW: throw UsbError(LIBUSB_ERROR_OVERFLOW);
        default: throw UsbError(LIBUSB_ERROR_IO);
    }
}

std::vector<wire::Packet> UsbClient::awaitAndSplitPacket(std::size_t length) {
    auto chunk = awaitPacket(length);
    if (chunk.empty()) return {};
    return withStream([&](wire::FrameSplitter& s) {
        s.append(chunk);
        return s.split();
    });
}

void UsbClient::sendPacket(std::span<const std::uint8_t> bytes) {
    auto data = padToPacket(bytes, w::USB_PKT_SIZE);
    Use use(*this);
    int n = 0;
    const int len = static_cast<int>(data.size());
    const int rc = out_interrupt_ ? libusb_interrupt_transfer(handle_, ep_out_, data.data(), len, &n, kWriteTimeoutMs)
                                  : libusb_bulk_transfer(handle_, ep_out_, data.data(), len, &n, kWriteTimeoutMs);
    if (rc == LIBUSB_ERROR_TIMEOUT) throw UsbTimeout();
    if (rc < 0) throw UsbError(rc);
}

void UsbClient::release() {
    libusb_device_handle* closing = nullptr;
    {
        std::unique_lock lock(m_);
        if (released_) return;
        released_ = true;
        if (waiting_) libusb_cancel_transfer(waiting_);
        // A cancelled read ends within milliseconds, a write within its time limit. Should a call
        // still be inside after that, the destructor closes the handle once it has let go.
        if (!idle_.wait_for(lock, std::chrono::milliseconds(kWriteTimeoutMs + 500), [this] { return users_ == 0; }))
            return;
        std::swap(closing, handle_);
    }
    libusb_close(closing);
}

std::vector<std::uint8_t> padToPacket(std::span<const std::uint8_t> frame, std::size_t packet_size) {
    std::vector<std::uint8_t> out(frame.begin(), frame.end());
    if (out.size() < packet_size) out.resize(packet_size, 0);
    return out;
}

std::vector<UsbUnitStrings> listUsbUnits() {
    auto ctx = UsbContext::get();
    std::vector<UsbUnitStrings> out;
    DeviceList list(ctx->raw());
    for (libusb_device* dev : list) {
        libusb_device_descriptor desc;
        if (!isUnit(dev, desc)) continue;
        libusb_device_handle* h = nullptr;
        if (int rc = libusb_open(dev, &h); rc < 0) throw UsbError(rc);
        HandlePtr handle(h, &libusb_close);
        UsbUnitStrings s;
        s.serial = readString(h, desc.iSerialNumber);
        s.product = readString(h, desc.iProduct);
        out.push_back(std::move(s));
    }
    return out;
}

std::string libusbVersion() {
    const libusb_version* v = libusb_get_version();
    return std::to_string(v->major) + "." + std::to_string(v->minor) + "." + std::to_string(v->micro) +
           "." + std::to_string(v->nano);
}

}  // namespace torvik::transport
