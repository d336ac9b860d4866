#include "server/page.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <utility>

#include "set/catalog.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

constexpr EventLog::Limits kDeliveries{.events = 10'000, .bytes = 8UL * 1024 * 1024};
constexpr EventLog::Limits kHistory{.events = 1'000, .bytes = 4UL * 1024 * 1024};
constexpr std::chrono::milliseconds kLookInterval(250);

std::int64_t NowInMilliseconds() {
  using std::chrono::duration_cast;
  return duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Begins with the page's number for people and ends with what a stranger cannot guess. It serves as a host name too.
std::string MakeId(int number) {
  std::random_device random;
  std::array<char, 16> hex{};
  const auto [end, error] =
      std::to_chars(hex.data(), hex.data() + hex.size(), (static_cast<std::uint64_t>(random()) << 32U) | random(), 16);
  return "p" + std::to_string(number) + "-" + std::string(hex.data(), end);
}

// A file that has lost its name at once: it is gone with its last user, however that ends.
UniqueFd MakeRecording() {
  std::string name = std::filesystem::temp_directory_path() / "mirado-session-XXXXXX";
  UniqueFd file(mkostemp(name.data(), O_CLOEXEC));
  if (file) {
    unlink(name.c_str());
  }
  return file;
}

std::vector<std::string> Arguments(const HostCommand& command, const UniqueFd& recording) {
  std::vector<std::string> arguments{command.program, "host", "--plugin", command.plugin, "--store", command.store};
  if (recording) {
    arguments.insert(arguments.end(), {"--record", "/dev/fd/" + std::to_string(recording.get())});
  }
  return arguments;
}

// The path that `message` begins or ends to watch, or an empty one.
std::pair<std::string, bool> WatchOf(const ParsedJson& message) {
  if (!message.is_object() || !message.contains("command") || !message.contains("propertyKey")) {
    return {};
  }
  const auto setting = std::ranges::find_if(Settings(), [&](const Setting& candidate) {
    return message["propertyKey"] == candidate.key &&
           (message["command"] == candidate.table->watch || message["command"] == candidate.table->unwatch);
  });
  if (setting == Settings().end()) {
    return {};
  }
  return {std::string(setting->path), message["command"] == setting->table->watch};
}

// "I/QRL_BASE(0): text", as the logger writes it, taken apart; any other line is text alone.
Json ParseLogLine(std::string_view line) {
  const std::size_t slash = line.find('/');
  const std::size_t open = line.find('(');
  const std::size_t close = line.find("): ");
  int log_id = 0;
  if (slash == 1 && open < close && close != std::string_view::npos &&
      std::from_chars(line.data() + open + 1, line.data() + close, log_id).ptr == line.data() + close) {
    return {{"priority", line.substr(0, 1)},
            {"tag", line.substr(2, open - 2)},
            {"logId", log_id},
            {"text", line.substr(close + 3)}};
  }
  return {{"priority", nullptr}, {"tag", nullptr}, {"logId", nullptr}, {"text", line}};
}

Json DescribeEnd(int wait_status, const std::string& last_log_line) {
  if (WIFSIGNALED(wait_status)) {
    const int signal = WTERMSIG(wait_status);
    const char* const name = sigabbrev_np(signal);
    return {{"status", nullptr},
            {"signal", signal},
            {"reason", std::string("the plug-in's process was killed by SIG") + (name != nullptr ? name : "?")}};
  }
  const int status = WEXITSTATUS(wait_status);
  std::string reason = "the plug-in's process ended with status " + std::to_string(status);
  if (!last_log_line.empty()) {
    reason += ": " + last_log_line;
  }
  return {{"status", status}, {"signal", nullptr}, {"reason", reason}};
}

}  // namespace

Page::Page(int number, PageDescription description, const HostCommand& command, EventLog& everything)
    : number_(number),
      id_(MakeId(number)),
      description_(std::move(description)),
      since_(NowInMilliseconds()),
      everything_(everything),
      deliveries_(kDeliveries),
      dialogue_(kHistory),
      log_(kHistory),
      recording_(MakeRecording()) {
  // The host's thread may call back at once; it then waits here until the page is whole.
  const std::lock_guard lock(mutex_);
  HostProcess::Listener& listener = *this;
  host_ = std::make_unique<HostProcess>(Arguments(command, recording_), recording_.get(), listener);
  everything_.Add("page", ToText(DescribeLocked()));
}

Page::~Page() {
  End();
  host_.reset();
  everything_.Add("gone", ToText({{"id", id_}, {"number", number_}}));
}

Page::Result Page::Submit(std::vector<Message> messages) {
  Result result;
  std::unique_lock lock(mutex_);
  last_sign_ = Clock::now();
  bool waiting = false;
  for (const Message& message : messages) {
    if (message.number && last_number_ && *message.number <= *last_number_) {
      continue;
    }
    if (ended_ || leaving_) {
      return {.outcome = Outcome::kGone, .reply = {}, .error = {}};
    }
    if (!SubmitOne(message, message.waits ? &result : nullptr)) {
      return {.outcome = Outcome::kFull, .reply = {}, .error = {}};
    }
    if (message.number) {
      last_number_ = message.number;
    }
    waiting = message.waits;
  }
  if (waiting) {
    answered_.wait(lock, [&] { return result.reply || result.outcome != Outcome::kDone; });
    last_sign_ = Clock::now();
  }
  return result;
}

bool Page::SubmitOne(const Message& message, Result* result) {
  const std::string_view kind = message.waits ? "send" : "post";
  const Json body(message.body);
  const std::string line = ToText({{kind, body}});
  if (!host_->HasRoom(line)) {
    return false;
  }
  auto [watch_path, watch_begins] = message.waits ? WatchOf(message.body) : std::pair<std::string, bool>();
  ++sent_;
  (message.waits ? sends_ : posts_)
      .push_back({.line = ++lines_,
                  .entry = Note(kind, body),
                  .start = Clock::now(),
                  .watch_path = std::move(watch_path),
                  .watch_begins = watch_begins,
                  .result = result});
  host_->Write(line);  // last: what comes of it, on this page or elsewhere, is told after it
  return true;
}

void Page::OnLine(std::string_view line) {
  const Json out = Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!out.is_object() || out.empty()) {
    return OnLogLine(line);
  }
  const std::lock_guard lock(mutex_);
  if (out.contains("reply")) {
    OnReply(out["reply"]);
  } else if (out.contains("message")) {
    OnDelivery(out["message"]);
  } else if (out.contains("error") && out["error"].is_string()) {
    OnRefusal(out["error"].get<std::string>());
  }
}

void Page::OnReply(Json reply) {
  if (sends_.empty()) {
    return;
  }
  const Pending pending = std::move(sends_.front());
  sends_.pop_front();
  Note("reply", reply, &pending);
  if (!pending.watch_path.empty() && reply.is_object() && reply.value("code", Json()) == 0) {
    const bool changed =
        pending.watch_begins ? watches_.insert(pending.watch_path).second : watches_.erase(pending.watch_path) > 0;
    if (changed) {
      everything_.Add("page", ToText(DescribeLocked()));
    }
  }
  pending.result->reply = std::move(reply);
  answered_.notify_all();
}

void Page::OnDelivery(const Json& message) {
  ++delivered_;
  // The plug-in answers each post with one delivery that names a command, in the order of the posts.
  if (message.is_object() && message.contains("command") && !posts_.empty()) {
    const Pending pending = std::move(posts_.front());
    posts_.pop_front();
    Note("message", message, &pending);
  } else {
    Note("message", message);
  }
  deliveries_.Add("message", ToText(message));  // last: whoever hears of it finds it in the dialogue
}

// "line 7: cause": the host would not have the seventh line.
void Page::OnRefusal(const std::string& error) {
  constexpr std::string_view kPrefix = "line ";
  std::uint64_t line = 0;
  if (error.starts_with(kPrefix)) {
    std::from_chars(error.data() + kPrefix.size(), error.data() + error.size(), line);
  }
  std::erase_if(posts_, [&](const Pending& post) { return post.line == line; });
  if (!sends_.empty() && sends_.front().line == line) {
    sends_.front().result->outcome = Outcome::kRefused;
    sends_.front().result->error = error.substr(std::min(error.find(": ") + 2, error.size()));
    sends_.pop_front();
    answered_.notify_all();
  }
}

void Page::OnLogLine(std::string_view line) {
  Json entry{{"page", id_}, {"time", NowInMilliseconds()}};
  entry.update(ParseLogLine(line));
  std::string text = ToText(entry);
  {
    const std::lock_guard lock(mutex_);
    last_log_line_ = line;
  }
  log_.Add("log", text);
  everything_.Add("log", std::move(text));
}

void Page::OnEnd(int wait_status) {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  ReleaseWaiting();
  if (leaving_) {
    return;
  }
  watches_.clear();
  const Json end = DescribeEnd(wait_status, last_log_line_);
  Note("crash", end);
  everything_.Add("page", ToText(DescribeLocked()));
  deliveries_.Add("crash", ToText(end));
}

std::uint64_t Page::Note(std::string_view kind, Json body, const Pending* answers) {
  Json entry{
      {"page", id_}, {"n", ++entries_}, {"time", NowInMilliseconds()}, {"kind", kind}, {"body", std::move(body)}};
  if (answers != nullptr) {
    const std::chrono::duration<double, std::milli> duration = Clock::now() - answers->start;
    entry["to"] = answers->entry;
    entry["duration"] = std::round(duration.count() * 1000) / 1000;
  }
  std::string text = ToText(entry);
  dialogue_.Add("dialogue", text);
  everything_.Add("dialogue", std::move(text));
  return entries_;
}

void Page::ReleaseWaiting() {
  for (const Pending& pending : sends_) {
    pending.result->outcome = Outcome::kGone;
  }
  sends_.clear();
  posts_.clear();
  answered_.notify_all();
}

void Page::End(std::string_view reason) {
  {
    const std::lock_guard lock(mutex_);
    if (!ended_ && !leaving_) {
      deliveries_.Add("crash", ToText({{"status", nullptr}, {"signal", nullptr}, {"reason", reason}}));
    }
    deliveries_.Close();  // here, so that nothing is delivered behind the end
    leaving_ = true;
    ReleaseWaiting();
  }
  host_->End();
}

Json Page::Describe() const {
  const std::lock_guard lock(mutex_);
  return DescribeLocked();
}

Json Page::DescribeLocked() const {
  return {{"id", id_},
          {"number", number_},
          {"title", description_.title},
          {"url", description_.url},
          {"state", ended_ ? "crashed" : "running"},
          {"pid", host_->pid()},
          {"since", since_},
          {"watches", watches_},
          {"sent", sent_},
          {"delivered", delivered_}};
}

bool Page::Watches(std::string_view path) const {
  const std::lock_guard lock(mutex_);
  return watches_.contains(path);
}

std::string Page::Recording() const {
  std::string text;
  std::array<char, 64UL * 1024> chunk;  // NOLINT(*-member-init): filled by pread
  while (recording_) {
    const ssize_t size = pread(recording_.get(), chunk.data(), chunk.size(), static_cast<off_t>(text.size()));
    if (size <= 0) {
      break;
    }
    text.append(chunk.data(), static_cast<std::size_t>(size));
  }
  // The host may be in the middle of a line.
  text.erase(text.rfind('\n') + 1);
  return text;
}

void Page::StreamOpened() {
  const std::lock_guard lock(mutex_);
  ++streams_;
}

void Page::StreamClosed() {
  const std::lock_guard lock(mutex_);
  --streams_;
  last_sign_ = Clock::now();
}

bool Page::IsAbandoned() const {
  const std::lock_guard lock(mutex_);
  const std::chrono::milliseconds held(sends_.empty() ? 0 : kMaxLatency);
  return streams_ == 0 && Clock::now() - last_sign_ > description_.grace + held;
}

PageBook::PageBook(HostCommand command, EventLog& everything)
    : command_(std::move(command)), everything_(everything), watcher_([this] { Look(); }) {}

PageBook::~PageBook() {
  Close();
  watcher_.join();
}

std::shared_ptr<Page> PageBook::Open(PageDescription description) {
  const std::lock_guard lock(mutex_);
  if (closed_ || pages_.size() >= kMaxPages) {
    return nullptr;
  }
  const int number = last_number_ + 1;
  auto page = std::make_shared<Page>(number, std::move(description), command_, everything_);
  pages_.emplace(number, page);
  last_number_ = number;
  return page;
}

std::shared_ptr<Page> PageBook::Find(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find_if(pages_, [&](const auto& entry) { return entry.second->id() == id; });
  return found == pages_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<Page>> PageBook::All() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<Page>> all;
  all.reserve(pages_.size());
  for (const auto& [number, page] : pages_) {
    all.push_back(page);
  }
  return all;
}

void PageBook::Leave(const std::string& id) {
  const std::shared_ptr<Page> page = Find(id);
  if (page) {
    {
      const std::lock_guard lock(mutex_);
      if (pages_.erase(page->number()) > 0) {
        ended_.push_back(page);
      }
    }
    page->End();  // last: whoever hears of it finds the page no more
  }
}

void PageBook::Close() {
  std::map<int, std::shared_ptr<Page>> pages;
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    pages.swap(pages_);
  }
  closing_.notify_all();
  // All are asked first, so that the slowest alone counts.
  for (const auto& [number, page] : pages) {
    page->End("the desk has ended");
  }
}

void PageBook::Look() {
  std::unique_lock lock(mutex_);
  while (!closing_.wait_for(lock, kLookInterval, [this] { return closed_; })) {
    std::erase_if(pages_, [this](const auto& entry) {
      if (!entry.second->IsAbandoned()) {
        return false;
      }
      entry.second->End();
      ended_.push_back(entry.second);
      return true;
    });
    // Nobody can find these any more, so a page that is used here alone stays so.
    std::vector<std::shared_ptr<Page>> unused;
    std::erase_if(ended_, [&](const auto& page) { return page.use_count() == 1 && (unused.push_back(page), true); });
    lock.unlock();
    unused.clear();
    lock.lock();
  }
}

}  // namespace desk
