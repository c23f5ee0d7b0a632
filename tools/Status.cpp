#include "Status.h"

#include <poll.h>
#include <pwd.h>
#include <rapidjson/document.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "Utf8.h"

namespace {

constexpr std::int64_t kSchema = 1;

using Object = rapidjson::Value;

const Object* Member(const Object& object, const char* name) {
  const auto member = object.FindMember(name);
  return member == object.MemberEnd() ? nullptr : &member->value;
}

std::string TextOf(const Object& value) {
  return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : std::string();
}

// A member of another type than expected is one that we do not know: it is left at its default.
void Read(const Object& object, const char* name, std::string& text) {
  if (const Object* member = Member(object, name)) text = TextOf(*member);
}

void Read(const Object& object, const char* name, std::int64_t& number) {
  const Object* member = Member(object, name);
  if (member != nullptr && member->IsInt64()) number = member->GetInt64();
}

void Read(const Object& object, const char* name, double& number) {
  const Object* member = Member(object, name);
  if (member != nullptr && member->IsNumber()) number = member->GetDouble();
}

void Read(const Object& object, const char* name, bool& flag) {
  const Object* member = Member(object, name);
  if (member != nullptr && member->IsBool()) flag = member->GetBool();
}

void Read(const Object& object, const char* name, std::vector<std::string>& texts) {
  const Object* member = Member(object, name);
  if (member == nullptr || !member->IsArray()) return;
  for (const Object& text : member->GetArray()) texts.push_back(TextOf(text));
}

void Read(const Object& object, const char* name, StatusCounts& counts) {
  const Object* member = Member(object, name);
  if (member == nullptr || !member->IsObject()) return;
  for (const auto& count : member->GetObject()) {
    if (count.value.IsInt64()) counts.emplace_back(TextOf(count.name), count.value.GetInt64());
  }
}

StatusServer ServerOf(const Object& line) {
  StatusServer server;
  Read(line, "version", server.version);
  Read(line, "host", server.host);
  Read(line, "time", server.time);
  Read(line, "started", server.started);
  Read(line, "rebuilt", server.rebuilt);
  Read(line, "rebuilds", server.rebuilds);
  Read(line, "serving", server.serving);
  Read(line, "reports", server.reports);
  Read(line, "greetings", server.greetings);
  Read(line, "refused", server.refused);
  Read(line, "last_report", server.lastReport);
  Read(line, "expired", server.expired);
  Read(line, "never_back", server.neverBack);
  Read(line, "signed_off", server.signedOff);
  Read(line, "errors", server.errors);
  Read(line, "reports_per_second", server.reportsPerSecond);
  Read(line, "reports_per_second_limit", server.reportsPerSecondLimit);
  Read(line, "queue", server.queue);
  Read(line, "queue_peak", server.queuePeak);
  Read(line, "queue_limit", server.queueLimit);
  Read(line, "connections", server.connections);
  Read(line, "open_files", server.openFiles);
  Read(line, "open_files_limit", server.openFilesLimit);
  Read(line, "replies_lost", server.repliesLost);
  Read(line, "log_written", server.logWritten);
  Read(line, "log_failed", server.logFailed);
  Read(line, "log_failures", server.logFailures);
  return server;
}

void ReadPeer(const Object& line, StatusPeer& peer) {
  Read(line, "key", peer.key);
  Read(line, "identity", peer.identity);
  Read(line, "container", peer.container);
  Read(line, "address", peer.address);
  Read(line, "counts", peer.counts);
  Read(line, "cameras_count", peer.camerasCount);
  Read(line, "first", peer.first);
  Read(line, "last", peer.last);
}

StatusInstance InstanceOf(const Object& line) {
  StatusInstance instance;
  auto facts = std::make_shared<StatusFacts>();
  ReadPeer(line, *facts);
  Read(line, "layout", facts->layout);
  Read(line, "cameras", facts->cameras);
  Read(line, "reports", facts->reports);
  Read(line, "period", facts->period);
  Read(line, "state", facts->state);
  Read(line, "flags", facts->flags);
  Read(line, "camera_seconds", instance.cameraSeconds);
  instance.facts = std::move(facts);
  return instance;
}

StatusLoss LossOf(const Object& line) {
  StatusLoss loss;
  ReadPeer(line, loss);
  Read(line, "camera_seconds", loss.cameraSeconds);
  Read(line, "lost", loss.lost);
  Read(line, "reason", loss.reason);
  Read(line, "returned", loss.returned);
  return loss;
}

StatusRefusal RefusalOf(const Object& line) {
  StatusRefusal refusal;
  Read(line, "address", refusal.address);
  Read(line, "code", refusal.code);
  Read(line, "count", refusal.count);
  Read(line, "first", refusal.first);
  Read(line, "last", refusal.last);
  Read(line, "identity", refusal.identity);
  return refusal;
}

std::vector<StatusUse> UsesOf(const Object& line) {
  const Object* features = Member(line, "features");
  if (features == nullptr || !features->IsObject()) return {};
  std::vector<StatusUse> uses;
  for (const auto& feature : features->GetObject()) {
    const Object& use = feature.value;
    if (!use.IsArray() || use.Size() < 3) continue;
    if (!use[0].IsInt64() || !use[1].IsInt64() || !use[2].IsInt64()) continue;
    uses.push_back({TextOf(feature.name), use[0].GetInt64(), use[1].GetInt64(), use[2].GetInt64()});
  }
  return uses;
}

StatusHour HourOf(const Object& line) {
  StatusHour hour;
  Read(line, "hour", hour.hour);
  Read(line, "seen", hour.seen);
  hour.uses = UsesOf(line);
  return hour;
}

void CheckSchema(const Object& line) {
  std::int64_t schema = 0;
  Read(line, "schema", schema);
  if (schema < 1) throw NoStatus("what the server says is no status");
  if (schema > kSchema) {
    throw NoStatus("the server's status has schema " + std::to_string(schema) + ", and this ugs knows " +
                   std::to_string(kSchema) + ": install the ugs that belongs to the server");
  }
}

// Takes the number off the beginning of `text`; 0 if there is none.
std::int64_t TakeNumber(std::string_view& text) {
  std::int64_t number = 0;
  const char* const end = std::from_chars(text.data(), text.data() + text.size(), number).ptr;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

// Where the camera-seconds are in a line, or its end. No string can hold the name as it is sought: there a
// quote has a backslash before it.
std::size_t FindCameraSeconds(std::string_view line) {
  constexpr std::string_view kName = "\"camera_seconds\":";
  const std::size_t name = line.find(kName);
  if (name == std::string_view::npos) return line.size();
  return std::min(line.find_first_not_of(' ', name + kName.size()), line.size());
}

// Gathers the lines of the memory's newest snapshot.
class SnapshotParser {
 public:
  explicit SnapshotParser(StatusMemory& memory) : memory_(memory) {}

  void Take(std::string_view line) {
    if (std::optional<StatusInstance> known = hasServer_ ? memory_.Find(line) : std::nullopt) {
      snapshot_.instances.push_back(*std::move(known));
    } else if (ParseLine(line) == "instance") {
      memory_.Add(line, snapshot_.instances.back().facts);
    }
  }

  [[nodiscard]] StatusSnapshot Finish() {
    if (!hasServer_ || !hasEnd_) throw NoStatus("the server's status was cut short; try again");
    return std::move(snapshot_);
  }

 private:
  // Returns its type.
  std::string ParseLine(std::string_view line) {
    rapidjson::Document document;
    const std::string text = ValidUtf8(line);
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError() || !document.IsObject()) throw NoStatus("what the server says is no status");
    std::string type;
    Read(document, "type", type);
    if (!hasServer_) CheckSchema(document);
    Store(type, document);
    return type;
  }

  void Store(const std::string& type, const Object& line) {
    if (type == "server") {
      snapshot_.server = ServerOf(line);
      hasServer_ = true;
    } else if (type == "totals") {
      Read(line, "counts", snapshot_.totals);
      Read(line, "instances", snapshot_.totalInstances);
    } else if (type == "instance") {
      snapshot_.instances.push_back(InstanceOf(line));
    } else if (type == "loss") {
      snapshot_.losses.push_back(LossOf(line));
    } else if (type == "refusal") {
      snapshot_.refusals.push_back(RefusalOf(line));
    } else if (type == "hour") {
      snapshot_.hours.push_back(HourOf(line));
    } else if (type == "end") {
      hasEnd_ = true;
    }
  }

  StatusMemory& memory_;
  StatusSnapshot snapshot_;
  bool hasServer_ = false;
  bool hasEnd_ = false;
};

StatusSnapshot Parse(StatusMemory& memory) {
  SnapshotParser parser(memory);
  std::string_view text = memory.Text();
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (end > 0) parser.Take(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parser.Finish();
}

std::string UserName() {
  const passwd* user = getpwuid(geteuid());
  return user == nullptr ? "NAME" : user->pw_name;
}

// connect(2) refuses what is no socket as it does a socket that nobody listens on.
bool IsNoSocket(const std::string& path) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  return std::filesystem::exists(status) && !std::filesystem::is_socket(status);
}

std::string WhyNot(const std::string& path, int error) {
  if (error == ECONNREFUSED && IsNoSocket(path))
    return path + " is no socket, so no server shows its status there";
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return "no server shows its status at " + path + ": is it running, with UGS_STATUS set?";
    case ECONNREFUSED:
      return "no server shows its status at " + path + ": the server that made it is gone";
    case EACCES:
    case EPERM:
      return "you may not read the status at " + path + ": as root, adduser " + UserName() +
             " korvaneugs, then log in again";
    case EAGAIN:
      return "the server at " + path + " takes no more readers: is it stopped?";
    default:
      return "no status at " + path + ": " + std::strerror(error);
  }
}

void Connect(int descriptor, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw NoStatus(WhyNot(path, ENAMETOOLONG));
  path.copy(address.sun_path, path.size());
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    throw NoStatus(WhyNot(path, errno));
  }
}

}  // namespace

std::int64_t CountOf(const StatusCounts& counts, const std::string& name) {
  const auto count =
      std::find_if(counts.begin(), counts.end(), [&](const auto& pair) { return pair.first == name; });
  return count == counts.end() ? 0 : count->second;
}

bool StatusFacts::Has(const std::string& flag) const {
  return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

std::string DefaultStatusSocket() {
  constexpr const char* kOfService = "/run/korvaneugs/status";
  constexpr const char* kOfCheckout = "build/status";
  const char* const set = std::getenv("UGS_STATUS");
  if (set != nullptr && *set != '\0') return set;
  // The service's directory may be closed to this user, who then should hear about that.
  std::error_code error;
  const bool hasService =
      std::filesystem::status(kOfService, error).type() != std::filesystem::file_type::not_found;
  return !hasService && std::filesystem::exists(kOfCheckout, error) ? kOfCheckout : kOfService;
}

std::string StatusMemory::TakeBuffer() {
  before_.lines.clear();
  before_.text.clear();
  return std::move(before_.text);
}

// The lines stay where they are: no text of one is so short that it is moved along with its string.
void StatusMemory::BeginSnapshot(std::string text) {
  before_ = std::move(now_);
  next_ = 0;
  now_ = {std::move(text), {}};
  now_.lines.reserve(before_.lines.size());
}

std::optional<StatusInstance> StatusMemory::Find(std::string_view line) {
  if (next_ == before_.lines.size()) return std::nullopt;
  const Line& known = before_.lines[next_];
  if (!line.starts_with(known.head)) return std::nullopt;
  std::string_view tail = line.substr(known.head.size());
  const std::int64_t cameraSeconds = TakeNumber(tail);
  if (tail != known.tail) return std::nullopt;
  now_.lines.push_back({line.substr(0, known.head.size()), tail, known.facts});
  ++next_;
  return StatusInstance{known.facts, cameraSeconds};
}

void StatusMemory::Add(std::string_view line, std::shared_ptr<const StatusFacts> facts) {
  while (next_ < before_.lines.size() && before_.lines[next_].facts->key <= facts->key) ++next_;
  std::string_view tail = line.substr(FindCameraSeconds(line));
  const std::string_view head = line.substr(0, line.size() - tail.size());
  TakeNumber(tail);
  now_.lines.push_back({head, tail, std::move(facts)});
}

StatusConnection::StatusConnection(const std::string& path, StatusMemory& memory)
    : path_(path),
      socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"),
      memory_(memory),
      text_(memory.TakeBuffer()) {
  Connect(socket_.Number(), path);
}

std::optional<StatusSnapshot> StatusConnection::Receive() {
  std::array<char, 65536> chunk;
  while (true) {
    const ssize_t length = recv(socket_.Number(), chunk.data(), chunk.size(), 0);
    if (length == 0) {
      memory_.BeginSnapshot(std::move(text_));
      return Parse(memory_);
    }
    if (length > 0) {
      text_.append(chunk.data(), static_cast<std::size_t>(length));
    } else if (errno == EAGAIN) {
      return std::nullopt;
    } else if (errno != EINTR) {
      throw NoStatus(WhyNot(path_, errno));
    }
  }
}

StatusSnapshot ReadStatus(const std::string& path) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  StatusMemory memory;
  StatusConnection connection(path, memory);
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd item{connection.Descriptor(), POLLIN, 0};
    if (left <= 0 || poll(&item, 1, static_cast<int>(left)) == 0) {
      throw NoStatus("the server at " + path + " took longer than 5 s to tell its status");
    }
    if (std::optional<StatusSnapshot> snapshot = connection.Receive()) return *std::move(snapshot);
  }
}
