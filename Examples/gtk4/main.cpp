// Converts a movie to H.264 behind a GTK 4 window with a progress bar and a cancel button. GTK runs GLib's main loop,
// which is also the library's, so nothing else is needed. Copy it as a starting point.
//
//     Gtk4Example SOURCE DESTINATION
//
// The window closes by itself. Exits with 0 if the movie was converted, otherwise with 1.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include <gtk/gtk.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace {

struct Conversion {
    std::string source;
    std::string destination;
    std::string failure = "The window was never shown.";
    std::atomic<bool> cancelled{false};
    GtkWidget* bar = nullptr;
    std::thread worker;
};

/// Called on the thread that waits for the conversion; widgets belong to the main thread.
class BarFiller final : public krv::OperationProgress {
public:
    explicit BarFiller(Conversion& conversion)
        : conversion_(conversion) {}

    bool operation(const std::shared_ptr<krv::KRVOperationBase>&, float progress) override {
        // The bar and the conversion outlive this callback: the window is destroyed by a later one.
        krv::RunLoop::main().perform([bar = conversion_.bar, progress] {
            gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(bar), static_cast<double>(progress));
        });
        if (conversion_.cancelled) {
            conversion_.failure = "Cancelled.";  // the call returns without an error
            return false;
        }
        return true;
    }

private:
    Conversion& conversion_;
};

/// Blocks until the conversion ends. Called on the worker thread.
void convert(Conversion& conversion, krv::KRVQTProcessOperations& client) {
    std::shared_ptr<const krv::Error> error;
    conversion.failure.clear();
    try {
        client.convertMovie(conversion.source, conversion.destination, krv::VideoConversion::H264, false,
                            std::make_shared<BarFiller>(conversion), &error);
        if (error) {
            conversion.failure = error->localizedDescription();
        }
    } catch (const krv::Exception& exception) {
        conversion.failure = exception.reason();  // the server could not be reached
    }
}

/// Called when the user closes the window or clicks Cancel. The window stays until the conversion has ended.
gboolean cancel(GtkWindow*, Conversion* conversion) {
    conversion->cancelled = true;
    return TRUE;
}

void activate(GtkApplication* application, Conversion* conversion) {
    GtkWidget* window = gtk_application_window_new(application);
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
    GtkWidget* button = gtk_button_new_with_label("Cancel");
    conversion->bar = gtk_progress_bar_new();
    gtk_box_append(GTK_BOX(box), conversion->bar);
    gtk_box_append(GTK_BOX(box), button);
    gtk_window_set_title(GTK_WINDOW(window), "Converting");
    gtk_window_set_default_size(GTK_WINDOW(window), 320, -1);
    gtk_window_set_child(GTK_WINDOW(window), box);
    g_signal_connect_swapped(button, "clicked", G_CALLBACK(gtk_window_close), window);
    g_signal_connect(window, "close-request", G_CALLBACK(cancel), conversion);
    gtk_window_present(GTK_WINDOW(window));

    // Created on the main thread. Finds the server, launches one if none is running, and replaces it if it is lost.
    conversion->worker = std::thread([conversion, window, client = krv::KRVQuicktimeProcessClient::defaultClient()] {
        convert(*conversion, *client);
        // The application quits with its last window.
        krv::RunLoop::main().perform([window] { gtk_window_destroy(GTK_WINDOW(window)); });
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " SOURCE DESTINATION\n";
        return EXIT_FAILURE;
    }
    Conversion conversion;
    // The server does not share our working directory.
    conversion.source = std::filesystem::absolute(argv[1]);
    conversion.destination = std::filesystem::absolute(argv[2]);

    GtkApplication* application = gtk_application_new("org.example.Gtk4Example", G_APPLICATION_NON_UNIQUE);
    g_signal_connect(application, "activate", G_CALLBACK(activate), &conversion);
    g_application_run(G_APPLICATION(application), 1, argv);
    if (conversion.worker.joinable()) {
        conversion.worker.join();
    }
    g_object_unref(application);
    if (!conversion.failure.empty()) {
        std::cerr << conversion.failure << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
