// The part of libusb-1.0's public interface that the USB client uses, declared here so that the
// engine builds without libusb's headers and loads the library at run time (libusb_loader.hpp).
// Types, layouts and values are those of libusb-1.0's stable ABI (unchanged since 1.0.0; the
// version call since 1.0.13). Only fields up to the last one we read need to match: structs that
// libusb allocates are never allocated or copied here.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#define TORVIK_LIBUSB_CALL __stdcall  // WINAPI, as libusb's Windows builds export
#else
#define TORVIK_LIBUSB_CALL
#endif

namespace torvik::transport::lu {

struct context;
struct device;
struct device_handle;

enum error : int {
    SUCCESS = 0,
    ERROR_IO = -1,
    ERROR_INVALID_PARAM = -2,
    ERROR_ACCESS = -3,
    ERROR_NO_DEVICE = -4,
    ERROR_NOT_FOUND = -5,
    ERROR_BUSY = -6,
    ERROR_TIMEOUT = -7,
    ERROR_OVERFLOW = -8,
    ERROR_PIPE = -9,
    ERROR_INTERRUPTED = -10,
    ERROR_NO_MEM = -11,
    ERROR_NOT_SUPPORTED = -12,
    ERROR_OTHER = -99,
};

enum transfer_status : int {
    TRANSFER_COMPLETED = 0,
    TRANSFER_ERROR = 1,
    TRANSFER_TIMED_OUT = 2,
    TRANSFER_CANCELLED = 3,
    TRANSFER_STALL = 4,
    TRANSFER_NO_DEVICE = 5,
    TRANSFER_OVERFLOW = 6,
};

enum transfer_type : std::uint8_t {
    TRANSFER_TYPE_CONTROL = 0,
    TRANSFER_TYPE_ISOCHRONOUS = 1,
    TRANSFER_TYPE_BULK = 2,
    TRANSFER_TYPE_INTERRUPT = 3,
};

constexpr std::uint8_t DT_STRING = 0x03;
constexpr std::uint8_t ENDPOINT_IN = 0x80;
constexpr std::uint8_t REQUEST_GET_DESCRIPTOR = 0x06;

struct device_descriptor {
    std::uint8_t bLength;
    std::uint8_t bDescriptorType;
    std::uint16_t bcdUSB;
    std::uint8_t bDeviceClass;
    std::uint8_t bDeviceSubClass;
    std::uint8_t bDeviceProtocol;
    std::uint8_t bMaxPacketSize0;
    std::uint16_t idVendor;
    std::uint16_t idProduct;
    std::uint16_t bcdDevice;
    std::uint8_t iManufacturer;
    std::uint8_t iProduct;
    std::uint8_t iSerialNumber;
    std::uint8_t bNumConfigurations;
};

struct endpoint_descriptor {
    std::uint8_t bLength;
    std::uint8_t bDescriptorType;
    std::uint8_t bEndpointAddress;
    std::uint8_t bmAttributes;
    std::uint16_t wMaxPacketSize;
    std::uint8_t bInterval;
    std::uint8_t bRefresh;
    std::uint8_t bSynchAddress;
    const unsigned char* extra;
    int extra_length;
};

struct interface_descriptor {
    std::uint8_t bLength;
    std::uint8_t bDescriptorType;
    std::uint8_t bInterfaceNumber;
    std::uint8_t bAlternateSetting;
    std::uint8_t bNumEndpoints;
    std::uint8_t bInterfaceClass;
    std::uint8_t bInterfaceSubClass;
    std::uint8_t bInterfaceProtocol;
    std::uint8_t iInterface;
    const endpoint_descriptor* endpoint;
    const unsigned char* extra;
    int extra_length;
};

// One interface's alternate settings (libusb_interface).
struct interface_alts {
    const interface_descriptor* altsetting;
    int num_altsetting;
};

struct config_descriptor {
    std::uint8_t bLength;
    std::uint8_t bDescriptorType;
    std::uint16_t wTotalLength;
    std::uint8_t bNumInterfaces;
    std::uint8_t bConfigurationValue;
    std::uint8_t iConfiguration;
    std::uint8_t bmAttributes;
    std::uint8_t MaxPower;
    const interface_alts* interfaces;  // `interface` in libusb's header
    const unsigned char* extra;
    int extra_length;
};

struct version {
    std::uint16_t major, minor, micro, nano;
    const char* rc;
    const char* describe;
};

struct transfer;
using transfer_cb_fn = void(TORVIK_LIBUSB_CALL*)(transfer*);

// Allocated by alloc_transfer only; the isochronous packet descriptors that follow are left out.
struct transfer {
    device_handle* dev_handle;
    std::uint8_t flags;
    unsigned char endpoint;
    unsigned char type;
    unsigned int timeout;
    transfer_status status;
    int length;
    int actual_length;
    transfer_cb_fn callback;
    void* user_data;
    unsigned char* buffer;
    int num_iso_packets;
};

// Every entry point used, as X(result, name without the libusb_ prefix, parameters). One list
// for the function table, its loading and the check that a library has them all.
#define TORVIK_LIBUSB_FUNCTIONS(X)                                                                                    \
    X(int, init, (context**))                                                                                         \
    X(void, exit, (context*))                                                                                         \
    X(std::ptrdiff_t, get_device_list, (context*, device***))                                                         \
    X(void, free_device_list, (device**, int))                                                                        \
    X(int, get_device_descriptor, (device*, device_descriptor*))                                                      \
    X(int, get_config_descriptor, (device*, std::uint8_t, config_descriptor**))                                       \
    X(void, free_config_descriptor, (config_descriptor*))                                                             \
    X(std::uint8_t, get_bus_number, (device*))                                                                        \
    X(std::uint8_t, get_device_address, (device*))                                                                    \
    X(int, open, (device*, device_handle**))                                                                          \
    X(void, close, (device_handle*))                                                                                  \
    X(device*, get_device, (device_handle*))                                                                          \
    X(int, kernel_driver_active, (device_handle*, int))                                                               \
    X(int, detach_kernel_driver, (device_handle*, int))                                                               \
    X(int, control_transfer,                                                                                          \
      (device_handle*, std::uint8_t, std::uint8_t, std::uint16_t, std::uint16_t, unsigned char*, std::uint16_t,       \
       unsigned int))                                                                                                 \
    X(transfer*, alloc_transfer, (int))                                                                               \
    X(int, submit_transfer, (transfer*))                                                                              \
    X(int, cancel_transfer, (transfer*))                                                                              \
    X(void, free_transfer, (transfer*))                                                                               \
    X(int, handle_events_completed, (context*, int*))                                                                 \
    X(const version*, get_version, ())

// The loaded library's entry points.
struct Api {
#define TORVIK_LIBUSB_MEMBER(result, name, params) result(TORVIK_LIBUSB_CALL* name) params = nullptr;
    TORVIK_LIBUSB_FUNCTIONS(TORVIK_LIBUSB_MEMBER)
#undef TORVIK_LIBUSB_MEMBER
};

// What libusb's static fill helper does for a bulk or interrupt transfer.
inline void fillTransfer(transfer* t, device_handle* handle, std::uint8_t endpoint, transfer_type type,
                         unsigned char* buffer, int length, transfer_cb_fn callback, void* user_data,
                         unsigned int timeout_ms) {
    t->dev_handle = handle;
    t->endpoint = endpoint;
    t->type = type;
    t->timeout = timeout_ms;
    t->buffer = buffer;
    t->length = length;
    t->user_data = user_data;
    t->callback = callback;
}

// What libusb's static string-descriptor helper does: a standard GET_DESCRIPTOR request.
inline int getStringDescriptor(const Api& api, device_handle* h, std::uint8_t index, std::uint16_t langid,
                               unsigned char* data, int length) {
    return api.control_transfer(h, ENDPOINT_IN, REQUEST_GET_DESCRIPTOR,
                                static_cast<std::uint16_t>(DT_STRING << 8 | index), langid, data,
                                static_cast<std::uint16_t>(length), 1000);
}

// libusb's text for an error code (libusb_strerror's, kept here so that an error can be told
// without the library).
const char* errorText(int code);

}  // namespace torvik::transport::lu
