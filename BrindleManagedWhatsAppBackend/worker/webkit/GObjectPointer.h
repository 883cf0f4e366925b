#pragma once

#include <glib-object.h>

#include <memory>

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

struct GErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};

/// Owns an error that GLib reported.
using GErrorPointer = std::unique_ptr<GError, GErrorFree>;

}  // namespace brindle
