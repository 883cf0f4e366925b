#include "worker/webkit/InteractionDenial.h"

namespace brindle {
namespace {

/// A handler of any signal that means "dealt with" by returning true and takes one more argument.
template <class Argument>
gboolean swallow(WebKitWebView* /*view*/, Argument* /*argument*/, gpointer /*data*/) {
    return TRUE;
}

gboolean swallowWithoutArgument(WebKitWebView* /*view*/, gpointer /*data*/) {
    return TRUE;
}

GtkWidget* openNoWindow(WebKitWebView* /*view*/, WebKitNavigationAction* /*action*/, gpointer /*data*/) {
    return nullptr;
}

gboolean answerDialog(WebKitWebView* /*view*/, WebKitScriptDialog* dialog, gpointer /*data*/) {
    switch (webkit_script_dialog_get_dialog_type(dialog)) {
        case WEBKIT_SCRIPT_DIALOG_CONFIRM:
            webkit_script_dialog_confirm_set_confirmed(dialog, FALSE);
            break;
        case WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM:
            // A page must not be able to hold up a reload.
            webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
            break;
        case WEBKIT_SCRIPT_DIALOG_ALERT:
        case WEBKIT_SCRIPT_DIALOG_PROMPT:
            break;
    }
    return TRUE;
}

gboolean denyPermission(WebKitWebView* /*view*/, WebKitPermissionRequest* request, gpointer /*data*/) {
    webkit_permission_request_deny(request);
    return TRUE;
}

gboolean reportDenied(WebKitWebView* /*view*/, WebKitPermissionStateQuery* query, gpointer /*data*/) {
    webkit_permission_state_query_finish(query, WEBKIT_PERMISSION_STATE_DENIED);
    return TRUE;
}

gboolean chooseNoFile(WebKitWebView* /*view*/, WebKitFileChooserRequest* request, gpointer /*data*/) {
    webkit_file_chooser_request_cancel(request);
    return TRUE;
}

gboolean chooseNoColor(WebKitWebView* /*view*/, WebKitColorChooserRequest* request, gpointer /*data*/) {
    webkit_color_chooser_request_cancel(request);
    return TRUE;
}

gboolean giveNoPassword(WebKitWebView* /*view*/, WebKitAuthenticationRequest* request, gpointer /*data*/) {
    webkit_authentication_request_cancel(request);
    return TRUE;
}

gboolean openNoContextMenu(WebKitWebView* /*view*/, WebKitContextMenu* /*menu*/, GdkEvent* /*event*/,
                           WebKitHitTestResult* /*hit*/, gpointer /*data*/) {
    return TRUE;
}

gboolean openNoOptionMenu(WebKitWebView* /*view*/, WebKitOptionMenu* menu, GdkEvent* /*event*/,
                          GdkRectangle* /*place*/, gpointer /*data*/) {
    webkit_option_menu_close(menu);
    return TRUE;
}

void cancelDownload(WebKitWebContext* /*context*/, WebKitDownload* download, gpointer /*data*/) {
    webkit_download_cancel(download);
}

}  // namespace

void denyWhatNeedsAPerson(WebKitWebView& view) {
    const auto deny = [&](const char* signal, auto* handler) {
        g_signal_connect(&view, signal, G_CALLBACK(handler), nullptr);
    };
    deny("create", openNoWindow);
    deny("script-dialog", answerDialog);
    deny("permission-request", denyPermission);
    deny("query-permission-state", reportDenied);
    deny("run-file-chooser", chooseNoFile);
    deny("run-color-chooser", chooseNoColor);
    deny("authenticate", giveNoPassword);
    deny("context-menu", openNoContextMenu);
    deny("show-option-menu", openNoOptionMenu);
    deny("show-notification", swallow<WebKitNotification>);
    deny("print", swallow<WebKitPrintOperation>);
    deny("enter-fullscreen", swallowWithoutArgument);
}

void denyDownloads(WebKitWebContext& context) {
    g_signal_connect(&context, "download-started", G_CALLBACK(cancelDownload), nullptr);
}

}  // namespace brindle
