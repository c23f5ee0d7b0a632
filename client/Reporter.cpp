#include <utility>

#include "ReporterLoop.h"
#include "UgsClient.h"

namespace ugs {
namespace {

// A reporter is a group of one.
constexpr const char* kOnly = "";

std::shared_ptr<ReporterLoop> Started(std::shared_ptr<ReporterLoop> loop) {
  loop->Start();
  return loop;
}

}  // namespace

ReporterGroup::ReporterGroup(std::string_view server, const std::string& key,
                             std::chrono::milliseconds period, Listener answered,
                             std::chrono::milliseconds replyTimeout, Log log)
    : loop_(Started(std::make_shared<ReporterLoop>(server, key, period, std::move(answered), replyTimeout,
                                                   std::move(log)))) {}

ReporterGroup::~ReporterGroup() {
  loop_->Stop();
}

void ReporterGroup::Join(const std::string& name, Source usage) {
  loop_->Join(name, std::move(usage));
}

void ReporterGroup::ReportNow(const std::string& name) {
  loop_->ReportNow(name);
}

void ReporterGroup::SignOff(const std::string& name) {
  loop_->SignOff(name);
}

void ReporterGroup::Leave(const std::string& name) {
  loop_->Leave(name);
}

Counters ReporterGroup::GetCounters() const {
  return loop_->GetCounters();
}

Reporter::Reporter(std::string_view server, const std::string& key, Source usage,
                   std::chrono::milliseconds period, OutcomeListener answered,
                   std::chrono::milliseconds replyTimeout, Log log)
    : loop_(std::make_shared<ReporterLoop>(
          server, key, period,
          answered ? ReporterGroup::Listener(
                         [answered](const std::string&, const Outcome& outcome) { answered(outcome); })
                   : ReporterGroup::Listener(),
          replyTimeout, std::move(log))) {
  loop_->Join(kOnly, std::move(usage));
  loop_->Start();
}

Reporter::Reporter(std::string_view server, const std::string& key, Source usage,
                   std::chrono::milliseconds period, Listener answered,
                   std::chrono::milliseconds replyTimeout)
    : Reporter(server, key, std::move(usage), period,
               answered ? OutcomeListener([answered](const Outcome& outcome) { answered(outcome.code); })
                        : OutcomeListener(),
               replyTimeout) {}

Reporter::~Reporter() {
  loop_->Stop();
}

void Reporter::ReportNow() {
  loop_->ReportNow(kOnly);
}

std::optional<int> Reporter::SignOff() {
  return loop_->SignOffAll();
}

void Reporter::Interrupt() {
  loop_->Interrupt();
}

Counters Reporter::GetCounters() const {
  return loop_->GetCounters();
}

}  // namespace ugs
