#include "worker/webkit/PageSite.h"

#include <glib.h>
#include <libsoup/soup.h>

#include <memory>

#include "worker/webkit/GObjectPointer.h"

namespace brindle {
namespace {

struct UriUnref {
    void operator()(GUri* uri) const { g_uri_unref(uri); }
};

std::unique_ptr<GUri, UriUnref> parsed(const std::string& url) {
    return std::unique_ptr<GUri, UriUnref>(
        g_uri_parse(url.c_str(), static_cast<GUriFlags>(SOUP_HTTP_URI_FLAGS), nullptr));
}

std::string registrableDomain(const std::string& host) {
    // Hosts such as localhost and plain addresses have no such domain and stand for themselves.
    const char* domain = soup_tld_get_base_domain(host.c_str(), nullptr);
    return domain == nullptr ? host : std::string(domain);
}

std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

}  // namespace

PageSite::PageSite(const std::string& url) {
    const auto uri = parsed(url);
    if (!uri) return;
    scheme_ = textOf(g_uri_get_scheme(uri.get()));
    place_ = scheme_ == "file" ? directoryOf(textOf(g_uri_get_path(uri.get())))
                               : registrableDomain(textOf(g_uri_get_host(uri.get())));
}

bool PageSite::contains(const std::string& url) const {
    const auto uri = parsed(url);
    if (!uri) return false;
    const std::string scheme = textOf(g_uri_get_scheme(uri.get()));
    if (scheme_ == "file") {
        return scheme == scheme_ && textOf(g_uri_get_path(uri.get())).starts_with(place_);
    }
    const bool isUpgrade = scheme_ == "http" && scheme == "https";
    if (scheme != scheme_ && !isUpgrade) return false;
    return registrableDomain(textOf(g_uri_get_host(uri.get()))) == place_;
}

}  // namespace brindle
