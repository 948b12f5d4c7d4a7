#include "InfoPropertyList.h"

#include <memory>
#include <new>

#include <glib.h>

namespace krv {
namespace {

/// Depth of the dictionary's keys and values, below plist and dict.
constexpr int kEntryDepth = 3;

struct Search {
    std::string_view key;
    int depth = 0;
    bool inDictionary = false;
    bool keyMatches = false;  // the previous element was the requested key
    std::string text{};
    std::optional<std::string> found{};

    void begin(std::string_view element) {
        ++depth;
        if (depth == kEntryDepth - 1) {
            inDictionary = element == "dict";
        }
        text.clear();
    }
    void add(std::string_view more) {
        if (depth == kEntryDepth) {
            text += more;
        }
    }
    void end(std::string_view element) {
        if (depth-- != kEntryDepth || !inDictionary) {
            return;
        }
        if (element == "key") {
            keyMatches = text == key;
        } else {
            if (keyMatches && element == "string" && !found) {
                found = text;
            }
            keyMatches = false;
        }
    }
};

void fail(GError** error) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_PARSE, "out of memory");
}

// No exception may pass through the parser's frames.
template <typename Step>
void guarded(gpointer search, GError** error, Step step) {
    try {
        step(*static_cast<Search*>(search));
    } catch (const std::bad_alloc&) {
        fail(error);
    }
}

constexpr GMarkupParser kParser = {
    [](GMarkupParseContext*, const gchar* element, const gchar**, const gchar**, gpointer search, GError** error) {
        guarded(search, error, [element](Search& s) { s.begin(element); });
    },
    [](GMarkupParseContext*, const gchar* element, gpointer search, GError** error) {
        guarded(search, error, [element](Search& s) { s.end(element); });
    },
    [](GMarkupParseContext*, const gchar* text, gsize length, gpointer search, GError** error) {
        guarded(search, error, [text, length](Search& s) { s.add({text, length}); });
    },
    nullptr, nullptr};

}  // namespace

std::optional<std::string> stringInPropertyList(std::string_view xml, std::string_view key) {
    Search search{key};
    const std::unique_ptr<GMarkupParseContext, decltype(&g_markup_parse_context_unref)> context(
        g_markup_parse_context_new(&kParser, G_MARKUP_TREAT_CDATA_AS_TEXT, &search, nullptr),
        g_markup_parse_context_unref);
    const bool wellFormed =
        g_markup_parse_context_parse(context.get(), xml.data(), static_cast<gssize>(xml.size()), nullptr) &&
        g_markup_parse_context_end_parse(context.get(), nullptr);
    return wellFormed ? search.found : std::nullopt;
}

}  // namespace krv
