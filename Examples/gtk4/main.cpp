// Converts movies behind a GTK 4 window. GTK runs GLib's main loop, which is also the library's, so the jobs call back on
// the main thread, where widgets may be used. Copy this folder as a starting point.
//
//     Gtk4Example                      opens the window, for movies to be dropped or opened
//     Gtk4Example SOURCE DESTINATION   converts one movie and exits: with 0 if it was converted, otherwise with 1
//     Gtk4Example --report MOVIE...    converts these as if they had been dropped, and prints what each row shows in the
//                                      end
//
// ConverterWindow is the window, MovieRow a movie in it.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string_view>
#include <vector>

#include <gtk/gtk.h>

#include "ConverterWindow.h"

namespace {

class Application {
public:
    explicit Application(std::vector<const char*> arguments)
        : arguments_(std::move(arguments))
        , reports_(!arguments_.empty() && std::string_view(arguments_[0]) == "--report") {}

    [[nodiscard]] bool understands() const { return reports_ || arguments_.empty() || arguments_.size() == 2; }

    int run() {
        GtkApplication* application = gtk_application_new("org.example.Gtk4Example", G_APPLICATION_NON_UNIQUE);
        g_signal_connect(application, "activate",
                         G_CALLBACK(+[](GtkApplication* each, Application* self) { self->activate(each); }), this);
        g_application_run(G_APPLICATION(application), 0, nullptr);
        window_.reset();
        g_object_unref(application);
        return status_;
    }

private:
    void activate(GtkApplication* application) {
        window_.emplace(application, [this](const MovieRow& row) { rowEnded(row); });
        if (reports_) {
            dropMovies();
        } else if (!arguments_.empty()) {
            status_ = EXIT_FAILURE;
            window_->add(arguments_[0], arguments_[1]);
        }
    }

    void dropMovies() {
        std::vector<GFile*> files;
        for (std::size_t i = 1; i < arguments_.size(); ++i) {
            files.push_back(g_file_new_for_commandline_arg(arguments_[i]));
        }
        GdkFileList* list = gdk_file_list_new_from_array(files.data(), files.size());
        window_->drop(list);
        g_boxed_free(GDK_TYPE_FILE_LIST, list);
        std::for_each(files.begin(), files.end(), g_object_unref);
    }

    void rowEnded(const MovieRow& row) {
        if (reports_) {
            std::cout << row.text() << std::endl;
        } else if (!arguments_.empty()) {
            if (row.failure()) {
                std::cerr << row.text() << '\n';
            } else {
                status_ = EXIT_SUCCESS;
            }
            window_->close();
        }
    }

    const std::vector<const char*> arguments_;
    const bool reports_;
    int status_ = EXIT_SUCCESS;
    std::optional<ConverterWindow> window_;
};

}  // namespace

int main(int argc, char** argv) {
    Application application({argv + 1, argv + argc});
    if (!application.understands()) {
        std::cerr << "usage: " << argv[0] << " [SOURCE DESTINATION | --report MOVIE...]\n";
        return EXIT_FAILURE;
    }
    return application.run();
}
