#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console/Command.h"
#include "console/CommandInput.h"
#include "console/Completion.h"
#include "console/Display.h"
#include "console/Expectation.h"
#include "console/HelperProcess.h"
#include "console/LaunchTicket.h"
#include "console/Options.h"
#include "console/Recording.h"
#include "console/Replay.h"
#include "console/Summary.h"
#include "console/Wait.h"
#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "system/FileManager.h"
#include "system/Processes.h"

namespace brindle::console {

/// A session with one helper: carries out commands, shows what is exchanged and ends the helper.
class Console {
  public:
    /// How long the helper has to greet before a script gives it up.
    static constexpr std::chrono::milliseconds greeting_patience{10000};

    /// Starts the helper in `inherited`, changed as the options say. Throws Failure.
    Console(const Options& options, Environment inherited, CommandInput& input, Display& display,
            TerminationSignals& signals);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Runs the session to its end and returns the exit status of the program.
    int run();

  private:
    ChildProcess::Options launch(const Options& options);

    void execute(const InputLine& line);
    void perform(const ConnectCommand& command);
    void perform(const DisconnectCommand& command);
    void perform(const ListenCommand& command);
    void perform(const StopCommand& command);
    void perform(const SendCommand& command);
    void perform(const StatusCommand& command);
    void perform(const QRCommand& command);
    void perform(const RawCommand& command);
    void perform(const RawModeCommand& command);
    void perform(const RecordCommand& command);
    void perform(const ReplayCommand& command);
    void perform(const InboxCommand& command);
    void perform(const WatchCommand& command);
    void perform(const DoctorCommand& command);
    void perform(const HelpCommand& command);
    void perform(const QuitCommand& command);
    void perform(const ExpectCommand& command);
    void perform(const WaitStatusCommand& command);

    void see(const BridgeScope& scope);
    void submit(const BridgeEnvelope& envelope);
    void submitLine(std::string_view line);
    void received(std::string_view line);
    void record(Direction direction, std::string_view line);
    bool goOnReplaying(std::chrono::steady_clock::time_point deadline);
    std::optional<ManagedWhatsAppRuntimeStatusRecord> readStatus();
    std::string workerObstacle();
    void remarkOnSending();

    void awaitGreeting();
    void begin(InputLine line);
    void finish(bool hasFailed);
    void showSummary();
    void runReadyCommands();
    void waitForEvents();
    bool isAskedToEnd();
    void takeInterrupt();
    void interrupt();
    void checkWait();
    void checkHelper();
    void checkOutput();
    void fail(const std::string& sentence);
    void endHelper();

    std::string platform_;
    std::string helperPath_;
    CommandInput& input_;
    Display& display_;
    TerminationSignals& signals_;
    PosixFileManager fileManager_;
    LaunchTicket ticket_;
    Environment environment_;
    DataDirectory directory_;
    HelperProcess helper_;

    ReceivedEnvelopes envelopes_;
    SeenNames seen_;
    std::optional<Recording> recording_;
    std::optional<Replay> replay_;
    /// What has come before there was a request; nothing of a greeting is longer.
    std::vector<std::string> greeting_;
    bool hasRequested_ = false;
    bool hasGreeted_ = false;
    std::optional<Wait> wait_;
    /// The command that is being carried out.
    InputLine current_;
    /// Only when one was asked for.
    std::optional<Summary> summary_;
    /// Somebody has pressed Ctrl-C and no other key since.
    bool wasInterrupted_ = false;
    bool isDone_ = false;
    bool helperHasEnded_ = false;
    int status_ = 0;
};

}  // namespace brindle::console
