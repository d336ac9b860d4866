#include "server/page.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "server/origin.h"
#include "set/catalog.h"
#include "set/simulated_set.h"
#include "vconf_control.h"

namespace desk {
namespace {

constexpr EventLog::Limits kDeliveries{.events = 10'000, .bytes = 8UL * 1024 * 1024};
constexpr EventLog::Limits kHistory{.events = 1'000, .bytes = 4UL * 1024 * 1024};
constexpr std::size_t kMaxRecording = 8UL * 1024 * 1024;
constexpr int kLastLines = 5;

std::int64_t NowInMilliseconds() {
  using std::chrono::duration_cast;
  return duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The value of the member `name` of `json`, as JSON text; empty if there is none.
std::string_view MemberOf(std::string_view json, std::string_view name) {
  const auto members = RawMembers(json);
  const auto found = std::ranges::find(members, name, &RawMember::name);
  return found == members.end() ? std::string_view() : found->value;
}

// The current value of the setting that an event names, as JSON text. Empty for another message, or if the value cannot
// be read.
std::string ValueNow(std::string_view message) {
  const std::string_view event = MemberOf(message, "event");
  if (event.empty()) {
    return "";
  }
  const auto is_meant = [&](const Setting& setting) {
    return event.substr(1, event.size() - 2) == setting.table->event &&
           MemberOf(message, "value") == std::to_string(setting.key);
  };
  const auto setting = std::ranges::find_if(Settings(), is_meant);
  if (setting == Settings().end()) {
    return "";
  }
  const auto value = vconf::Get(std::string(setting->path));
  return value.ok() ? ToText(ToJson(*value)) : "";
}

Json DescribeEnd(int wait_status, const Json& last_log) {
  if (WIFSIGNALED(wait_status)) {
    const int signal = WTERMSIG(wait_status);
    const char* const name = sigabbrev_np(signal);
    return {{"status", nullptr},
            {"signal", signal},
            {"reason", std::string("the plug-in's process was killed by SIG") + (name != nullptr ? name : "?")}};
  }
  const int status = WEXITSTATUS(wait_status);
  std::string reason = "the plug-in's process ended with status " + std::to_string(status);
  if (!last_log.empty()) {
    reason += ": " + last_log.front().get<std::string>();
  }
  return {{"status", status}, {"signal", nullptr}, {"reason", reason}};
}

}  // namespace

Answer AnswerGone() { return Fail(410, "the page's plug-in is gone"); }

Page::Page(boost::asio::io_context& loop, int number, PageDescription description,
           const std::vector<std::string>& host_command, EventLog& events, Owner& owner)
    : number_(number),
      id_("p" + std::to_string(number) + "-" + MakeToken()),
      description_(std::move(description)),
      since_(NowInMilliseconds()),
      events_(events),
      owner_(owner),
      deliveries_(kDeliveries),
      dialogue_(kHistory),
      log_(kHistory),
      abandon_timer_(loop),
      host_(HostProcess::Start(loop, host_command, *this)),
      pid_(host_->pid()) {
  SendPageEvent();
  CheckAbandoned();
}

Page::Outcome Page::Submit(const std::vector<Message>& messages, const std::shared_ptr<Connection>& client) {
  last_activity_ = Clock::now();
  for (const Message& message : messages) {
    if (message.number && last_number_ && *message.number <= *last_number_) {
      continue;
    }
    if (!CanHear() || !host_->HasRoom()) {
      return CanHear() ? Outcome::kFull : Outcome::kGone;
    }
    if (message.number) {
      last_number_ = message.number;
    }
    ++sent_;
    const Pending pending{.entry = AddToDialogue(message.waits ? "send" : "post", message.body), .start = Clock::now()};
    if (message.waits) {
      sends_.push_back({pending, client});
    } else {
      posts_.push_back(pending);
    }
    // After the entry in the dialogue, so that the events of what it causes follow.
    host_->Write(FormatLine(message.waits ? In::kSend : In::kPost, message.body));
    if (message.waits) {
      return Outcome::kWaits;
    }
  }
  return Outcome::kDone;
}

void Page::OnLine(std::string_view line) {
  const std::optional<OutLine> out = ReadOutLine(line);
  if (!out) {
    return OnLogLine(line);  // cut by the end of the process
  }
  switch (out->kind) {
    case Out::kReply:
      return OnReply(out->value);
    case Out::kMessage:
      return OnDelivery(out->value);
    case Out::kError:  // the desk sends only valid lines
      return OnLogLine(line);
    case Out::kLog:
      return AddRow(log_, "log", out->value.substr(1, out->value.size() - 2));
    case Out::kWatches:
      return OnWatches(out->value);
    case Out::kRecord:
      return OnRecorded(out->value);
    case Out::kSettled:
      return;
  }
}

void Page::OnReply(std::string_view reply) {
  if (sends_.empty()) {
    return;
  }
  const PendingSend pending = std::move(sends_.front());
  sends_.pop_front();
  AddToDialogue("reply", reply, &pending);
  if (pending.client->is_waiting()) {
    last_activity_ = Clock::now();
    pending.client->Reply({.body = "{\"reply\":" + std::string(reply) + "}"});
  }
}

void Page::OnDelivery(std::string_view message) {
  ++delivered_;
  // The plug-in answers each post with one delivery that names a command, in the order of the posts.
  if (!posts_.empty() && !MemberOf(message, "command").empty()) {
    const Pending pending = posts_.front();
    posts_.pop_front();
    AddToDialogue("message", message, &pending);
  } else {
    AddToDialogue("message", message, nullptr, ValueNow(message));
  }
  deliveries_.Add("message", MakeText(std::string(message)));  // after the dialogue, which its readers may request
}

void Page::OnWatches(std::string_view paths) {
  watches_ = ParsedJson::parse(paths).get<std::vector<std::string>>();
  SendPageEvent();
}

void Page::OnLogLine(std::string_view line) {
  AddRow(log_, "log", R"("priority":null,"tag":null,"logId":null,"text":)" + ToText(line));
}

Json Page::LastLog(std::ptrdiff_t count) const {
  Json lines = Json::array();
  const auto& kept = log_.kept();
  for (auto entry = kept.end() - std::min(count, std::ssize(kept)); entry != kept.end(); ++entry) {
    lines.push_back(Json::parse(*entry->data).at("text"));
  }
  return lines;
}

void Page::OnEnd(int wait_status) {
  host_.reset();
  EndWaiting();
  if (!left_) {
    crash_ = DescribeEnd(wait_status, LastLog(1));
    const std::string end = ToText(crash_);
    crash_["time"] = NowInMilliseconds();
    AddToDialogue("crash", end);
    SendPageEvent();
    deliveries_.Add("crash", MakeText(end));
  }
  owner_.OnEnded(*this);  // last, because it may destroy this page
}

// Without the JSON library, which would take half as much time again for each message and change the form of numbers.
void Page::AddRow(EventLog& log, const char* name, std::string_view members) {
  std::string row;
  row.reserve(members.size() + 120);
  row.append(R"({"page":")").append(id_).append(R"(","n":)").append(std::to_string(log.newest() + 1));
  row.append(R"(,"time":)").append(std::to_string(NowInMilliseconds())).append(",").append(members).append("}");
  const Text text = MakeText(std::move(row));
  log.Add(name, text);
  events_.Add(name, text);
}

std::uint64_t Page::AddToDialogue(std::string_view kind, std::string_view body, const Pending* answers,
                                  std::string_view now) {
  std::string members;
  members.reserve(body.size() + 80);
  members.append(R"("kind":")").append(kind).append(R"(","body":)").append(body);
  if (answers != nullptr) {
    const auto duration = std::chrono::round<std::chrono::microseconds>(Clock::now() - answers->start);
    members.append(R"(,"to":)").append(std::to_string(answers->entry)).append(R"(,"duration":)");
    members.append(ToText(std::chrono::duration<double, std::milli>(duration).count()));
  }
  if (!now.empty()) {
    members.append(R"(,"now":)").append(now);
  }
  AddRow(dialogue_, "dialogue", members);
  return dialogue_.newest();
}

// The plug-in gets no more messages.
void Page::EndWaiting() {
  if (recording_) {
    recording_->running = false;
  }
  watches_.clear();
  posts_.clear();
  for (const PendingSend& pending : std::exchange(sends_, {})) {
    pending.client->Reply(AnswerGone());
  }
}

// A page that has left gets no more streams.
void Page::ReleaseDeliveries() {
  if (left_ && deliveries_.readers() == 0) {
    deliveries_.Clear();
  }
}

void Page::End(std::string_view reason) {
  if (CanHear()) {
    deliveries_.Add("crash", MakeText(ToText({{"status", nullptr}, {"signal", nullptr}, {"reason", reason}})));
  }
  left_ = true;
  abandon_timer_.cancel();
  deliveries_.Close();  // now, so that nothing follows the last event
  ReleaseDeliveries();
  EndWaiting();
  if (host_) {
    host_->End();
  }
}

void Page::Kill() {
  if (host_) {
    host_->Kill();
  }
}

Json Page::Describe() const {
  Json json{{"id", id_},
            {"number", number_},
            {"title", description_.title},
            {"url", description_.url},
            {"state", crashed() ? "crashed"
                      : left_   ? "ended"
                                : "running"},
            {"open", !left_},
            {"pid", pid_},
            {"since", since_},
            {"watches", watches_},
            {"sent", sent_},
            {"delivered", delivered_},
            {"recording", nullptr}};
  if (recording_) {
    json["recording"] = {{"since", recording_->since},
                         {"lines", recording_->lines},
                         {"bytes", recording_->text.size()},
                         {"running", recording_->running},
                         {"full", recording_->full}};
  }
  if (crashed()) {
    json["lastLog"] = LastLog(kLastLines);
    json["crash"] = crash_;
  }
  return json;
}

bool Page::Watches(std::string_view path) const { return std::ranges::find(watches_, path) != watches_.end(); }

bool Page::StartRecording() {
  if ((recording_ && recording_->running) || !CanHear()) {
    return false;
  }
  recording_ = {.since = NowInMilliseconds(), .text = {}};
  ++recordings_awaited_;
  host_->Write(FormatLine(In::kRecord, "true"));
  SendPageEvent();
  return true;
}

void Page::StopRecording() {
  if (recording_ && std::exchange(recording_->running, false)) {
    host_->Write(FormatLine(In::kRecord, "false"));
    SendPageEvent();
  }
}

// Lines of the previous recording may still arrive after a new one was started, but before its first line.
void Page::OnRecorded(std::string_view line) {
  recordings_awaited_ -= line.starts_with(R"({"recording":)") ? 1 : 0;
  if (!recording_ || recordings_awaited_ != 0 || recording_->full) {
    return;
  }
  if (recording_->text.size() + line.size() >= kMaxRecording) {
    recording_->full = true;
    return StopRecording();
  }
  recording_->text.append(line).push_back('\n');
  ++recording_->lines;
}

void Page::OnStreamClosed() {
  last_activity_ = Clock::now();
  ReleaseDeliveries();
  CheckAbandoned();
}

// Runs again when the grace could have passed. A client that waits for a reply sends nothing meanwhile, so the maximum
// latency is added, until it has the reply or disconnects.
void Page::CheckAbandoned() {
  if (left_ || deliveries_.readers() > 0) {
    return;
  }
  const auto end = last_activity_ + description_.grace + std::chrono::milliseconds(waiting() > 0 ? kMaxLatency : 0);
  if (Clock::now() >= end) {
    return owner_.OnAbandoned(*this);
  }
  abandon_timer_.expires_at(std::min(end, Clock::now() + description_.grace));
  abandon_timer_.async_wait([this](boost::system::error_code error) {
    if (!error) {
      CheckAbandoned();
    }
  });
}

}  // namespace desk
