#include "worker/HostOptions.h"

#include <gtest/gtest.h>

namespace brindle {
namespace {

TEST(HostOptionsTests, NameWindowLogAndFolders) {
    const auto options = webWorkerHostOptions();
    EXPECT_EQ(options.windowTitle, "Brindle WhatsApp Worker");
    EXPECT_EQ(options.contentWidth_px, 1200);
    EXPECT_EQ(options.contentHeight_px, 900);
    EXPECT_EQ(options.applicationName, "BrindleManagedWhatsAppBackend");
    EXPECT_EQ(options.logSubsystem, "com.brindle.Brindle");
    EXPECT_EQ(options.logCategory, "ManagedWhatsAppWebWorker");
}

TEST(HostOptionsTests, LimitTheMemoryOfThePageAndWhatItCostsTheWorker) {
    EXPECT_EQ(webWorkerHostOptions().pageMemoryLimit_mebibytes, 2048U);
    EXPECT_EQ(webWorkerHostOptions().workerGrowthLimit_mebibytes, 512U);
}

TEST(HostOptionsTests, UserAgentLeavesOutTheVersionOfTheOperatingSystem) {
    EXPECT_EQ(
        webWorkerHostOptions().userAgent,
        "Mozilla/5.0 (Macintosh; Intel Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 Safari/605.1.15");
}

}  // namespace
}  // namespace brindle
