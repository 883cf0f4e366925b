#include "worker/webkit/PageSettings.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

namespace brindle {
namespace {

/// Parts of the engine, by the names that it gives them, which a page does without. An engine that does not
/// know one of them has nothing to switch off.
constexpr std::array<std::string_view, 9> needless_features{
    // Reads devices of the machine.
    "Gamepads",
    // Decoders, which are where engines break most often, for things that nobody sees or hears.
    "WebCodecsAudio",
    "WebCodecsVideo",
    // Records what camera and microphone, both denied, would give.
    "MediaRecorder",
    // Loads speech engines and makes a sound.
    "SpeechSynthesisAPI",
    // Both speak to services of the user's session.
    "MediaSession",
    "ScreenWakeLockAPI",
    // A viewer of documents; the page cannot leave for one.
    "PDFJSViewer",
    // Tells name servers about addresses that a stranger has put into a message.
    "LinkDNSPrefetch",
};

struct FeatureListUnref {
    void operator()(WebKitFeatureList* list) const { webkit_feature_list_unref(list); }
};

void switchOffNeedlessFeatures(WebKitSettings& settings) {
    const std::unique_ptr<WebKitFeatureList, FeatureListUnref> all(webkit_settings_get_all_features());
    for (gsize index = 0; index < webkit_feature_list_get_length(all.get()); ++index) {
        WebKitFeature* const feature = webkit_feature_list_get(all.get(), index);
        const std::string_view name(webkit_feature_get_identifier(feature));
        if (std::ranges::find(needless_features, name) == needless_features.end()) continue;
        webkit_settings_set_feature_enabled(&settings, feature, FALSE);
    }
}

void switchOffNeedlessParts(WebKitSettings& settings) {
    // Nobody looks at the picture, so no graphics processor needs to be woken for it, and no driver be
    // reachable.
    webkit_settings_set_hardware_acceleration_policy(&settings, WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
    webkit_settings_set_enable_webgl(&settings, FALSE);
    // Nobody listens. Elements for sound and video stay, because a client breaks without them; there are no
    // decoders for them (see prepareEngineEnvironment).
    webkit_settings_set_enable_webaudio(&settings, FALSE);
    webkit_settings_set_enable_mediasource(&settings, FALSE);
    webkit_settings_set_enable_encrypted_media(&settings, FALSE);
    webkit_settings_set_enable_media_capabilities(&settings, FALSE);
    webkit_settings_set_media_playback_requires_user_gesture(&settings, TRUE);
    // Nobody calls, and a page need not know the names of the machine's cameras and microphones.
    webkit_settings_set_enable_media_stream(&settings, FALSE);
    webkit_settings_set_enable_webrtc(&settings, FALSE);
    // There is no screen to fill.
    webkit_settings_set_enable_fullscreen(&settings, FALSE);
    // Plug-ins need no switch: engines of this interface have none any more.
    switchOffNeedlessFeatures(settings);
}

}  // namespace

GObjectPointer<WebKitSettings> pageSettings(const WebWorkerHostOptions& options) {
    GObjectPointer<WebKitSettings> settings(webkit_settings_new());
    webkit_settings_set_user_agent(settings.get(), options.userAgent.c_str());
    // The engine's list of quirks would give some services another user agent.
    webkit_settings_set_enable_site_specific_quirks(settings.get(), FALSE);
    webkit_settings_set_enable_smooth_scrolling(settings.get(), FALSE);
    // Pages that were left are not kept in memory.
    webkit_settings_set_enable_page_cache(settings.get(), FALSE);
    webkit_settings_set_javascript_can_open_windows_automatically(settings.get(), FALSE);
    webkit_settings_set_javascript_can_access_clipboard(settings.get(), FALSE);
    switchOffNeedlessParts(*settings);
    return settings;
}

}  // namespace brindle
