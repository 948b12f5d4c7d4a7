#include "ConverterWindow.h"

#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QFrame>
#include <QMimeData>
#include <QScrollArea>
#include <QToolBar>
#include <algorithm>
#include <utility>

#include "Destination.h"

ConverterWindow::ConverterWindow(std::function<void(const MovieRow&)> ended)
    : ended_(std::move(ended)) {
    for (const Choice& choice : kChoices) {
        const std::string_view name = krv::VideoConversion::nameForType(choice.type);
        choices_->addItem(QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size())));
    }
    choices_->setToolTip("What the next movies are converted to");

    auto* space = new QWidget(this);
    space->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    QToolBar* bar = addToolBar("Movies");
    bar->setMovable(false);
    bar->addAction("&Open…", this, [this] { open(); });
    bar->addWidget(space);
    bar->addWidget(new QLabel("Convert to ", this));
    bar->addWidget(choices_);

    hint_->setAlignment(Qt::AlignCenter);
    hint_->setMargin(48);
    auto* movies = new QWidget(this);
    movies->setBackgroundRole(QPalette::Base);
    list_ = new QVBoxLayout(movies);
    list_->addWidget(hint_, 1);
    auto* scroller = new QScrollArea(this);
    scroller->setWidgetResizable(true);
    scroller->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroller->setWidget(movies);
    setCentralWidget(scroller);
    setWindowTitle("Movie Converter");
    setAcceptDrops(true);
    resize(680, 440);
}

void ConverterWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) {
        event->acceptProposedAction();
    }
}

void ConverterWindow::dropEvent(QDropEvent* event) {
    add(event->mimeData()->urls());
    event->setDropAction(Qt::CopyAction);
    event->accept();
}

void ConverterWindow::open() {
    add(QFileDialog::getOpenFileUrls(this, "Open Movies"));
}

void ConverterWindow::add(const QList<QUrl>& files) {
    const Choice& choice = kChoices.at(static_cast<std::size_t>(choices_->currentIndex()));
    for (const QUrl& file : files) {
        // A file that is not on this machine has no path. Then the row says that it cannot be found.
        const QString name = file.isLocalFile() ? file.toLocalFile() : file.toString();
        const std::filesystem::path source = QFile::encodeName(name).toStdString();
        const auto destination = freeDestination(source, choice.extension, taken_);
        taken_.insert(destination);
        start({.source = source, .destination = destination, .type = choice.type});
    }
}

void ConverterWindow::add(const std::filesystem::path& source, const std::filesystem::path& destination) {
    start({.source = source, .destination = destination});
}

void ConverterWindow::start(krv::ConvertOptions options) {
    if (rows_.empty()) {
        hint_->hide();
        list_->addStretch(1);
    }
    rows_.push_back(new MovieRow(media_, std::move(options), [this](const MovieRow& ended) { rowEnded(ended); }));
    auto* line = new QFrame(this);
    line->setFrameStyle(QFrame::HLine | QFrame::Sunken);
    list_->insertWidget(list_->count() - 1, rows_.back());  // before the stretch
    list_->insertWidget(list_->count() - 1, line);
}

void ConverterWindow::rowEnded(const MovieRow& row) {
    ended_(row);
    if (closing_) {
        close();
    }
}

void ConverterWindow::closeEvent(QCloseEvent* event) {
    closing_ = true;
    for (MovieRow* row : rows_) {
        row->cancel();
    }
    event->setAccepted(std::all_of(rows_.begin(), rows_.end(), [](const MovieRow* row) { return row->hasEnded(); }));
}
