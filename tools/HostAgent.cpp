#include "HostAgent.h"

#include <poll.h>
#include <sys/inotify.h>

#include <array>
#include <csignal>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "InstanceKey.h"
#include "SignalFile.h"

namespace {

// A file counts once it is closed or moved here: half-written ones are not read.
constexpr std::uint32_t kChanges =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

constexpr std::size_t kEventBytes = 65536;

// Nothing if there is no such file.
std::optional<std::string> ReadFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream && !std::filesystem::exists(file)) return std::nullopt;
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) throw std::runtime_error("cannot be read");
  return text;
}

// Editors keep their unfinished work in hidden files.
bool IsDocument(const std::string& name) {
  return name.ends_with(".json") && !name.starts_with('.');
}

}  // namespace

HostAgent::HostAgent(std::filesystem::path directory, const std::string& server, const std::string& key,
                     std::chrono::milliseconds period, std::chrono::milliseconds replyTimeout, bool verbose)
    : directory_(std::move(directory)),
      verbose_(verbose),
      signals_(SignalFile({SIGINT, SIGTERM})),
      watch_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify"),
      group_(
          server, key, period,
          [this](const std::string& instance, const ugs::Outcome& outcome) { Tell(instance, outcome); },
          replyTimeout) {
  if (inotify_add_watch(watch_.Number(), directory_.c_str(), kChanges) == -1) {
    throw std::system_error(errno, std::generic_category(), "cannot watch " + directory_.string());
  }
}

void HostAgent::Run() {
  LoadAll();
  isStarted_ = true;
  std::cout << "Reporting for " << files_.size() << " instances of " << directory_.string()
            << "; Ctrl-C ends this." << std::endl;
  std::array<pollfd, 2> items{{{watch_.Number(), POLLIN, 0}, {signals_.Number(), POLLIN, 0}}};
  while (items[1].revents == 0) {
    if (poll(items.data(), items.size(), -1) > 0 && items[0].revents != 0) TakeEvents();
  }
}

void HostAgent::LoadAll() {
  std::set<std::string> names;
  for (const auto& [name, file] : files_) names.insert(name);  // also those that are gone
  for (const auto& entry : std::filesystem::directory_iterator(directory_))
    names.insert(entry.path().filename());
  for (const std::string& name : names) Load(name);
}

void HostAgent::Load(const std::string& name) {
  if (!IsDocument(name)) return;
  try {
    const std::optional<std::string> text = ReadFile(directory_ / name);
    if (!text) return SignOff(name);
    const ugs::Usage usage = ugs::ReadDocument(*text);
    Report(name, {ugs::InstanceKey(usage.id, usage.cameras), ugs::WriteDocument(usage)}, usage);
  } catch (const std::exception& error) {
    std::cerr << "ugs: " << name << ": " << error.what()
              << (files_.contains(name) ? "; what it said before is still reported" : "") << std::endl;
  }
}

void HostAgent::Report(const std::string& name, File file, const ugs::Usage& usage) {
  const auto found = files_.find(name);
  if (found != files_.end() && found->second.document == file.document) return;
  for (const auto& [other, known] : files_) {
    if (other != name && known.instance == file.instance) {
      throw std::runtime_error("the instance is that of " + other);
    }
  }
  const bool isNew = found == files_.end() || found->second.instance != file.instance;
  if (isNew) {
    SignOff(name);  // what it described before
    const ugs::MutexLock lock(mutex_);
    told_[file.instance].file = name;
  }
  group_.Join(file.instance, [usage] { return usage; });
  if (isNew && isStarted_) group_.ReportNow(file.instance);
  files_[name] = std::move(file);
}

void HostAgent::SignOff(const std::string& name) {
  const auto found = files_.find(name);
  if (found == files_.end()) return;
  group_.SignOff(found->second.instance);
  std::cout << name << ": signed off" << std::endl;
  const ugs::MutexLock lock(mutex_);
  told_.erase(found->second.instance);
  files_.erase(found);
}

// inotify(7)
void HostAgent::TakeEvents() {
  alignas(inotify_event) std::array<char, kEventBytes> buffer{};
  const ssize_t size = read(watch_.Number(), buffer.data(), buffer.size());
  for (ssize_t at = 0; at < size;) {
    const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
    at += static_cast<ssize_t>(sizeof *event + event->len);
    if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) != 0) {
      throw std::runtime_error(directory_.string() + " has gone away");
    }
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
      LoadAll();
    } else if (event->len > 0) {
      Load(event->name);
    }
  }
}

// On the group's thread. Only what is new, unless more is asked for.
void HostAgent::Tell(const std::string& instance, const ugs::Outcome& outcome) {
  const ugs::MutexLock lock(mutex_);
  const auto found = told_.find(instance);
  if (found == told_.end()) return;  // signed off
  const std::string text = outcome.code == 0 ? "0 (counted)" : outcome.text;
  if (std::exchange(found->second.outcome, text) == text && !verbose_) return;
  (outcome.code == 0 ? std::cout : std::cerr) << found->second.file << ": " << text << std::endl;
}
