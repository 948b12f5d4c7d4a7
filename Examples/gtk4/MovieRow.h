#pragma once

#include <functional>
#include <optional>
#include <string>

#include <gtk/gtk.h>

#include <KRVQTProcessClient/Media.h>

/// A row of the window: describes a movie, converts it, and shows how that went. For the main thread, on which the jobs
/// call back.
class MovieRow {
public:
    /// Starts at once. ended: called once, when nothing is left to do or to show.
    MovieRow(const krv::Media& media, krv::ConvertOptions options, std::function<void(const MovieRow&)> ended);
    /// Cancels what has not ended.
    ~MovieRow();
    MovieRow(const MovieRow&) = delete;
    MovieRow& operator=(const MovieRow&) = delete;

    void cancel();
    [[nodiscard]] bool hasEnded() const { return unfinished_ == 0; }
    /// Why the movie was not converted; nothing if it was, or if that has not ended.
    [[nodiscard]] const std::optional<krv::Failure>& failure() const { return failure_; }
    [[nodiscard]] GtkWidget* widget() const { return widget_; }
    /// Returns what a person reads in the row, in one line.
    [[nodiscard]] std::string text() const;

private:
    void build();
    void describe(const krv::Result<krv::MovieInfo>& info);
    void showProgress(const krv::Progress& progress);
    void showResult(const krv::Result<krv::Converted>& result);
    void press();
    void jobEnded();

    const std::filesystem::path source_;
    const std::filesystem::path destination_;
    const std::function<void(const MovieRow&)> ended_;
    std::optional<krv::Failure> failure_;
    int unfinished_ = 2;
    GtkWidget* widget_ = nullptr;
    GtkWidget* poster_ = nullptr;
    GtkWidget* name_ = nullptr;
    GtkWidget* description_ = nullptr;
    GtkWidget* bar_ = nullptr;
    GtkWidget* status_ = nullptr;
    GtkWidget* details_ = nullptr;
    GtkWidget* button_ = nullptr;
    // Last, so that no callback is called any more when the rest is destroyed.
    std::optional<krv::Job<krv::MovieInfo>> info_;
    std::optional<krv::Job<krv::Converted>> conversion_;
};
