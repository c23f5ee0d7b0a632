#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>

#include "FileDescriptor.h"
#include "Mutex.h"
#include "UgsClient.h"

// Reports for the instances that a directory describes, one JSON file for each, named *.json, and follows
// what changes there. One thread, but for what is told of outcomes.
class HostAgent {
 public:
  // Throws std::system_error if the directory cannot be watched, and as ugs::ReporterGroup does.
  HostAgent(std::filesystem::path directory, const std::string& server, const std::string& key,
            std::chrono::milliseconds period, std::chrono::milliseconds replyTimeout, bool verbose);

  // Until SIGINT or SIGTERM comes. Throws std::runtime_error if the directory goes away.
  void Run();

 private:
  struct File {
    std::string instance;  // as the server's log names it
    std::string document;
  };
  struct Told {
    std::string file;
    std::string outcome;
  };

  void LoadAll();
  // Takes the file as it is now: new, changed, gone or unusable.
  void Load(const std::string& name);
  void Report(const std::string& name, File file, const ugs::Usage& usage);
  void SignOff(const std::string& name);
  void TakeEvents();
  void Tell(const std::string& instance, const ugs::Outcome& outcome);

  const std::filesystem::path directory_;
  const bool verbose_;
  const FileDescriptor signals_;  // before the group, whose threads leave the signals to it
  const FileDescriptor watch_;
  std::map<std::string, File> files_;  // those that are reported, by name
  bool isStarted_ = false;

  ugs::Mutex mutex_;
  std::map<std::string, Told> told_ UGS_GUARDED_BY(mutex_);  // by instance

  ugs::ReporterGroup group_;
};
