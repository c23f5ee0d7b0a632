#include "PageSite.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>

#include "JsonOutput.h"
#include "PageFiles.h"
#include "PagePlain.h"
#include "StatusJson.h"

namespace {

constexpr const char* kTextType = "text/plain; charset=utf-8";
constexpr const char* kJsonType = "application/json";
constexpr const char* kHtmlType = "text/html; charset=utf-8";

Answer MakeJson(const View& view, std::string (*write)(const StatusSnapshot&)) {
  if (view.snapshot) return MakeAnswer(MHD_HTTP_OK, kJsonType, write(*view.snapshot));
  JsonOutput json;
  json->StartObject();
  json.Put("error", view.trouble);
  json->EndObject();
  return MakeAnswer(MHD_HTTP_SERVICE_UNAVAILABLE, kJsonType, json.Text());
}

Answer MakeMetrics(const View& view, MetricsOptions options) {
  options.starts = view.starts;
  const StatusSnapshot* snapshot = view.snapshot ? &*view.snapshot : nullptr;
  return MakeAnswer(MHD_HTTP_OK, ContentTypeOf(options.form), MetricsOf(snapshot, options));
}

// What the client asks for, among what may stand after /metrics.
MetricsOptions MetricsAsked(MHD_Connection* connection) {
  const auto valueOf = [&](MHD_ValueKind kind, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, kind, name);
    return std::string_view(value != nullptr ? value : "");
  };
  MetricsOptions options;
  options.form = FormAccepted(valueOf(MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT));
  const std::string_view instances = valueOf(MHD_GET_ARGUMENT_KIND, "instances");
  if (instances == "1") options.instances = MetricsOptions::Instances::All;
  if (instances == "silent") options.instances = MetricsOptions::Instances::Silent;
  return options;
}

std::optional<std::string> ParameterOf(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

std::string InLowerCase(std::string_view text) {
  std::string lower(text);
  for (char& character : lower) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return lower;
}

Answer MakePlainPage(const View& view) {
  Answer answer = MakeAnswer(MHD_HTTP_OK, kHtmlType, PlainPageOf(view));
  AddHeader(answer, "Refresh", "5");  // not in any standard, but every browser's
  return answer;
}

std::map<std::string, Answer, std::less<>> MakeFiles() {
  std::map<std::string, Answer, std::less<>> files;
  for (const PageFile& file : kPageFiles)
    files.emplace(file.path, MakeAnswer(MHD_HTTP_OK, file.type, file.text));
  return files;
}

Answer MakeNotAllowed() {
  Answer answer = MakeAnswer(MHD_HTTP_METHOD_NOT_ALLOWED, kTextType, "only GET and HEAD\n");
  AddHeader(answer, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  return answer;
}

MHD_Result Queue(MHD_Connection* connection, const Answer& answer) {
  return MHD_queue_response(connection, answer.status, answer.response.get());
}

}  // namespace

PageSite::PageSite(const Newest& newest, PageEvents& events, History history, const std::string& host,
                   std::uint16_t port)
    : newest_(newest),
      events_(events),
      history_(std::move(history)),
      hosts_{"localhost", "127.0.0.1", "[::1]", InLowerCase(host)},
      port_(":" + std::to_string(port)),
      files_(MakeFiles()),
      foreign_(MakeAnswer(MHD_HTTP_FORBIDDEN, kTextType, "this is not the host that you asked for\n")),
      notAllowed_(MakeNotAllowed()),
      notFound_(MakeAnswer(MHD_HTTP_NOT_FOUND, kTextType, "there is no such page\n")),
      busy_(MakeAnswer(MHD_HTTP_SERVICE_UNAVAILABLE, kTextType, "too many streams\n")) {}

MHD_Result PageSite::Reply(MHD_Connection* connection, std::string_view path) {
  if (!IsOurs(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST)))
    return Queue(connection, foreign_);
  const auto file = files_.find(path);
  if (file != files_.end()) return Queue(connection, file->second);
  if (path == "/events") return ReplyWithEvents(connection);
  if (history_ && IsOfHistory(path)) {
    return Queue(connection, OfHistory({std::string(path), ParameterOf(connection, "month"),
                                        ParameterOf(connection, "key")}));
  }
  return Queue(connection, OfView(path, MetricsAsked(connection)));
}

MHD_Result PageSite::RefuseMethod(MHD_Connection* connection) const {
  return Queue(connection, notAllowed_);
}

// Another name in Host is a page elsewhere that had its own name resolved to this address.
bool PageSite::IsOurs(const char* header) const {
  if (header == nullptr) return false;
  std::string host = InLowerCase(header);
  if (host.ends_with(port_)) host.resize(host.size() - port_.size());
  return std::find(hosts_.begin(), hosts_.end(), host) != hosts_.end();
}

MHD_Result PageSite::ReplyWithEvents(MHD_Connection* connection) {
  const std::optional<Answer> stream = events_.Open(connection);
  return Queue(connection, stream ? *stream : busy_);
}

// What depends on the view is made once for each, however many ask.
const Answer& PageSite::OfView(std::string_view path, const MetricsOptions& metrics) {
  Refresh();
  if (path == "/status") return Made("/status", [&] { return MakeJson(*view_, JsonOf); });
  if (path == "/instances") return Made("/instances", [&] { return MakeJson(*view_, InstancesJsonOf); });
  if (path == "/plain") return Made("/plain", [&] { return MakePlainPage(*view_); });
  if (path == "/metrics") {
    const std::string name =
        fmt::format("/metrics {} {}", static_cast<int>(metrics.form), static_cast<int>(metrics.instances));
    return Made(name, [&] { return MakeMetrics(*view_, metrics); });
  }
  return notFound_;
}

const Answer& PageSite::OfHistory(const HistoryQuestion& question) {
  Refresh();
  const auto part = [](const std::optional<std::string>& value) {
    return value ? "\n=" + *value : "\n";
  };
  const std::string name = question.path + part(question.month) + part(question.key);
  return Made(name, [&] {
    const HistoryAnswer answer = history_(question);
    return MakeAnswer(answer.status, answer.type, answer.body);
  });
}

void PageSite::Refresh() {
  SharedView newest = newest_.Get();
  if (newest != view_) made_.clear();
  view_ = std::move(newest);
}

const Answer& PageSite::Made(const std::string& name, const std::function<Answer()>& make) {
  constexpr std::size_t kept = 64;  // questions of the history are whatever somebody asks
  const auto made = made_.find(name);
  if (made != made_.end()) return made->second;
  if (made_.size() >= kept) made_.clear();
  return made_.emplace(name, make()).first->second;
}
