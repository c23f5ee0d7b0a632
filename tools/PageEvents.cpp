#include "PageEvents.h"

#include <algorithm>
#include <utility>

#include "JsonOutput.h"
#include "StatusJson.h"

namespace {

constexpr std::size_t kStreams = 64;
constexpr std::size_t kKept = 30;             // events, thus seconds
constexpr std::size_t kKeptSize = 8'388'608;  // bytes
constexpr std::size_t kBlock = 32768;         // bytes that are sent at a time

// `json` is one line with its end.
std::string Event(const char* type, const std::string& json) {
  return std::string("event: ") + type + "\ndata: " + json + "\n";
}

std::string Trouble(const View& view) {
  JsonOutput json;
  json->StartObject();
  json.Put("error", view.trouble);
  json->EndObject();
  return Event("trouble", json.Text());
}

std::string Everything(const View& view) {
  return view.snapshot ? Event("whole", JsonOf(*view.snapshot)) : Trouble(view);
}

std::string News(const View& before, const View& now) {
  if (!before.snapshot || !now.snapshot) return Everything(now);
  return Event("change", ChangesJsonOf(*before.snapshot, *now.snapshot));
}

}  // namespace

void PageEvents::Publish(SharedView view) {
  SharedView before;
  {
    const ugs::MutexLock lock(mutex_);
    if (!streams_.empty()) before = view_;
  }
  // Only this thread changes the view, so that it need not be locked while the text is made.
  Text text = before ? std::make_shared<const std::string>(News(*before, *view)) : nullptr;
  const ugs::MutexLock lock(mutex_);
  view_ = std::move(view);
  Keep(std::move(text));
  for (Stream* stream : streams_) Wake(*stream);
}

// Without a text, whoever reads begins anew with the whole.
void PageEvents::Keep(Text text) {
  if (text) {
    recentSize_ += text->size();
    recent_.push_back(std::move(text));
    while (recent_.size() > kKept || (recentSize_ > kKeptSize && recent_.size() > 1)) ForgetOldest();
  } else {
    while (!recent_.empty()) ForgetOldest();
    ++first_;
  }
  if (afterWhole_ < first_) whole_.reset();
  for (Stream* stream : streams_) {
    if (stream->next >= first_ || !stream->text) continue;
    stream->isDropped = true;
    stream->text.reset();
  }
}

void PageEvents::ForgetOldest() {
  recentSize_ -= recent_.front()->size();
  recent_.pop_front();
  ++first_;
}

void PageEvents::Wake(Stream& stream) {
  if (std::exchange(stream.isWaiting, false)) MHD_resume_connection(stream.connection);
}

std::optional<Answer> PageEvents::Open(MHD_Connection* connection) {
  auto stream = std::make_unique<Stream>(Stream{*this, connection, nullptr});
  {
    const ugs::MutexLock lock(mutex_);
    if (isEnding_ || !view_ || streams_.size() >= kStreams) return std::nullopt;
    streams_.insert(stream.get());
  }
  Response response(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlock, &Read, stream.get(), &Close),
                    MHD_destroy_response);
  if (response) {
    static_cast<void>(stream.release());  // the library hands it to Close
  } else {
    const ugs::MutexLock lock(mutex_);
    streams_.erase(stream.get());
  }
  return MakeAnswer(MHD_HTTP_OK, "text/event-stream", std::move(response));
}

void PageEvents::End() {
  const ugs::MutexLock lock(mutex_);
  isEnding_ = true;
  for (Stream* stream : streams_) Wake(*stream);
}

// The library's MHD_ContentReaderCallback.
ssize_t PageEvents::Read(void* stream, std::uint64_t /*position*/, char* buffer, std::size_t size) try {
  auto& ours = *static_cast<Stream*>(stream);
  return ours.events.Take(ours, buffer, size);
} catch (const std::exception&) {
  return MHD_CONTENT_READER_END_WITH_ERROR;  // out of memory
}

void PageEvents::Close(void* stream) {
  const std::unique_ptr<Stream> ours(static_cast<Stream*>(stream));
  const ugs::MutexLock lock(ours->events.mutex_);
  ours->events.streams_.erase(ours.get());
}

ssize_t PageEvents::Take(Stream& stream, char* buffer, std::size_t size) {
  const ugs::MutexLock lock(mutex_);
  if (isEnding_ || stream.isDropped) return MHD_CONTENT_READER_END_OF_STREAM;
  if (!stream.text && !Advance(stream)) {
    stream.isWaiting = true;
    MHD_suspend_connection(stream.connection);
    return 0;
  }
  const std::size_t length = stream.text->copy(buffer, size, stream.sent);
  stream.sent += length;
  if (stream.sent == stream.text->size()) stream.text.reset();
  return static_cast<ssize_t>(length);
}

// False if there is nothing to be sent yet.
bool PageEvents::Advance(Stream& stream) {
  if (stream.next < first_) {
    stream.text = Whole();
    stream.next = afterWhole_;
  } else if (stream.next < Following()) {
    stream.text = recent_[stream.next - first_];
    ++stream.next;
  }
  stream.sent = 0;
  return stream.text != nullptr;
}

// Made once for all that come while the events after it are kept: it is large.
const PageEvents::Text& PageEvents::Whole() {
  if (!whole_) {
    const std::string first = hasHistory_ ? Event("history", "true\n") : "";
    whole_ = std::make_shared<const std::string>("retry: 1000\n\n" + first + Everything(*view_));
    afterWhole_ = Following();
  }
  return whole_;
}
