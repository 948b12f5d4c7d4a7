#pragma once

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QWidget>
#include <filesystem>
#include <functional>
#include <optional>

#include <KRVQTProcessClient/Media.h>

/// A row of the window: describes a movie, converts it, and shows how that went. The jobs call back on the main thread.
class MovieRow final : public QWidget {
public:
    /// Starts at once. ended: called once, when nothing is left to do or to show.
    MovieRow(const krv::Media& media, krv::ConvertOptions options, std::function<void(const MovieRow&)> ended);

    void cancel();
    [[nodiscard]] bool hasEnded() const { return unfinished_ == 0; }
    /// Why the movie was not converted; nothing if it was, or if that has not ended.
    [[nodiscard]] const std::optional<krv::Failure>& failure() const { return failure_; }
    /// Returns what a person reads in the row, in one line.
    [[nodiscard]] QString text() const;

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
    QLabel* const poster_ = new QLabel(this);
    QLabel* const name_ = new QLabel(this);
    QLabel* const description_ = new QLabel(this);
    QProgressBar* const bar_ = new QProgressBar(this);
    QLabel* const status_ = new QLabel(this);
    QLabel* const details_ = new QLabel(this);
    QPushButton* const button_ = new QPushButton("Cancel", this);
    // Destroying them cancels what has not ended, and no callback is called any more.
    std::optional<krv::Job<krv::MovieInfo>> info_;
    std::optional<krv::Job<krv::Converted>> conversion_;
};
