#include "ShowInFiles.h"

#include <memory>

#include <gtk/gtk.h>

namespace {

/// Called with what the file manager replied. Opens the folder if there is no reply.
void replied(GObject* bus, GAsyncResult* result, gpointer folder) {
    const std::unique_ptr<char, decltype(&g_free)> uri(static_cast<char*>(folder), g_free);
    if (GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, nullptr)) {
        g_variant_unref(reply);
    } else {
        gtk_show_uri(nullptr, uri.get(), GDK_CURRENT_TIME);
    }
}

}  // namespace

void showInFiles(const std::filesystem::path& file) {
    char* folder = g_filename_to_uri(file.parent_path().c_str(), nullptr, nullptr);
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (bus == nullptr) {
        gtk_show_uri(nullptr, folder, GDK_CURRENT_TIME);
        g_free(folder);
        return;
    }
    char* uri = g_filename_to_uri(file.c_str(), nullptr, nullptr);
    GVariant* uris = g_variant_new_strv(&uri, 1);
    g_dbus_connection_call(bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                           "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(@ass)", uris, ""), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, replied, folder);
    g_free(uri);
    g_object_unref(bus);
}
