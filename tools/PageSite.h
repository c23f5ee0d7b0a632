// What the page answers to a request.
#pragma once

#include <microhttpd.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "HistoryPages.h"
#include "Metrics.h"
#include "PageAnswer.h"
#include "PageEvents.h"
#include "PageView.h"

// Thread: the library's alone, once that runs.
class PageSite {
 public:
  // Answers from the history; empty if none is kept.
  using History = std::function<HistoryAnswer(const HistoryQuestion&)>;

  // `host` and `port` are those that it listens on.
  PageSite(const Newest& newest, PageEvents& events, History history, const std::string& host,
           std::uint16_t port);

  MHD_Result Reply(MHD_Connection* connection, std::string_view path);
  MHD_Result RefuseMethod(MHD_Connection* connection) const;

 private:
  [[nodiscard]] bool IsOurs(const char* header) const;
  MHD_Result ReplyWithEvents(MHD_Connection* connection);
  const Answer& OfView(std::string_view path, const MetricsOptions& metrics);
  const Answer& OfHistory(const HistoryQuestion& question);
  void Refresh();
  const Answer& Made(const std::string& name, const std::function<Answer()>& make);

  const Newest& newest_;
  PageEvents& events_;
  const History history_;
  const std::vector<std::string> hosts_;
  const std::string port_;
  const std::map<std::string, Answer, std::less<>> files_;
  const Answer foreign_;
  const Answer notAllowed_;
  const Answer notFound_;
  const Answer busy_;
  SharedView view_;
  std::map<std::string, Answer> made_;  // of that view
};
