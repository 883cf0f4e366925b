#pragma once

#include <glib-object.h>

#include <memory>
#include <string>

namespace brindle {

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};

/// Owns one reference to a GObject.
template <class T>
using GObjectPointer = std::unique_ptr<T, GObjectUnref>;

struct GFree {
    void operator()(gpointer memory) const { g_free(memory); }
};

/// Owns a text that GLib allocated.
using GText = std::unique_ptr<char, GFree>;

/// A text that the library keeps, empty where there is none.
inline std::string textOf(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

struct GBytesUnref {
    void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};

/// Owns a reference to bytes.
using GBytesPointer = std::unique_ptr<GBytes, GBytesUnref>;

struct GErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};

/// Owns an error that GLib reported.
using GErrorPointer = std::unique_ptr<GError, GErrorFree>;

}  // namespace brindle
