#pragma once

#include <QComboBox>
#include <QLabel>
#include <QList>
#include <QMainWindow>
#include <QUrl>
#include <QVBoxLayout>
#include <filesystem>
#include <functional>
#include <set>
#include <vector>

#include <KRVQTProcessClient/Media.h>

#include "MovieRow.h"

/// The window: a choice of what to convert to, and a row for each movie that was dropped or opened. Create it on the main
/// thread.
class ConverterWindow final : public QMainWindow {
public:
    /// ended: called for each row that has ended.
    explicit ConverterWindow(std::function<void(const MovieRow&)> ended);

    /// Converts movies to the chosen type. The files are written beside them, and none is replaced.
    void add(const QList<QUrl>& files);
    /// Converts a movie to H.264, or to what suits the destination's extension.
    void add(const std::filesystem::path& source, const std::filesystem::path& destination);

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    /// Cancels what has not ended, and closes the window when that has ended.
    void closeEvent(QCloseEvent* event) override;

private:
    void open();
    void start(krv::ConvertOptions options);
    void rowEnded(const MovieRow& row);

    const krv::Media media_;
    const std::function<void(const MovieRow&)> ended_;
    QComboBox* const choices_ = new QComboBox(this);
    QLabel* const hint_ = new QLabel("Drop movies here, or choose them with Open.", this);
    QVBoxLayout* list_ = nullptr;
    std::vector<MovieRow*> rows_;
    bool closing_ = false;
    /// Destinations of all rows, which have no file yet.
    std::set<std::filesystem::path> taken_;
};
