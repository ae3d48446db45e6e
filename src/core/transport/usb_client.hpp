// USB transport to one unit, over libusb-1.0, and the listing of attached units.
//
// A client is matched by vendor, product and exact serial number (first match in enumeration
// order) and keeps its device handle open until release() or destruction. It neither selects a
// configuration nor claims the interface; on Linux it detaches a kernel driver bound to
// interface 0. Transfers use the type (bulk or interrupt) that the endpoint descriptors declare.
//
// Thread contract: one receive thread calls awaitPacket / awaitAndSplitPacket; any thread may
// send, read with a time limit or release at the same time. Every call may block (USB I/O, up to
// its time limit); callers that hold an interpreter lock release it first. release() ends a
// waiting awaitPacket, refuses later calls and closes the handle once no call uses it.
// sendPacketLater queues a send on a thread of the client's own, for callers that must not block
// on a transfer; once it is used, every send goes through that queue, so all keep their order.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "transport/client.hpp"
#include "transport/errors.hpp"

namespace torvik::transport {

namespace lu {
struct device_handle;
struct transfer;
}  // namespace lu

class UsbContext;

struct UsbDeviceInfo {
    std::uint16_t vendor = 0, product = 0, bcd_device = 0;
    std::uint8_t bus = 0, address = 0;
    std::uint8_t i_manufacturer = 0, i_product = 0, i_serial = 0;
    std::uint8_t num_configurations = 0;
};

struct UsbEndpointInfo {
    std::uint8_t address = 0;
    std::uint8_t attributes = 0;  // the low two bits are the transfer type (2 bulk, 3 interrupt)
    std::uint16_t max_packet_size = 0;
};

struct UsbInterfaceInfo {
    std::uint8_t number = 0, alternate = 0, interface_class = 0;
    std::vector<UsbEndpointInfo> endpoints;
};

struct UsbConfigInfo {
    std::uint8_t value = 0, num_interfaces = 0, attributes = 0, max_power = 0;
};

// Serial number and product strings of one attached unit (nullopt: the unit has no such string).
struct UsbUnitStrings {
    std::optional<std::string> serial, product;
};

class UsbClient : public Client {
public:
    // Opens the first attached unit with the unit vendor and product ids and this serial number.
    // Throws UsbUnitNotFound, or UsbError when the descriptors or the driver detach fail
    // (LibusbNotFound when no libusb-1.0 can be loaded: see libusb_loader.hpp).
    explicit UsbClient(const std::string& serial);
    ~UsbClient() override;

    const UsbDeviceInfo& device() const { return device_; }
    const UsbConfigInfo& config() const { return config_; }
    const UsbInterfaceInfo& interfaceInfo() const { return interface_; }
    std::uint8_t epIn() const { return ep_in_; }
    std::uint8_t epOut() const { return ep_out_; }

    // Read from the device at each call.
    std::optional<std::string> takeSerialNumber();
    std::optional<std::string> takeProductName();

    // One IN transfer of up to `length` bytes within `timeout_ms`; throws UsbTimeout when nothing
    // came, UsbError on any other failure.
    std::vector<std::uint8_t> recvPacket(std::size_t length, unsigned timeout_ms);
    std::vector<wire::Packet> recvAndSplitPacket(std::size_t length, unsigned timeout_ms);

    // One IN transfer that waits without a time limit and without polling: returns what arrived,
    // or nothing once release() was called. Throws UsbError (an unplugged unit, ...).
    std::vector<std::uint8_t> awaitPacket(std::size_t length);
    std::vector<wire::Packet> awaitAndSplitPacket(std::size_t length);

    // A frame of up to 64 bytes goes out as one 64-byte transfer padded with zeros, a longer one
    // as one transfer of its own length.
    void sendPacket(std::span<const std::uint8_t> bytes) override;

    // Sends `frame` as sendPacket does, after every send queued or under way before it, on the
    // client's sender thread (started on first use); `done` runs there once the transfer went out
    // (null) or failed (what sendPacket would have thrown). After release() it fails at once.
    using SendDone = std::function<void(std::exception_ptr)>;
    void sendPacketLater(std::vector<std::uint8_t> frame, SendDone done);

    // Ends a waiting awaitPacket, makes later calls fail (awaitPacket returns nothing) and closes
    // the device handle once no call is inside. Idempotent.
    void release();

private:
    class Use;
    struct Outcome {
        int status;  // lu::transfer_status
        int actual;
    };
    // One transfer on a data endpoint, waited for by the calling thread (time limit 0: none). A
    // cancellable one is what release() ends; once released it is not made (nullopt).
    std::optional<Outcome> transfer(std::uint8_t endpoint, bool interrupt, std::uint8_t* data, std::size_t length,
                                    unsigned timeout_ms, bool cancellable);
    std::vector<wire::Packet> splitAfter(std::vector<std::uint8_t> chunk);
    void sendNow(std::span<const std::uint8_t> bytes);
    void runSender();
    void stopSender();

    std::shared_ptr<UsbContext> ctx_;
    lu::device_handle* handle_ = nullptr;  // null once closed; guarded by m_ for closing
    UsbDeviceInfo device_;
    UsbConfigInfo config_;
    UsbInterfaceInfo interface_;
    std::uint8_t ep_in_, ep_out_;
    bool in_interrupt_ = false, out_interrupt_ = false;

    std::mutex m_;
    std::condition_variable idle_;
    bool released_ = false;                 // guarded by m_
    unsigned users_ = 0;                    // calls using handle_ now; guarded by m_
    lu::transfer* waiting_ = nullptr;    // the cancellable transfer in flight; guarded by m_

    struct QueuedSend {
        std::vector<std::uint8_t> frame;
        SendDone done;
    };
    std::mutex send_m_;
    std::condition_variable send_cv_;
    std::deque<QueuedSend> sends_;  // guarded by send_m_
    bool sender_stop_ = false;      // guarded by send_m_
    std::thread sender_;            // started under send_m_
};

// Frames of up to `packet_size` bytes padded with zeros to that size; longer ones as they are.
std::vector<std::uint8_t> padToPacket(std::span<const std::uint8_t> frame, std::size_t packet_size);

// Every attached unit with the unit vendor and product ids, in enumeration order. Throws UsbError
// when one cannot be opened or read.
std::vector<UsbUnitStrings> listUsbUnits();

// Version of the loaded libusb-1.0, "<major>.<minor>.<micro>.<nano>" (loading it, see libusb()).
std::string libusbVersion();

}  // namespace torvik::transport
