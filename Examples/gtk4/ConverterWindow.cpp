#include "ConverterWindow.h"

#include <algorithm>
#include <utility>

#include "Destination.h"

ConverterWindow::ConverterWindow(GtkApplication* application, std::function<void(const MovieRow&)> ended)
    : ended_(std::move(ended)) {
    build(application);
}

void ConverterWindow::build(GtkApplication* application) {
    GtkWidget* openButton = gtk_button_new_with_mnemonic("_Open…");
    g_signal_connect_swapped(openButton, "clicked", G_CALLBACK(+[](ConverterWindow* self) { self->open(); }), this);

    choices_ = gtk_drop_down_new_from_strings(std::array<const char*, 1>{nullptr}.data());
    auto* names = GTK_STRING_LIST(gtk_drop_down_get_model(GTK_DROP_DOWN(choices_)));
    for (const Choice& choice : kChoices) {
        gtk_string_list_append(names, std::string(krv::VideoConversion::nameForType(choice.type)).c_str());
    }
    gtk_widget_set_tooltip_text(choices_, "What the next movies are converted to");

    GtkWidget* header = gtk_header_bar_new();
    gtk_header_bar_pack_start(GTK_HEADER_BAR(header), openButton);
    gtk_header_bar_pack_end(GTK_HEADER_BAR(header), choices_);
    gtk_header_bar_pack_end(GTK_HEADER_BAR(header), gtk_label_new("Convert to"));

    GtkWidget* hint = gtk_label_new("Drop movies here, or choose them with Open.");
    gtk_widget_add_css_class(hint, "dim-label");
    gtk_widget_set_vexpand(hint, TRUE);
    gtk_widget_set_margin_top(hint, 48);
    gtk_widget_set_margin_bottom(hint, 48);
    list_ = gtk_list_box_new();
    gtk_list_box_set_selection_mode(GTK_LIST_BOX(list_), GTK_SELECTION_NONE);
    gtk_list_box_set_show_separators(GTK_LIST_BOX(list_), TRUE);
    gtk_list_box_set_placeholder(GTK_LIST_BOX(list_), hint);
    GtkWidget* scroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroller), GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), list_);

    GtkDropTarget* target = gtk_drop_target_new(GDK_TYPE_FILE_LIST, GDK_ACTION_COPY);
    const auto dropped = +[](GtkDropTarget*, const GValue* files, double, double, ConverterWindow* self) -> gboolean {
        self->drop(static_cast<GdkFileList*>(g_value_get_boxed(files)));
        return TRUE;
    };
    g_signal_connect(target, "drop", G_CALLBACK(dropped), this);

    window_ = gtk_application_window_new(application);
    gtk_widget_add_controller(window_, GTK_EVENT_CONTROLLER(target));
    gtk_window_set_title(GTK_WINDOW(window_), "Movie Converter");
    gtk_window_set_titlebar(GTK_WINDOW(window_), header);
    gtk_window_set_default_size(GTK_WINDOW(window_), 680, 440);
    gtk_window_set_child(GTK_WINDOW(window_), scroller);
    const auto closeRequested = +[](GtkWindow*, ConverterWindow* self) -> gboolean {
        self->close();
        return TRUE;
    };
    g_signal_connect(window_, "close-request", G_CALLBACK(closeRequested), this);
    gtk_window_present(GTK_WINDOW(window_));
}

void ConverterWindow::open() {
    dialog_ = gtk_file_chooser_native_new("Open Movies", GTK_WINDOW(window_), GTK_FILE_CHOOSER_ACTION_OPEN, "_Convert",
                                          nullptr);
    gtk_file_chooser_set_select_multiple(GTK_FILE_CHOOSER(dialog_), TRUE);
    gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(dialog_), TRUE);
    const auto responded = +[](GtkNativeDialog*, int response, ConverterWindow* self) { self->opened(response); };
    g_signal_connect(dialog_, "response", G_CALLBACK(responded), this);
    gtk_native_dialog_show(GTK_NATIVE_DIALOG(dialog_));
}

void ConverterWindow::opened(int response) {
    if (response == GTK_RESPONSE_ACCEPT) {
        GListModel* files = gtk_file_chooser_get_files(GTK_FILE_CHOOSER(dialog_));
        for (guint i = 0; i < g_list_model_get_n_items(files); ++i) {
            auto* file = G_FILE(g_list_model_get_item(files, i));
            add(file);
            g_object_unref(file);
        }
        g_object_unref(files);
    }
    g_clear_object(&dialog_);
}

void ConverterWindow::drop(GdkFileList* files) {
    GSList* const all = gdk_file_list_get_files(files);
    for (const GSList* each = all; each != nullptr; each = each->next) {
        add(G_FILE(each->data));
    }
    g_slist_free(all);
}

void ConverterWindow::add(GFile* file) {
    // A file that is not on this machine has no path. Then the row says that it cannot be found.
    char* name = g_file_peek_path(file) != nullptr ? g_file_get_path(file) : g_file_get_parse_name(file);
    const std::filesystem::path source = name;
    g_free(name);
    const Choice& choice = kChoices.at(gtk_drop_down_get_selected(GTK_DROP_DOWN(choices_)));
    const auto destination = freeDestination(source, choice.extension, taken_);
    taken_.insert(destination);
    start({.source = source, .destination = destination, .type = choice.type});
}

void ConverterWindow::add(const std::filesystem::path& source, const std::filesystem::path& destination) {
    start({.source = source, .destination = destination});
}

void ConverterWindow::start(krv::ConvertOptions options) {
    const auto& row = rows_.emplace_back(
        std::make_unique<MovieRow>(media_, std::move(options), [this](const MovieRow& ended) { rowEnded(ended); }));
    gtk_list_box_append(GTK_LIST_BOX(list_), row->widget());
    GtkWidget* const line = gtk_widget_get_parent(row->widget());
    gtk_list_box_row_set_activatable(GTK_LIST_BOX_ROW(line), FALSE);
}

void ConverterWindow::rowEnded(const MovieRow& row) {
    ended_(row);
    if (closing_) {
        close();
    }
}

void ConverterWindow::close() {
    closing_ = true;
    for (const auto& row : rows_) {
        row->cancel();
    }
    const bool allEnded = std::all_of(rows_.begin(), rows_.end(), [](const auto& row) { return row->hasEnded(); });
    if (allEnded && window_ != nullptr) {
        gtk_window_destroy(GTK_WINDOW(std::exchange(window_, nullptr)));  // the application exits with its last window
    }
}
