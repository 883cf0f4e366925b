#pragma once

#include <webkit2/webkit2.h>

namespace brindle {

/// Denies a page, without asking anybody, whatever would need a person: windows, dialogs, choosers, menus,
/// printing, full screen, notifications, passwords and every permission.
void denyWhatNeedsAPerson(WebKitWebView& view);

/// Denies downloads in the whole context.
void denyDownloads(WebKitWebContext& context);

}  // namespace brindle
