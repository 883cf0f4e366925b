#include "console/LoginCodeDisplay.h"

#include <errno.h>

#include <optional>
#include <string_view>
#include <utility>

#include "console/Picture.h"
#include "console/QRCode.h"
#include "console/RuntimeStatus.h"
#include "exchange/ExchangeWords.h"
#include "records/JsonWriter.h"
#include "system/FileSystemFailure.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

/// The states in which a worker needs no login.
bool isLinkedState(std::string_view workerState) {
    return workerState == worker_state::linked || workerState == worker_state::watching_chat;
}

std::string jsonMember(std::string_view name, std::string_view value) {
    JsonWriter writer(JsonStyle::compact);
    writer.beginObject();
    writer.name(name);
    writer.string(value);
    writer.endObject();
    return writer.finish();
}

std::optional<std::string> contentIn(const std::string& png, const std::string& file) {
    try {
        return qrCodeContent(pictureFromPng(png));
    } catch (const Failure& failure) {
        throw Failure(file + " " + failure.what() + ".");
    }
}

}  // namespace

bool LoginCodeDisplay::showNext(bool untilLinked) {
    const auto status = readableStatus(fileManager_, directory_.runtimeStatusFile);
    if (status && isLinkedState(status->workerState)) {
        sayLinked(status->workerState);
        return true;
    }
    std::string png;
    if (!readPicture(png) || png == shown_) return false;
    // Two codes that touch would keep a phone guessing.
    if (!shown_.empty() && !display_.isJson()) display_.answer("A new code takes its place:\n");
    show(png);
    shown_ = std::move(png);
    return !untilLinked;
}

void LoginCodeDisplay::sayLinked(std::string_view workerState) const {
    if (display_.isJson()) return display_.jsonLine(jsonMember("workerState", workerState));
    display_.answer("The worker is linked; there is no QR code to scan.\n");
}

/// False when there is no picture (any more).
bool LoginCodeDisplay::readPicture(std::string& png) const {
    try {
        png = fileManager_.readFile(directory_.workerQRCodeFile);
        return true;
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != ENOENT) throw;
        return false;
    }
}

void LoginCodeDisplay::show(const std::string& png) const {
    const auto& file = directory_.workerQRCodeFile;
    const auto content = contentIn(png, file);
    if (!content) {
        throw Failure(file + " is a picture without a QR code that can be read; look at it with a viewer.");
    }
    if (display_.isJson()) return display_.jsonLine(jsonMember("workerQRCodeFile", file));
    const QRCode code(*content);
    const auto columns = Display::terminalColumns();
    if (columns && *columns < code.textColumns()) {
        throw Failure("The QR code takes " + std::to_string(code.textColumns()) +
                      " columns, the terminal has " + std::to_string(*columns) + "; make it wider.");
    }
    display_.answer(code.text(display_.colorsOutput()));
}

}  // namespace brindle::console
