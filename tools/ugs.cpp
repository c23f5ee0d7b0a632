// `ugs`: the tool beside the server. One subcommand per task; each returns the exit code of the program.

#include <CLI/CLI.hpp>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Fleet.h"
#include "FleetConnections.h"
#include "HistoryCommand.h"
#include "HistoryStore.h"
#include "HostAgent.h"
#include "InstanceKey.h"
#include "Keygen.h"
#include "Listing.h"
#include "Nearest.h"
#include "Page.h"
#include "Reachable.h"
#include "Sealer.h"
#include "Status.h"
#include "StatusCommands.h"
#include "StatusListings.h"
#include "StatusTop.h"
#include "UGSDefs.h"
#include "UgsClient.h"

namespace {

enum ExitCode : int {
  kDone = 0,        // the server answered 0, or 1 to the greeting
  kRefused = 1,     // the server answered something else
  kUsageError = 2,  // the command or a file it names cannot be used
  kNoAnswer = 3,
};

using Command = std::function<int()>;

std::string ReadText(const std::string& file) {
  if (file == "-") return {std::istreambuf_iterator<char>(std::cin), {}};
  std::ifstream stream(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) throw std::runtime_error("cannot read " + file);
  return text;
}

constexpr const char* kReportExamples = R"(Examples:
  One report of four cameras, and the reason if it is refused:
    ugs report -v --id hall-7 --docker a1b2 --camera rtsp://10.0.0.9/1 --camera rtsp://10.0.0.9/2 --use MaxCameras=4
  The same instance, reporting every 30 seconds until Ctrl-C:
    ugs report --every 30 --id hall-7 --docker a1b2 --camera rtsp://10.0.0.9/1 --use MaxCameras=1 --use PX=2
  A document of your own, to a server elsewhere:
    ugs report --server 10.0.0.5:9304 --key site.pem --json document.json
  All instances of a machine, one JSON file for each, as long as their files are there:
    ugs report --directory /run/instances)";

constexpr const char* kPagePaths = R"(It serves, to whoever can reach the address:
  /                     the page
  /status, /instances   the same figures as JSON
  /metrics              for Prometheus; ?instances=silent adds those of the instances that are silent,
                        ?instances=1 those of all
  /history, /day        with --history: what was used in ?month=2026-11 (/history.csv: as CSV), and by the
                        instance ?key=KEY in the last 24 hours
Exit codes: 0 ended by SIGINT or SIGTERM, 2 usage error, or the address is not to be had.)";

constexpr const char* kWhyRefused = R"(A refusal has one of these causes. The server's log names it:
  0x00AE06 (and 0x00AE09 on its console)  the report was sealed for another server: compare `ugs fingerprint`
  0x476                                   the document is no JSON object, or its version member is none
  nothing                                 the document has no "}"
  0xE099, 0xE126, 0xE146, 0xE140          KorvaneID, DockerID or CamRtspUrls is missing or of the wrong type
  0xE210 (0xE216 on its console)          InUse is missing or of the wrong type
  0xE209, 0xE220 to 0xE262                a count that the layout needs is missing
  0x442                                   the identity is empty, or there is no camera URL
)";

// The key of the checkout that is the working directory, or else of the installed package.
std::string DefaultKey() {
  constexpr const char* kOfCheckout = "keys/public.pem";
  constexpr const char* kOfPackage = "/usr/share/korvaneugs/public.pem";
  return !std::filesystem::exists(kOfCheckout) && std::filesystem::exists(kOfPackage) ? kOfPackage
                                                                                      : kOfCheckout;
}

// Digits only: strtoul(3) and the like would take a sign and blanks.
bool ParseCount(std::string_view text, std::uint32_t& count) {
  const auto [last, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  return error == std::errc() && last == text.data() + text.size();
}

// Unlike CLI::Range, it refuses NaN.
CLI::Validator SecondsFrom(double least, double most) {
  std::ostringstream bounds;
  bounds << "from " << least << " to " << most << " s";
  const auto check = [least, most, text = bounds.str()](const std::string& typed) {
    double seconds = 0;
    const bool isGood = CLI::detail::lexical_cast(typed, seconds) && seconds >= least && seconds <= most;
    return isGood ? std::string() : typed + " is not " + text;
  };
  return {check, "SECONDS", "range"};
}

// Without it, 010 would be 8.
std::string WhyNoCount(const std::string& typed) {
  std::uint32_t count = 0;
  return ParseCount(typed, count) && (typed == "0" || !typed.starts_with('0'))
             ? std::string()
             : typed + " is not a count in decimal digits";
}

// CLI::PositiveNumber and CLI::NonNegativeNumber let NaN pass.
std::string WhyNotFinite(const std::string& typed) {
  double number = 0;
  return CLI::detail::lexical_cast(typed, number) && std::isfinite(number) ? std::string()
                                                                           : typed + " is not a number";
}

std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

// What every subcommand that talks to the server takes.
struct Target {
  std::string server = "127.0.0.1";
  std::string key = DefaultKey();
  double timeout = 5;
  double wait = 0;
  bool verbose = false;

  void AddOptions(CLI::App& command) {
    command.add_option("--server", server, "HOST[:PORT] of the server; port 9304 if left out")
        ->envname("UGS_SERVER")
        ->capture_default_str();
    command.add_option("--key", key, "the server's public key, a PEM file")
        ->envname("UGS_KEY")
        ->capture_default_str();
    command.add_option("--timeout", timeout, "seconds to wait for a connection, and then for the answer")
        ->check(SecondsFrom(0.001, 86400))
        ->capture_default_str();
    command.add_option("--wait", wait, "go on trying for so many seconds while nobody answers")
        ->check(SecondsFrom(0, 86400))
        ->capture_default_str();
  }

  [[nodiscard]] std::chrono::milliseconds Timeout() const { return Milliseconds(timeout); }

  [[nodiscard]] std::string WhyNot() const { return WhyUnreachable(ugs::ParseAddress(server), Timeout()); }

  // Once, and again while it returns false and the wait is not over.
  template <typename Attempt>
  void Try(Attempt attempt) const {
    constexpr std::chrono::milliseconds pause(100);
    const auto end = std::chrono::steady_clock::now() + Milliseconds(wait);
    while (!attempt() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(pause);
  }

  [[nodiscard]] ugs::Client Connect() const {
    try {
      return {server, key, Timeout()};
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(std::string(error.what()) + " (--server " + server + ", --key " + key +
                                  ")");
    }
  }

  template <typename Question>
  [[nodiscard]] int Ask(Question question, int expected) const {
    ugs::Client client = Connect();
    std::optional<int> code;
    std::string whyNot;
    Try([&] {
      whyNot = WhyNot();
      if (!whyNot.empty()) return false;
      code = question(client);
      whyNot = client.LastError().text;
      return code.has_value();
    });
    return PrintOutcome(code, whyNot, expected);
  }

  [[nodiscard]] int PrintOutcome(std::optional<int> code, const std::string& whyNot, int expected) const {
    if (!code) {
      std::cerr << "ugs: " << whyNot << "\n";
      return kNoAnswer;
    }
    static const std::map<int, std::string> meanings{
        {UGSDefs::Ok, "counted"},
        {UGSDefs::Hello, "hello"},
        {UGSDefs::Failed, "refused; the server's log says why"},
    };
    const auto meaning = meanings.find(*code);
    std::cout << *code << " (" << (meaning == meanings.end() ? "unknown code" : meaning->second) << ")"
              << std::endl;  // at once: --every may go on for hours
    if (verbose && *code == UGSDefs::Failed) std::cerr << kWhyRefused;
    return *code == expected ? kDone : kRefused;
  }
};

// One value for each --camera, and no option for a URL: with an empty shell variable for its value, --camera
// would else take the options that follow it.
void AddCameras(CLI::App& command, std::vector<std::string>& cameras) {
  const auto isNoOption = [](const std::string& url) {
    return url.starts_with('-') ? "\"" + url + "\" is no camera URL" : std::string();
  };
  command.add_option("--camera", cameras, "RTSP URL of a camera; may be repeated")
      ->allow_extra_args(false)
      ->check(isNoOption);
}

// Keys are checked later, against the layout, by WriteDocument.
std::map<std::string, std::uint32_t> ParseCounts(const std::vector<std::string>& uses) {
  std::map<std::string, std::uint32_t> counts;
  for (const std::string& use : uses) {
    const std::size_t equals = use.find('=');
    std::uint32_t count = 0;
    if (equals == std::string::npos || !ParseCount(std::string_view(use).substr(equals + 1), count)) {
      throw std::invalid_argument("--use " + use + " is not NAME=COUNT with a count from 0 to 4294967295");
    }
    if (!counts.emplace(use.substr(0, equals), count).second) {
      throw std::invalid_argument("--use names " + use.substr(0, equals) + " twice");
    }
  }
  return counts;
}

Command AddKeygen(CLI::App& app) {
  auto* command = app.add_subcommand("keygen", "make the key pair of a server");
  struct Options {
    std::string out = "keys";
    std::string from;
  };
  const auto options = std::make_shared<Options>();
  command->add_option("--out", options->out, "directory for private.scrambled and public.pem")
      ->capture_default_str();
  command->add_option("--from", options->from,
                      "take this unencrypted RSA private key (PEM), so that instances keep their public key");
  return [options] {
    const auto from =
        options->from.empty() ? std::nullopt : std::optional<std::filesystem::path>(options->from);
    const std::string fingerprint = MakeKeyPair(options->out, from);
    std::cout << "Made the key pair in " << options->out << ". SHA-256 of the public key: " << fingerprint
              << "\n";
    return kDone;
  };
}

Command AddFingerprint(CLI::App& app) {
  auto* command = app.add_subcommand("fingerprint", "print the SHA-256 of a public key");
  const auto key = std::make_shared<std::string>(DefaultKey());
  command->add_option("--key", *key, "the public key, a PEM file")->envname("UGS_KEY")->capture_default_str();
  return [key] {
    std::cout << ugs::Sealer(*key).Fingerprint() << "\n";
    return kDone;
  };
}

// Reports until SIGINT or SIGTERM comes, unless there is nobody to report to at first. Returns the exit code
// of the last report.
int ReportEvery(double seconds, const ugs::Usage& usage, const Target& target) {
  ugs::WriteDocument(usage);            // throws now rather than on the reporter's thread
  static_cast<void>(target.Connect());  // and for a key that cannot be used, before there is any waiting
  std::string whyNot;
  target.Try([&] {
    whyNot = target.WhyNot();
    return whyNot.empty();
  });
  if (!whyNot.empty()) return target.PrintOutcome(std::nullopt, whyNot, UGSDefs::Ok);
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  // Before the reporter's threads exist, so that they leave both signals to sigwait(3).
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  std::cout << "The first report comes within " << seconds << " s; Ctrl-C ends this." << std::endl;
  std::atomic<int> exitCode = kNoAnswer;
  const ugs::Reporter reporter(
      target.server, target.key, [&usage] { return usage; }, Milliseconds(seconds),
      [&](const ugs::Outcome& outcome) {
        exitCode = target.PrintOutcome(outcome.code, outcome.text, UGSDefs::Ok);
      },
      target.Timeout());
  int signal = 0;
  sigwait(&ending, &signal);
  return exitCode;
}

int ReportDirectory(const std::string& directory, double seconds, const Target& target) {
  constexpr double usual = 30;
  HostAgent(directory, target.server, target.key, Milliseconds(seconds > 0 ? seconds : usual),
            target.Timeout(), target.verbose)
      .Run();
  return kDone;
}

Command AddReport(CLI::App& app) {
  auto* command = app.add_subcommand("report", "send one report and print the reply code");
  struct Options {
    Target target;
    ugs::Usage usage;
    std::vector<std::string> uses;
    std::string json;
    std::string directory;
    double every = 0;
  };
  const auto options = std::make_shared<Options>();
  options->target.AddOptions(*command);
  command->add_option("--id", options->usage.id, "identity of the instance (KorvaneID)");
  command->add_option("--docker", options->usage.container, "identity of its container (DockerID)");
  AddCameras(*command, options->usage.cameras);
  command->add_option("--use", options->uses, "NAME=COUNT, as in MaxCameras=4; may be repeated")
      ->allow_extra_args(false);
  command->add_option("--layout", options->usage.layout, "layout of the document")
      ->check(CLI::IsMember(ugs::LayoutNames()))
      ->capture_default_str();
  auto* json = command->add_option("--json", options->json,
                                   "send the document in this file (- for standard input) as it is");
  command->add_option("--every", options->every, "report periodically until interrupted; from 1 to 118")
      ->check(SecondsFrom(ugs::kShortestPeriod.count(), ugs::kLongestPeriod.count()))
      ->excludes(json);
  auto* directory = command->add_option(
      "--directory", options->directory,
      "report until interrupted for every instance that a file *.json in this directory describes, and "
      "follow what changes there; every 30 s if --every is left out");
  directory->excludes(json)->excludes("--wait");
  // Rather than ignored: what is to be reported comes from the file.
  for (const char* part : {"--id", "--docker", "--camera", "--use", "--layout"}) {
    command->get_option(part)->excludes(json)->excludes(directory);
  }
  command->add_flag("-v,--verbose", options->target.verbose,
                    "explain a refusal by its likely causes; with --directory, print every outcome");
  command->footer(kReportExamples + ("\nCounts: " + Joined(FeatureNames(), ", ")));
  return [options] {
    if (!options->directory.empty())
      return ReportDirectory(options->directory, options->every, options->target);
    if (options->json.empty() && (options->usage.id.empty() || options->usage.cameras.empty())) {
      throw std::invalid_argument("report needs --id and at least one --camera, or --json, or --directory");
    }
    options->usage.counts = ParseCounts(options->uses);
    if (options->every > 0) return ReportEvery(options->every, options->usage, options->target);
    const std::string document =
        options->json.empty() ? ugs::WriteDocument(options->usage) : ReadText(options->json);
    return options->target.Ask([&](ugs::Client& client) { return client.SendDocument(document); },
                               UGSDefs::Ok);
  };
}

Command AddKey(CLI::App& app) {
  auto* command =
      app.add_subcommand("key", "print the name of an instance in the server's log (\"Deleting korvane\")");
  const auto usage = std::make_shared<ugs::Usage>();
  command->add_option("--id", usage->id, "identity of the instance (KorvaneID)")->required();
  AddCameras(*command, usage->cameras);
  return [usage] {
    const std::string key = ugs::InstanceKey(usage->id, usage->cameras);
    if (key.empty())
      throw std::invalid_argument(
          "key needs an identity and at least one camera, in the order of the reports");
    std::cout << key << "\n";
    return kDone;
  };
}

Command AddPing(CLI::App& app) {
  auto* command = app.add_subcommand("ping", "send the greeting: is the server there, with this key?");
  const auto target = std::make_shared<Target>();
  target->AddOptions(*command);
  return [target] {
    return target->Ask([](ugs::Client& client) { return client.Greet(); }, UGSDefs::Hello);
  };
}

Command AddFleet(CLI::App& app) {
  auto* command =
      app.add_subcommand("fleet", "simulate a fleet: load, latencies, and a check of the server's sums");
  const auto options = std::make_shared<FleetOptions>();
  options->key = DefaultKey();
  command->add_option("--server", options->server, "HOST[:PORT] of the server")
      ->envname("UGS_SERVER")
      ->capture_default_str();
  command->add_option("--key", options->key, "the server's public key, a PEM file")
      ->envname("UGS_KEY")
      ->capture_default_str();
  command->add_option("--instances", options->instances, "how many instances report")
      ->check(WhyNoCount)
      ->check(CLI::Range(1, 1'000'000))
      ->capture_default_str();
  auto* rate = command->add_option("--rate", options->rate, "reports per second of the whole fleet")
                   ->check(WhyNotFinite)
                   ->check(CLI::PositiveNumber);
  command->add_option("--period", options->period, "seconds between two reports of one instance")
      ->check(WhyNotFinite)
      ->check(CLI::PositiveNumber)
      ->excludes(rate);
  command->add_option("--duration", options->duration, "seconds")
      ->check(WhyNotFinite)
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command
      ->add_option("--connections", options->connections,
                   "share so many connections; one per instance if left out")
      ->check(WhyNoCount);
  command->add_option("--seed", options->seed, "another seed is another fleet")
      ->check(WhyNoCount)
      ->capture_default_str();
  command->add_option("--layout", options->layout, "layout of the documents")
      ->check(CLI::IsMember(ugs::LayoutNames()))
      ->capture_default_str();
  command->add_flag("--random", options->random, "reports come at random moments, not evenly");
  command
      ->add_option("--drain,--patience", options->drain,
                   "seconds to wait for answers after the last report, and for a connection (5 at least)")
      ->check(WhyNotFinite)
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  command->add_flag("--json", options->json, "print the outcome as JSON");
  command->add_option("--csv", options->csv, "write one line per report to this file");
  command->add_option("--log", options->log, "the server's log file: compare its sums with the fleet's");
  command->footer(
      "Exit codes: 0 every report was counted (and the log agrees), 1 not so, 2 usage error, 3 no server.");
  return [options] {
    return RunFleet(*options) ? kDone : kRefused;
  };
}

// The subcommands that look at the server through its status socket.
void AddSocketOption(CLI::App& command, std::string& socket) {
  socket = DefaultStatusSocket();
  command.add_option("--socket", socket, "the server's status socket (environment: UGS_STATUS)")
      ->capture_default_str();
}

std::shared_ptr<StatusOptions> AddStatusOptions(CLI::App& command) {
  const auto options = std::make_shared<StatusOptions>();
  AddSocketOption(command, options->socket);
  return options;
}

// Of those that print a listing.
std::shared_ptr<StatusOptions> AddListingOptions(CLI::App& command) {
  auto options = AddStatusOptions(command);
  auto* json = command.add_flag("--json", options->json, "print JSON; times are seconds since 1970");
  command.add_flag("--csv", options->csv, "print CSV, for a spreadsheet; times are UTC")->excludes(json);
  return options;
}

Command AddStatus(CLI::App& app) {
  auto* command = app.add_subcommand("status", "is all well, and if not, what is wrong?");
  const auto options = AddStatusOptions(*command);
  command->add_flag("--json", options->json, "print JSON; times are seconds since 1970");
  command->footer("Exit codes: 0 all is well, 1 something is wrong, 2 usage error, 3 no server.");
  return [options] {
    return ShowStatus(*options) ? kDone : kRefused;
  };
}

Command AddInstances(CLI::App& app) {
  auto* command =
      app.add_subcommand("instances", "list the instances: when each last reported, what it uses");
  const auto options = AddListingOptions(*command);
  command->add_option("--feature", options->feature,
                      "only those that use it, and the sum, as in --feature Plates");
  command->add_option("--sort", options->sort, "by age, identity, cameras or a count, as in --sort Plates")
      ->capture_default_str();
  command->footer("Counts: " + Joined(FeatureNames(), ", "));
  return [options] {
    ShowInstances(*options);
    return kDone;
  };
}

Command AddLosses(CLI::App& app) {
  auto* command = app.add_subcommand("losses", "list the instances that fell silent, the newest first");
  const auto options = AddListingOptions(*command);
  return [options] {
    ShowLosses(*options);
    return kDone;
  };
}

Command AddRefusals(CLI::App& app) {
  auto* command = app.add_subcommand("refusals", "list who is refused, and why");
  const auto options = AddListingOptions(*command);
  return [options] {
    ShowRefusals(*options);
    return kDone;
  };
}

Command AddHistory(CLI::App& app) {
  auto* command = app.add_subcommand("history", "what was used in a month, each day, and when most? (UTC)");
  const auto options = std::make_shared<HistoryOptions>();
  options->file = DefaultHistory();
  command->add_option("--file", options->file, "the history that ugs page keeps (environment: UGS_HISTORY)")
      ->capture_default_str();
  command->add_option("--month", options->month, "as in 2026-11; the current one if left out");
  auto* json = command->add_flag("--json", options->json, "print JSON; times are seconds since 1970");
  command->add_flag("--csv", options->csv, "print CSV, for a spreadsheet; times are UTC")->excludes(json);
  auto* instances =
      command->add_flag("--instances", options->instances, "list the instances and their camera-hours");
  command->add_flag("--losses", options->losses, "list the instances that fell silent")->excludes(instances);
  command
      ->add_option("--forget-before", options->forgetBefore,
                   "delete what was before this month; show nothing")
      ->excludes("--month");
  command->footer(
      "Exit codes: 0 done, 2 usage error, 3 there is no history, or it cannot be read or written.");
  return [options] {
    ShowHistory(*options);
    return kDone;
  };
}

Command AddTop(CLI::App& app) {
  auto* command = app.add_subcommand("top", "watch the instances on this terminal");
  const auto options = AddStatusOptions(*command);
  command->footer(kTopKeys);
  return [options] {
    if (!CanShowTop()) return ShowStatus(*options) ? kDone : kRefused;
    ShowTop(options->socket);
    return kDone;
  };
}

Command AddPage(CLI::App& app) {
  auto* command = app.add_subcommand("page", "serve a page that shows the server, and metrics, until Ctrl-C");
  const auto options = std::make_shared<PageOptions>();
  AddSocketOption(*command, options->socket);
  command->add_option("--address", options->address, "the IP address to listen on")->capture_default_str();
  command->add_option("--port", options->port, "the TCP port")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  command
      ->add_option("--history", options->history,
                   "keep what is used in this SQLite file, for `ugs history`; none is kept if left out")
      ->envname("UGS_HISTORY");
  command->footer(kPagePaths);
  return [options] {
    ServePage(*options);
    return kDone;
  };
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Keys, reports and checks for a KorvaneUGS server.", "ugs");
  app.require_subcommand(1);
  app.set_version_flag("--version", "ugs " + std::string(UGSDefs::kVersion));
  app.footer("Exit codes: 0 done, 1 the server refused, 2 usage error, 3 no answer.");
  const std::map<std::string, Command> commands{
      {"keygen", AddKeygen(app)},   {"fingerprint", AddFingerprint(app)},
      {"report", AddReport(app)},   {"ping", AddPing(app)},
      {"fleet", AddFleet(app)},     {"key", AddKey(app)},
      {"status", AddStatus(app)},   {"instances", AddInstances(app)},
      {"losses", AddLosses(app)},   {"refusals", AddRefusals(app)},
      {"top", AddTop(app)},         {"page", AddPage(app)},
      {"history", AddHistory(app)},
  };
  if (argc == 1) {
    std::cerr << app.help();
    return kUsageError;
  }
  if (argv[1][0] != '-' && !commands.contains(argv[1])) {
    std::vector<std::string> names;
    for (const auto& [name, command] : commands) names.push_back(name);
    std::cerr << "ugs: there is no command \"" << argv[1] << "\"; did you mean "
              << ugs::Nearest(argv[1], names) << "?\n";
    return kUsageError;
  }
  try {
    app.parse(argc, argv);
    return commands.at(app.get_subcommands().front()->get_name())();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsageError;
  } catch (const NoServer& error) {
    std::cerr << "ugs: " << error.what() << "\n";
    return kNoAnswer;
  } catch (const DatabaseError& error) {
    std::cerr << "ugs: " << error.what() << "\n";
    return kNoAnswer;
  } catch (const NoStatus& error) {
    std::cerr << "ugs: " << error.what() << "\n";
    return kNoAnswer;
  } catch (const std::exception& error) {
    std::cerr << "ugs: " << error.what() << "\n";
    return kUsageError;
  }
}
