#include "support/LaunchToken.h"

#include <fcntl.h>
#include <unistd.h>

#include "support/TextForms.h"
#include "support/Waiting.h"

namespace brindle::test {

LaunchToken::LaunchToken() : value_(randomHex(48)), file_(directory_.path() / "launch-token") {
    const int descriptor = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) throw TestFailure("cannot create " + file_.string());
    const auto written = ::write(descriptor, value_.data(), value_.size());
    ::close(descriptor);
    if (written != static_cast<ssize_t>(value_.size())) throw TestFailure("cannot write " + file_.string());
}

void LaunchToken::addTo(Environment& environment) const {
    environment["BRINDLE_HELPER_LAUNCH_TOKEN"] = value_;
    environment["BRINDLE_HELPER_LAUNCH_TOKEN_FILE"] = file_;
}

}  // namespace brindle::test
