#include "StatusTop.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "FileDescriptor.h"
#include "Listing.h"
#include "Shown.h"
#include "SignalFile.h"
#include "Status.h"
#include "StatusChecks.h"
#include "StatusCommands.h"
#include "StatusListings.h"
#include "TopScreen.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<TopScreen::Line>;

constexpr std::string_view kUp = "\x1b[A";
constexpr std::string_view kDown = "\x1b[B";
constexpr std::string_view kPageUp = "\x1b[5~";
constexpr std::string_view kPageDown = "\x1b[6~";
constexpr std::string_view kEscape = "\x1b";
// As xterm, the Linux console and rxvt send them.
constexpr std::array<std::string_view, 3> kHome = {"\x1b[H", "\x1b[1~", "\x1b[7~"};
constexpr std::array<std::string_view, 3> kEnd = {"\x1b[F", "\x1b[4~", "\x1b[8~"};

bool IsOneOf(std::string_view key, const std::array<std::string_view, 3>& keys) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

std::string InLowerCase(std::string text) {
  for (char& character : text) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return text;
}

bool Matches(const StatusInstance& instance, const std::string& filter) {
  const std::string wanted = InLowerCase(filter);
  const auto holds = [&](const std::string& text) {
    return InLowerCase(text).find(wanted) != std::string::npos;
  };
  return holds(instance->identity) || holds(instance->container) || holds(instance->address) ||
         std::any_of(instance->cameras.begin(), instance->cameras.end(), holds);
}

std::vector<std::string> DetailsOf(const StatusInstance& instance, std::int64_t now) {
  std::vector<std::string> lines{
      "identity   " + instance->identity,
      "container  " + instance->container,
      "address    " + instance->address,
      "state      " + instance->state + " " + Joined(instance->flags, " "),
      "last       " + ShownTime(instance->last, now) + ", " + ShownAge(now - instance->last) + " ago",
      "first      " + ShownTime(instance->first, now) + ", reports " + std::to_string(instance->reports),
      "period     " + ShownAge(static_cast<std::int64_t>(instance->period)),
      "layout     " + instance->layout,
      "key        " + instance->key,
  };
  for (const auto& [name, count] : instance->counts) lines.push_back(name + " " + std::to_string(count));
  lines.push_back("cameras    " + std::to_string(instance->camerasCount));
  for (const std::string& camera : instance->cameras) lines.push_back("  " + camera);
  return lines;
}

// What is shown, and how keys change it. Knows no terminal.
class TopView {
 public:
  void Update(StatusSnapshot snapshot) {
    snapshot_ = std::move(snapshot);
    trouble_.clear();
    Arrange();
  }
  void Fail(std::string trouble) { trouble_ = std::move(trouble); }

  // False if it is the key to quit.
  bool Press(std::string_view key) {
    if (isTyping_) {
      Type(key);
    } else if (key == "q") {
      return false;
    } else if (inDetail_) {
      PressInDetail(key);
    } else {
      PressInList(key);
    }
    Arrange();
    return true;
  }

  [[nodiscard]] Lines LinesFor(TopScreen::Size size) {
    page_ = size.rows > kAround ? size.rows - kAround : 1;
    Lines body = inDetail_ && Selected() != nullptr ? Detail() : List(size.columns);
    Lines lines = Head();  // says which rows the list shows
    lines.insert(lines.end(), body.begin(), body.end());
    lines.resize(std::max(size.rows, std::size_t{2}) - 1);
    lines.push_back({Foot()});
    return lines;
  }

 private:
  static constexpr std::size_t kAround = 4;  // two lines above, the titles, one below

  void Type(std::string_view key) {
    const std::string before = filter_;
    if (key == "\r" || key == "\n" || key == kEscape) {
      isTyping_ = false;
      if (key == kEscape) filter_.clear();
    } else if (key == "\x7f" || key == "\b") {
      while (!filter_.empty() && (static_cast<unsigned char>(filter_.back()) & 0xC0U) == 0x80)
        filter_.pop_back();
      if (!filter_.empty()) filter_.pop_back();
    } else if (key.size() == 1 && static_cast<unsigned char>(key.front()) >= ' ') {
      filter_ += key;
    }
    if (filter_ != before) ToTop();
  }

  void PressInDetail(std::string_view key) {
    if (key == kUp && scrolled_ > 0) --scrolled_;
    if (key == kDown) ++scrolled_;
    if (IsOneOf(key, kHome)) scrolled_ = 0;
    if (IsOneOf(key, kEnd)) scrolled_ = SIZE_MAX;  // as far as there is something
    if (key == kEscape || key == "\r" || key == "\n") inDetail_ = false;
  }

  void PressInList(std::string_view key) {
    if (key == "a") SortBy("age");
    if (key == "c") SortBy("cameras");
    if (key == "f") SortBy(NextFeature());
    if (key == "/") isTyping_ = true;
    if (key == kEscape && !filter_.empty()) {
      filter_.clear();
      ToTop();
    }
    if (IsOneOf(key, kHome)) ToTop();
    if (IsOneOf(key, kEnd)) Move(std::ssize(shown_));
    if (key == kUp) Move(-1);
    if (key == kDown) Move(1);
    if (key == kPageUp) Move(-static_cast<std::ptrdiff_t>(page_));
    if (key == kPageDown) Move(static_cast<std::ptrdiff_t>(page_));
    if (key == "\r" || key == "\n") {
      Move(0);
      inDetail_ = Selected() != nullptr;
      scrolled_ = 0;
    }
  }

  void SortBy(std::string order) {
    order_ = std::move(order);
    ToTop();
  }

  // The mark is on the first row then, whoever that is, until it is moved.
  void ToTop() {
    selectedKey_.clear();
    selected_ = 0;
    top_ = 0;
  }

  // The count after the one that the list is sorted by, of those that somebody uses; age if nobody uses any.
  [[nodiscard]] std::string NextFeature() const {
    std::vector<std::string> used = FeatureNames();
    std::erase_if(used, [&](const std::string& name) {
      return std::none_of(
          snapshot_.instances.begin(), snapshot_.instances.end(),
          [&](const StatusInstance& instance) { return CountOf(instance->counts, name) != 0; });
    });
    if (used.empty()) return "age";
    const auto current = std::find(used.begin(), used.end(), order_);
    return current == used.end() || current + 1 == used.end() ? used.front() : *(current + 1);
  }

  [[nodiscard]] bool IsByFeature() const { return order_ != "age" && order_ != "cameras"; }

  void Arrange() {
    shown_ = snapshot_.instances;
    if (!filter_.empty()) {
      std::erase_if(shown_, [&](const StatusInstance& instance) { return !Matches(instance, filter_); });
    }
    SortInstances(shown_, order_);
    if (selectedKey_.empty()) return;
    // The mark stays on its instance wherever that goes, and in its place if it is gone.
    const auto same = std::find_if(shown_.begin(), shown_.end(), [&](const StatusInstance& instance) {
      return instance->key == selectedKey_;
    });
    if (same != shown_.end()) {
      selected_ = static_cast<std::size_t>(same - shown_.begin());
    } else {
      Move(0);
    }
  }

  void Move(std::ptrdiff_t by) {
    if (shown_.empty()) return;
    const auto last = static_cast<std::ptrdiff_t>(shown_.size()) - 1;
    const auto place = std::clamp<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(selected_) + by, 0, last);
    selected_ = static_cast<std::size_t>(place);
    selectedKey_ = shown_[selected_]->key;
  }

  [[nodiscard]] const StatusInstance* Selected() const {
    return selected_ < shown_.size() ? &shown_[selected_] : nullptr;
  }

  [[nodiscard]] Lines Head() const {
    const std::vector<StatusProblem> problems = ProblemsOf(snapshot_);
    std::string verdict = Verdict(problems);
    if (!problems.empty()) verdict += ": " + problems.front().text;
    const StatusServer& server = snapshot_.server;
    const std::string summary =
        ShownTime(server.time, server.time) + "  " + RowsShown() + SummaryOf(snapshot_)[1];
    return {{summary}, {trouble_.empty() ? verdict : trouble_}};
  }

  // "1-16 of ", before the number of all instances.
  [[nodiscard]] std::string RowsShown() const {
    if (inDetail_) return "";
    if (shown_.empty()) return filter_.empty() ? "" : "none found of ";
    const std::size_t last = std::min(top_ + page_, shown_.size());
    const std::string rows = std::to_string(top_ + 1) + "-" + std::to_string(last) + " of ";
    return filter_.empty() ? rows : rows + std::to_string(shown_.size()) + " found of ";
  }

  [[nodiscard]] Lines Detail() {
    const std::vector<std::string> details = DetailsOf(*Selected(), snapshot_.server.time);
    scrolled_ = std::min(scrolled_, details.size() > page_ ? details.size() - page_ : 0);
    Lines lines;
    for (std::size_t i = scrolled_; i < details.size() && lines.size() <= page_; ++i)
      lines.push_back({details[i]});
    return lines;
  }

  [[nodiscard]] Lines List(std::size_t columns) {
    top_ = std::min({top_, selected_, shown_.size() - std::min(page_, shown_.size())});
    if (selected_ >= top_ + page_) top_ = selected_ + 1 - page_;
    const std::size_t end = std::min(top_ + page_, shown_.size());
    const std::vector<StatusInstance> visible(shown_.begin() + static_cast<std::ptrdiff_t>(top_),
                                              shown_.begin() + static_cast<std::ptrdiff_t>(end));
    const std::int64_t now = snapshot_.server.time;
    const Listing listing = ListInstances(visible, now, IsByFeature() ? order_ : "");
    Lines lines;
    for (std::string& line : TableOf(listing, now, std::clamp<std::size_t>(columns / 3, 8, 40)))
      lines.push_back({std::move(line), !lines.empty() && top_ + lines.size() - 1 == selected_});
    return lines;
  }

  [[nodiscard]] std::string Foot() const {
    if (isTyping_) return "filter: " + filter_ + "_";
    if (inDetail_) return "Esc back  q quit  arrows scroll";
    return "q quit  a age  c cameras  f count  / filter" + (filter_.empty() ? "" : " \"" + filter_ + "\"") +
           "  Enter detail";
  }

  StatusSnapshot snapshot_;
  std::vector<StatusInstance> shown_;
  std::string trouble_;
  std::string order_ = "age";
  std::string filter_;
  std::string selectedKey_;
  std::size_t selected_ = 0;
  std::size_t top_ = 0;
  std::size_t page_ = 1;
  std::size_t scrolled_ = 0;
  bool isTyping_ = false;
  bool inDetail_ = false;
};

// Takes the first key off `input`: an escape sequence (ECMA-48) in one piece, any other byte alone.
std::string TakeKey(std::string& input) {
  std::size_t length = 1;
  if (input.size() > 2 && input[0] == '\x1b' && (input[1] == '[' || input[1] == 'O')) {
    length = 2;
    while (length < input.size() && input[length] < '@') ++length;
    length = std::min(length + 1, input.size());
    input[1] = '[';  // keypads in application mode say O
  }
  std::string key = input.substr(0, length);
  input.erase(0, length);
  return key;
}

// Drives the view: snapshots, keys and signals in, lines out.
class Top {
 public:
  explicit Top(std::string socket)
      : socket_(std::move(socket)),
        signals_(SignalFile({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH})) {
    view_.Update(ReadStatus(socket_));
    screen_.emplace();
  }

  void Run() {
    while (isRunning_) {
      screen_->Draw(view_.LinesFor(TopScreen::CurrentSize()));
      std::array<pollfd, 3> items{{{STDIN_FILENO, POLLIN, 0},
                                   {signals_.Number(), POLLIN, 0},
                                   {connection_ ? connection_->Descriptor() : -1, POLLIN, 0}}};
      poll(items.data(), items.size(), static_cast<int>(UntilNextLook().count()));
      if (items[1].revents != 0) TakeSignals();
      if (items[0].revents != 0) TakeKeys();
      LookAgain(items[2].revents != 0);
    }
  }

 private:
  static constexpr std::chrono::milliseconds kPeriod{1000};

  [[nodiscard]] std::chrono::milliseconds UntilNextLook() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextLook_ - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
  }

  // A snapshot that is not whole when the next one is due is given up.
  void LookAgain(bool isReadable) {
    try {
      if (isReadable) Receive();
      if (Clock::now() < nextLook_) return;
      if (connection_) view_.Fail("the server does not tell its status");
      nextLook_ = Clock::now() + kPeriod;
      connection_.reset();
      connection_ = std::make_unique<StatusConnection>(socket_, memory_);
    } catch (const NoStatus& error) {
      connection_.reset();
      view_.Fail(error.what());
    }
  }

  void Receive() {
    std::optional<StatusSnapshot> snapshot = connection_->Receive();
    if (!snapshot) return;
    connection_.reset();
    view_.Update(*std::move(snapshot));
  }

  void TakeKeys() {
    std::array<char, 256> chunk;
    const ssize_t length = read(STDIN_FILENO, chunk.data(), chunk.size());
    if (length <= 0) {
      isRunning_ = false;
      return;
    }
    std::string input(chunk.data(), static_cast<std::size_t>(length));
    while (isRunning_ && !input.empty()) isRunning_ = view_.Press(TakeKey(input));
  }

  void TakeSignals() {
    signalfd_siginfo info{};
    while (read(signals_.Number(), &info, sizeof info) == sizeof info) {
      switch (static_cast<int>(info.ssi_signo)) {
        case SIGWINCH:
          break;
        case SIGTSTP:
          screen_.reset();
          raise(SIGSTOP);
          screen_.emplace();
          break;
        case SIGCONT:  // whoever had the terminal meanwhile may have changed it
          screen_.reset();
          screen_.emplace();
          break;
        default:
          isRunning_ = false;
          break;
      }
    }
  }

  const std::string socket_;
  const FileDescriptor signals_;
  TopView view_;
  std::optional<TopScreen> screen_;
  StatusMemory memory_;
  std::unique_ptr<StatusConnection> connection_;
  Clock::time_point nextLook_ = Clock::now() + kPeriod;
  bool isRunning_ = true;
};

}  // namespace

bool CanShowTop() {
  const char* const terminal = std::getenv("TERM");
  return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 && terminal != nullptr &&
         std::string_view(terminal) != "dumb" && *terminal != '\0';
}

void ShowTop(const std::string& socket) {
  Top(socket).Run();
}
