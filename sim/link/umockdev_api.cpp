#include "link/umockdev_api.hpp"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <mutex>

namespace sim::um {

namespace {

constexpr const char* kLibrary = "libumockdev.so.0";
constexpr const char* kPreload = "libumockdev-preload.so.0";

struct Api {
    std::string reason;
    std::string dir;  // where the library was found, with a trailing slash
    UMockdevTestbed* (*testbed_new)();
    gchar* (*testbed_get_root_dir)(UMockdevTestbed*);
    void (*testbed_set_property)(UMockdevTestbed*, const gchar*, const gchar*, const gchar*);
    void (*testbed_remove_device)(UMockdevTestbed*, const gchar*);
    gboolean (*testbed_add_from_string)(UMockdevTestbed*, const gchar*, GError**);
    void (*testbed_uevent)(UMockdevTestbed*, const gchar*, const gchar*);
    gboolean (*testbed_attach_ioctl)(UMockdevTestbed*, const gchar*, UMockdevIoctlBase*, GError**);
    UMockdevIoctlData* (*ioctl_data_resolve)(UMockdevIoctlData*, std::size_t, std::size_t, GError**);
    gboolean (*ioctl_data_set_ptr)(UMockdevIoctlData*, std::size_t, UMockdevIoctlData*);
    gulong (*ioctl_client_get_request)(UMockdevIoctlClient*);
    UMockdevIoctlData* (*ioctl_client_get_arg)(UMockdevIoctlClient*);
    void (*ioctl_client_complete)(UMockdevIoctlClient*, long, int);
    UMockdevIoctlBase* (*ioctl_base_new)();
    void (*free)(gpointer);
    void (*clear_error)(GError**);
    GMainContext* (*main_context_get_thread_default)();
    GMainContext* (*main_context_ref)(GMainContext*);
    void (*main_context_unref)(GMainContext*);
    void (*main_context_invoke_full)(GMainContext*, int, GSourceFunc, gpointer, GDestroyNotify);
    void (*object_unref)(gpointer);
    void (*object_weak_ref)(GObject*, GWeakNotify, gpointer);
    gulong (*signal_connect_data)(gpointer, const gchar*, GCallback, gpointer, void*, int);
};

template <typename F>
bool bind(void* lib, const char* name, F& slot, std::string& missing) {
    slot = reinterpret_cast<F>(dlsym(lib, name));
    if (!slot) missing += missing.empty() ? name : std::string(", ") + name;
    return slot != nullptr;
}

// Loaded once and kept for the life of the process (its handlers run until the end).
const Api& api() {
    static Api a = [] {
        Api r{};
        void* lib = dlopen(kLibrary, RTLD_NOW | RTLD_GLOBAL);
        if (!lib) {
            const char* err = dlerror();
            r.reason = std::string(kLibrary) + " could not be loaded (" + (err ? err : "not found") +
                       "): install umockdev (Debian/Ubuntu: sudo apt-get install umockdev)";
            return r;
        }
        if (link_map* map = nullptr; dlinfo(lib, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name) {
            std::string path = map->l_name;
            r.dir = path.substr(0, path.rfind('/') + 1);
        }
        // GLib's functions come with the library, which links them.
        std::string missing;
        bind(lib, "umockdev_testbed_new", r.testbed_new, missing);
        bind(lib, "umockdev_testbed_get_root_dir", r.testbed_get_root_dir, missing);
        bind(lib, "umockdev_testbed_set_property", r.testbed_set_property, missing);
        bind(lib, "umockdev_testbed_remove_device", r.testbed_remove_device, missing);
        bind(lib, "umockdev_testbed_add_from_string", r.testbed_add_from_string, missing);
        bind(lib, "umockdev_testbed_uevent", r.testbed_uevent, missing);
        bind(lib, "umockdev_testbed_attach_ioctl", r.testbed_attach_ioctl, missing);
        bind(lib, "umockdev_ioctl_data_resolve", r.ioctl_data_resolve, missing);
        bind(lib, "umockdev_ioctl_data_set_ptr", r.ioctl_data_set_ptr, missing);
        bind(lib, "umockdev_ioctl_client_get_request", r.ioctl_client_get_request, missing);
        bind(lib, "umockdev_ioctl_client_get_arg", r.ioctl_client_get_arg, missing);
        bind(lib, "umockdev_ioctl_client_complete", r.ioctl_client_complete, missing);
        bind(lib, "umockdev_ioctl_base_new", r.ioctl_base_new, missing);
        bind(lib, "g_free", r.free, missing);
        bind(lib, "g_clear_error", r.clear_error, missing);
        bind(lib, "g_main_context_get_thread_default", r.main_context_get_thread_default, missing);
        bind(lib, "g_main_context_ref", r.main_context_ref, missing);
        bind(lib, "g_main_context_unref", r.main_context_unref, missing);
        bind(lib, "g_main_context_invoke_full", r.main_context_invoke_full, missing);
        bind(lib, "g_object_unref", r.object_unref, missing);
        bind(lib, "g_object_weak_ref", r.object_weak_ref, missing);
        bind(lib, "g_signal_connect_data", r.signal_connect_data, missing);
        if (!missing.empty())
            r.reason = std::string(kLibrary) + " lacks " + missing + ": umockdev 0.16 or newer is needed";
        return r;
    }();
    return a;
}

}  // namespace

const std::string& unavailableReason() { return api().reason; }

std::string preloadPath() {
    // Packaged beside the library (Debian); elsewhere left to the loader's search.
    const std::string beside = api().dir + kPreload;
    return !api().dir.empty() && access(beside.c_str(), R_OK) == 0 ? beside : kPreload;
}

UMockdevTestbed* umockdev_testbed_new() { return api().testbed_new(); }
gchar* umockdev_testbed_get_root_dir(UMockdevTestbed* self) { return api().testbed_get_root_dir(self); }
void umockdev_testbed_set_property(UMockdevTestbed* self, const gchar* devpath, const gchar* name, const gchar* value) {
    api().testbed_set_property(self, devpath, name, value);
}
void umockdev_testbed_remove_device(UMockdevTestbed* self, const gchar* syspath) {
    api().testbed_remove_device(self, syspath);
}
gboolean umockdev_testbed_add_from_string(UMockdevTestbed* self, const gchar* data, GError** error) {
    return api().testbed_add_from_string(self, data, error);
}
void umockdev_testbed_uevent(UMockdevTestbed* self, const gchar* devpath, const gchar* action) {
    api().testbed_uevent(self, devpath, action);
}
gboolean umockdev_testbed_attach_ioctl(UMockdevTestbed* self, const gchar* dev, UMockdevIoctlBase* handler,
                                       GError** error) {
    return api().testbed_attach_ioctl(self, dev, handler, error);
}
UMockdevIoctlData* umockdev_ioctl_data_resolve(UMockdevIoctlData* self, std::size_t offset, std::size_t len,
                                               GError** error) {
    return api().ioctl_data_resolve(self, offset, len, error);
}
gboolean umockdev_ioctl_data_set_ptr(UMockdevIoctlData* self, std::size_t offset, UMockdevIoctlData* child) {
    return api().ioctl_data_set_ptr(self, offset, child);
}
gulong umockdev_ioctl_client_get_request(UMockdevIoctlClient* self) { return api().ioctl_client_get_request(self); }
UMockdevIoctlData* umockdev_ioctl_client_get_arg(UMockdevIoctlClient* self) { return api().ioctl_client_get_arg(self); }
void umockdev_ioctl_client_complete(UMockdevIoctlClient* self, long res, int errno_) {
    api().ioctl_client_complete(self, res, errno_);
}
UMockdevIoctlBase* umockdev_ioctl_base_new() { return api().ioctl_base_new(); }

void g_free(gpointer mem) { api().free(mem); }
void g_clear_error(GError** err) { api().clear_error(err); }
GMainContext* g_main_context_get_thread_default() { return api().main_context_get_thread_default(); }
GMainContext* g_main_context_ref(GMainContext* context) { return api().main_context_ref(context); }
void g_main_context_unref(GMainContext* context) { api().main_context_unref(context); }
void g_main_context_invoke_full(GMainContext* context, int priority, GSourceFunc function, gpointer data,
                                GDestroyNotify notify) {
    api().main_context_invoke_full(context, priority, function, data, notify);
}
void g_object_unref(gpointer object) { api().object_unref(object); }
void g_object_weak_ref(GObject* object, GWeakNotify notify, gpointer data) {
    api().object_weak_ref(object, notify, data);
}
gulong g_signal_connect(gpointer instance, const gchar* signal, GCallback handler, gpointer data) {
    return api().signal_connect_data(instance, signal, handler, data, nullptr, 0);
}

}  // namespace sim::um
