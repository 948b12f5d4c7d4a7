#include "MovieRow.h"

#include <QDesktopServices>
#include <QFile>
#include <QHBoxLayout>
#include <QIcon>
#include <QLocale>
#include <QPixmap>
#include <QStyle>
#include <QUrl>
#include <QVBoxLayout>
#include <cmath>
#include <utility>

namespace {

constexpr int kSteps = 1000;
constexpr QSize kPosterSize(96, 72);

QString pathText(const std::filesystem::path& path) {
    return QFile::decodeName(path.c_str());
}

void setText(QLabel* label, const QString& text) {
    label->setText(text);
    label->setVisible(!text.isEmpty());
}

void setColour(QLabel* label, const QColor& colour) {
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, colour);
    label->setPalette(palette);
    label->setForegroundRole(QPalette::WindowText);
}

QString join(QStringList texts, const char* separator) {
    texts.removeAll(QString());
    return texts.join(QString::fromUtf8(separator));
}

/// Returns "0:07" or "1:02:03".
QString clockText(krv::Seconds time) {
    const auto seconds = std::llround(time.count());
    const auto twoDigits = [](long long number) { return QString("%1").arg(number, 2, 10, QChar('0')); };
    const QString end = ':' + twoDigits(seconds % 60);
    return seconds < 3600 ? QString::number(seconds / 60) + end
                          : QString::number(seconds / 3600) + ':' + twoDigits(seconds / 60 % 60) + end;
}

QString textOf(const krv::Progress& progress) {
    switch (progress.state) {
    case krv::Progress::State::WaitingForServer:
        return join({"Waiting for the media server", QString::fromStdString(progress.waitingFor)}, ": ");
    case krv::Progress::State::Queued:
        return "Waiting for other movies";
    case krv::Progress::State::Finishing:
        return "Finishing";
    case krv::Progress::State::Running:
        break;
    }
    return join({QString("%1 %").arg(static_cast<int>(progress.fraction * 100)),
                 progress.remaining ? clockText(*progress.remaining) + " left" : QString()},
                " · ");
}

}  // namespace

MovieRow::MovieRow(const krv::Media& media, krv::ConvertOptions options, std::function<void(const MovieRow&)> ended)
    : source_(options.source)
    , destination_(options.destination)
    , ended_(std::move(ended)) {
    build();
    info_ = media.info(source_).then([this](const krv::Result<krv::MovieInfo>& info) { describe(info); });
    options.onProgress = [this](const krv::Progress& progress) { showProgress(progress); };
    conversion_ = media.convert(std::move(options)).then([this](const krv::Result<krv::Converted>& result) {
        showResult(result);
    });
}

void MovieRow::build() {
    const QIcon icon = QIcon::fromTheme("video-x-generic", style()->standardIcon(QStyle::SP_FileIcon));
    poster_->setPixmap(icon.pixmap(kPosterSize / 2));
    poster_->setFixedSize(kPosterSize);
    poster_->setAlignment(Qt::AlignCenter);

    for (QLabel* label : {name_, description_, status_, details_}) {
        label->setTextFormat(Qt::PlainText);  // a file's name may look like markup
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
        label->setWordWrap(true);
        label->hide();
    }
    QFont bold = name_->font();
    bold.setBold(true);
    name_->setFont(bold);
    QColor pale = palette().color(QPalette::WindowText);
    pale.setAlphaF(0.6F);
    setColour(description_, pale);
    setText(name_, pathText(source_.filename()));
    setText(status_, "Waiting");
    bar_->setRange(0, kSteps);
    bar_->setTextVisible(false);
    bar_->setFixedHeight(bar_->sizeHint().height() / 2);
    connect(button_, &QPushButton::clicked, this, [this] { press(); });

    auto* texts = new QVBoxLayout;
    texts->setSpacing(3);
    texts->addStretch();
    for (QWidget* each : std::initializer_list<QWidget*>{name_, description_, bar_, status_, details_}) {
        texts->addWidget(each);
    }
    texts->addStretch();
    auto* row = new QHBoxLayout(this);
    row->setSpacing(18);
    row->addWidget(poster_);
    row->addLayout(texts, 1);
    row->addWidget(button_);
}

void MovieRow::describe(const krv::Result<krv::MovieInfo>& info) {
    if (info) {  // if not, the conversion fails for the same reason
        setText(description_,
                join({QString::fromStdString(info->codecs), info->duration ? clockText(*info->duration) : QString(),
                      info->width > 0 ? QString("%1 × %2").arg(info->width).arg(info->height) : QString(),
                      locale().formattedDataSize(info->size, 1, QLocale::DataSizeSIFormat)},
                     " · "));
    }
    if (info && info->poster) {
        QPixmap picture;
        picture.loadFromData(reinterpret_cast<const uchar*>(info->poster->data()),
                             static_cast<uint>(info->poster->size()));
        if (!picture.isNull()) {
            poster_->setPixmap(picture.scaled(kPosterSize, Qt::KeepAspectRatio, Qt::SmoothTransformation));
        }
    }
    jobEnded();
}

void MovieRow::showProgress(const krv::Progress& progress) {
    bar_->setValue(static_cast<int>(progress.fraction * kSteps));
    setText(status_, textOf(progress));
}

void MovieRow::showResult(const krv::Result<krv::Converted>& result) {
    bar_->hide();
    button_->setVisible(result.has_value());
    if (result) {
        setText(status_, "Saved as " + pathText(result->path));
        QStringList dropped;
        for (const krv::DroppedTrack& track : result->droppedTracks) {
            dropped += QString::fromStdString("Without " + track.kind + ": " + track.reason);
        }
        setText(details_, join(dropped, "\n"));
        button_->setText("Show in Files");
    } else {
        failure_ = result.error();
        if (failure_->kind() != krv::Failure::Kind::Cancelled) {
            setColour(status_, QColor(0xc0, 0x1c, 0x28));
        }
        setText(status_, QString::fromStdString(failure_->message()));
        setText(
            details_,
            join({QString::fromStdString(failure_->cause()), QString::fromStdString(failure_->suggestion())}, "\n"));
    }
    jobEnded();
}

void MovieRow::press() {
    if (conversion_->hasEnded()) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(pathText(destination_.parent_path())));
    } else {
        cancel();
    }
}

void MovieRow::cancel() {
    info_->cancel();
    conversion_->cancel();
}

void MovieRow::jobEnded() {
    if (--unfinished_ == 0) {
        ended_(*this);
    }
}

QString MovieRow::text() const {
    const QString button = button_->isHidden() ? QString() : button_->text();
    return join({name_->text(), description_->text(), status_->text(), details_->text(), button}, " | ")
        .replace('\n', ' ');
}
