#include "MovieRow.h"

#include <cmath>
#include <initializer_list>
#include <memory>
#include <utility>

#include "ShowInFiles.h"

namespace {

constexpr int kPosterSize = 96;
constexpr int kMargin = 12;

GtkWidget* label(const char* style) {
    GtkWidget* label = gtk_label_new(nullptr);
    gtk_label_set_xalign(GTK_LABEL(label), 0);
    gtk_label_set_wrap(GTK_LABEL(label), TRUE);
    gtk_label_set_wrap_mode(GTK_LABEL(label), PANGO_WRAP_WORD_CHAR);
    gtk_label_set_selectable(GTK_LABEL(label), TRUE);
    gtk_widget_set_can_focus(label, FALSE);
    gtk_widget_set_visible(label, FALSE);
    gtk_widget_add_css_class(label, style);
    return label;
}

void setText(GtkWidget* label, const std::string& text) {
    gtk_label_set_text(GTK_LABEL(label), text.c_str());
    gtk_widget_set_visible(label, !text.empty());
}

std::string join(std::initializer_list<std::string> texts, const char* separator) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() || text.empty() ? "" : separator) + text;
    }
    return joined;
}

/// Takes ownership of a text of GLib's.
std::string take(char* text) {
    return std::unique_ptr<char, decltype(&g_free)>(text, g_free).get();
}

/// Returns "0:07" or "1:02:03".
std::string clockText(krv::Seconds time) {
    const auto seconds = std::llround(time.count());
    return take(seconds < 3600
                    ? g_strdup_printf("%lld:%02lld", seconds / 60, seconds % 60)
                    : g_strdup_printf("%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60));
}

std::string textOf(const krv::Progress& progress) {
    switch (progress.state) {
    case krv::Progress::State::WaitingForServer:
        return join({"Waiting for the media server", progress.waitingFor}, ": ");
    case krv::Progress::State::Queued:
        return "Waiting for other movies";
    case krv::Progress::State::Finishing:
        return "Finishing";
    case krv::Progress::State::Running:
        break;
    }
    return join({std::to_string(static_cast<int>(progress.fraction * 100)) + " %",
                 progress.remaining ? clockText(*progress.remaining) + " left" : ""},
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

MovieRow::~MovieRow() {
    g_signal_handlers_disconnect_by_data(button_, this);
    g_object_unref(widget_);
}

void MovieRow::build() {
    poster_ = gtk_image_new_from_icon_name("video-x-generic");
    gtk_image_set_pixel_size(GTK_IMAGE(poster_), kPosterSize);

    GtkWidget* texts = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    gtk_widget_set_hexpand(texts, TRUE);
    gtk_widget_set_valign(texts, GTK_ALIGN_CENTER);
    name_ = label("heading");
    description_ = label("dim-label");
    bar_ = gtk_progress_bar_new();
    status_ = label("caption");
    details_ = label("caption");
    for (GtkWidget* each : {name_, description_, bar_, status_, details_}) {
        gtk_box_append(GTK_BOX(texts), each);
    }
    setText(name_, take(g_filename_display_basename(source_.c_str())));
    setText(status_, "Waiting");

    button_ = gtk_button_new_with_label("Cancel");
    gtk_widget_set_valign(button_, GTK_ALIGN_CENTER);
    g_signal_connect_swapped(button_, "clicked", G_CALLBACK(+[](MovieRow* self) { self->press(); }), this);

    // Referenced, so that callbacks may use the widgets for as long as the row exists, even without its window.
    widget_ = GTK_WIDGET(g_object_ref_sink(gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 18)));
    for (GtkWidget* each : {poster_, texts, button_}) {
        gtk_box_append(GTK_BOX(widget_), each);
    }
    gtk_widget_set_margin_start(widget_, kMargin);
    gtk_widget_set_margin_end(widget_, kMargin);
    gtk_widget_set_margin_top(widget_, kMargin / 2);
    gtk_widget_set_margin_bottom(widget_, kMargin / 2);
}

void MovieRow::describe(const krv::Result<krv::MovieInfo>& info) {
    if (info) {  // if not, the conversion fails for the same reason
        setText(description_,
                join({info->codecs, info->duration ? clockText(*info->duration) : "",
                      info->width > 0 ? take(g_strdup_printf("%.0f × %.0f", info->width, info->height)) : "",
                      take(g_format_size(static_cast<guint64>(info->size)))},
                     " · "));
    }
    if (info && info->poster) {
        GBytes* bytes = g_bytes_new(info->poster->data(), info->poster->size());
        if (GdkTexture* texture = gdk_texture_new_from_bytes(bytes, nullptr)) {
            gtk_image_set_from_paintable(GTK_IMAGE(poster_), GDK_PAINTABLE(texture));
            g_object_unref(texture);
        }
        g_bytes_unref(bytes);
    }
    jobEnded();
}

void MovieRow::showProgress(const krv::Progress& progress) {
    gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(bar_), progress.fraction);
    setText(status_, textOf(progress));
}

void MovieRow::showResult(const krv::Result<krv::Converted>& result) {
    gtk_widget_set_visible(bar_, FALSE);
    gtk_widget_set_visible(button_, result.has_value());
    if (result) {
        setText(status_, "Saved as " + take(g_filename_display_name(result->path.c_str())));
        std::string dropped;
        for (const krv::DroppedTrack& track : result->droppedTracks) {
            dropped = join({dropped, "Without " + track.kind + ": " + track.reason}, "\n");
        }
        setText(details_, dropped);
        gtk_button_set_label(GTK_BUTTON(button_), "Show in Files");
    } else {
        failure_ = result.error();
        const bool wasCancelled = failure_->kind() == krv::Failure::Kind::Cancelled;
        gtk_widget_add_css_class(status_, wasCancelled ? "dim-label" : "error");
        setText(status_, failure_->message());
        setText(details_, join({failure_->cause(), failure_->suggestion()}, "\n"));
    }
    jobEnded();
}

void MovieRow::press() {
    if (conversion_->hasEnded()) {
        showInFiles(destination_);
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

std::string MovieRow::text() const {
    std::string text;
    for (GtkWidget* each : {name_, description_, status_, details_}) {
        text = join({text, gtk_label_get_text(GTK_LABEL(each))}, " | ");
    }
    const bool hasButton = gtk_widget_get_visible(button_) != FALSE;
    text = join({text, hasButton ? gtk_button_get_label(GTK_BUTTON(button_)) : ""}, " | ");
    return take(g_strdelimit(g_strdup(text.c_str()), "\n", ' '));
}
