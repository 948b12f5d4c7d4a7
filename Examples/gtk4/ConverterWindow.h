#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include <gtk/gtk.h>

#include <KRVQTProcessClient/Media.h>

#include "MovieRow.h"

/// The window: a choice of what to convert to, and a row for each movie that was dropped or opened. Create it on the main
/// thread.
class ConverterWindow {
public:
    /// ended: called for each row that has ended.
    ConverterWindow(GtkApplication* application, std::function<void(const MovieRow&)> ended);
    ConverterWindow(const ConverterWindow&) = delete;
    ConverterWindow& operator=(const ConverterWindow&) = delete;

    /// Converts movies to the chosen type. The files are written beside them, and none is replaced.
    void drop(GdkFileList* files);
    /// Converts a movie to H.264, or to what suits the destination's extension.
    void add(const std::filesystem::path& source, const std::filesystem::path& destination);
    /// Cancels what has not ended, waits for that, and destroys the window.
    void close();

private:
    void build(GtkApplication* application);
    void open();
    void opened(int response);
    void add(GFile* file);
    void start(krv::ConvertOptions options);
    void rowEnded(const MovieRow& row);

    const std::function<void(const MovieRow&)> ended_;
    GtkWidget* window_ = nullptr;
    GtkWidget* list_ = nullptr;
    GtkWidget* choices_ = nullptr;
    GtkFileChooserNative* dialog_ = nullptr;
    bool closing_ = false;
    /// Destinations of all rows, which have no file yet.
    std::set<std::filesystem::path> taken_;
    const krv::Media media_;
    std::vector<std::unique_ptr<MovieRow>> rows_;
};
