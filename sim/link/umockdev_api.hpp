// The part of umockdev (and of the GLib under it) that the emulated USB bus uses, loaded at run
// time from libumockdev.so.0, so that building the emulator needs no umockdev or GLib headers and
// a binary built anywhere plays USB units wherever umockdev is installed.
//
// The declarations follow umockdev's stable C interface (0.16 and later, where ioctl handlers
// came in); the names keep the library's own, inside this namespace, so the code that uses them
// reads like umockdev's documentation.
#pragma once

#include <cstddef>
#include <string>

namespace sim::um {

using gboolean = int;
using gpointer = void*;
using gchar = char;
using guint8 = unsigned char;
using guint32 = unsigned int;
using gulong = unsigned long;
using GQuark = guint32;
using gsize = std::size_t;

constexpr gboolean TRUE = 1;
constexpr gboolean FALSE = 0;
constexpr int G_PRIORITY_DEFAULT = 0;
constexpr gboolean G_SOURCE_REMOVE = FALSE;

struct GMainContext;
struct GData;
struct GObject {
    void* g_class;
    unsigned int ref_count;
    GData* qdata;
};
struct GError {
    GQuark domain;
    int code;
    gchar* message;
};

struct UMockdevTestbed;
struct UMockdevIoctlBase;
struct UMockdevIoctlClient;
struct UMockdevIoctlData {
    GObject parent_instance;
    guint8* data;
    int data_len;
    gulong client_addr;
    void* priv;
};

using GSourceFunc = gboolean (*)(gpointer);
using GDestroyNotify = void (*)(gpointer);
using GWeakNotify = void (*)(gpointer, GObject*);
using GCallback = void (*)();

// Why the library cannot be used here ("" when it can); loads it on the first call.
const std::string& unavailableReason();
// The full path of umockdev's preload, beside the library that was loaded.
std::string preloadPath();

// Valid once unavailableReason() is empty.
UMockdevTestbed* umockdev_testbed_new();
gchar* umockdev_testbed_get_root_dir(UMockdevTestbed* self);
void umockdev_testbed_set_property(UMockdevTestbed* self, const gchar* devpath, const gchar* name, const gchar* value);
void umockdev_testbed_remove_device(UMockdevTestbed* self, const gchar* syspath);
gboolean umockdev_testbed_add_from_string(UMockdevTestbed* self, const gchar* data, GError** error);
void umockdev_testbed_uevent(UMockdevTestbed* self, const gchar* devpath, const gchar* action);
gboolean umockdev_testbed_attach_ioctl(UMockdevTestbed* self, const gchar* dev, UMockdevIoctlBase* handler,
                                       GError** error);
UMockdevIoctlData* umockdev_ioctl_data_resolve(UMockdevIoctlData* self, std::size_t offset, std::size_t len,
                                               GError** error);
gboolean umockdev_ioctl_data_set_ptr(UMockdevIoctlData* self, std::size_t offset, UMockdevIoctlData* child);
gulong umockdev_ioctl_client_get_request(UMockdevIoctlClient* self);
UMockdevIoctlData* umockdev_ioctl_client_get_arg(UMockdevIoctlClient* self);
void umockdev_ioctl_client_complete(UMockdevIoctlClient* self, long res, int errno_);
UMockdevIoctlBase* umockdev_ioctl_base_new();

void g_free(gpointer mem);
void g_clear_error(GError** err);
GMainContext* g_main_context_get_thread_default();
GMainContext* g_main_context_ref(GMainContext* context);
void g_main_context_unref(GMainContext* context);
void g_main_context_invoke_full(GMainContext* context, int priority, GSourceFunc function, gpointer data,
                                GDestroyNotify notify);
void g_object_unref(gpointer object);
void g_object_weak_ref(GObject* object, GWeakNotify notify, gpointer data);
gulong g_signal_connect(gpointer instance, const gchar* signal, GCallback handler, gpointer data);

inline GObject* G_OBJECT(gpointer p) { return static_cast<GObject*>(p); }
template <typename F>
GCallback G_CALLBACK(F* f) {
    return reinterpret_cast<GCallback>(f);
}

}  // namespace sim::um
