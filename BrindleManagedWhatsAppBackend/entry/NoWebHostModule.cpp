// Stands for WebHostModule.cpp in a build that leaves the browser engine out.
#include "entry/WebHostModule.h"
#include "text/Failure.h"

namespace brindle {

std::unique_ptr<WebWorkerHost> makeWebWorkerHost(const WebWorkerHostOptions& /*options*/) {
    throw Failure(
        "This program was built without the built-in web worker; install one that has it or use a native worker.");
}

}  // namespace brindle
