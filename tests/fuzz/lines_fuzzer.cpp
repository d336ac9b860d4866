// Fuzzer: reads each input as the JSON lines of a page's session, as `mirado host` does, and checks the output.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "host/session.h"
#include "property.h"

namespace {

/// A shutdown signal that is never raised: SIGINT and SIGTERM are unblocked again for the fuzzer.
desk::ShutdownSignal& NeverRaised() {
  static auto* const end = [] {
    auto* const made = new desk::ShutdownSignal;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    return made;
  }();
  return *end;
}

/// Handles a request and checks `answer`, which must be complete before the next line is read.
vconf::Status Handle(desk::Session& session, const desk::Request& request, fuzz::ReceivedMessages& received,
                     const desk::Json& answer) {
  using Kind = desk::In;
  if (request.kind == Kind::kPost) received.Expect(fuzz::CommandOf(desk::ToVar(request.argument)));
  auto status = session.Handle(request);
  switch (request.kind) {
    case Kind::kSend:
      fuzz::Require(answer.size() == 1 && answer[0].contains("reply"), "one reply", answer);
      fuzz::CheckReply(answer[0]["reply"]);
      break;
    case Kind::kSettle:
      fuzz::Require(answer == desk::Json::array({{{"settled", true}}}), "one answer to settle", answer);
      break;
    case Kind::kPost:
    case Kind::kSet:
    case Kind::kRecord:
      fuzz::Require(answer.empty(), "no answer", answer);
      break;
  }
  // Recording requires --report, which is not set here, so a record request fails.
  const bool may_fail = request.kind == Kind::kSet || request.kind == Kind::kRecord;
  fuzz::Require(status.ok() ? request.kind != Kind::kRecord : may_fail && !status.text().empty(),
                "only set and record fail", status.text());
  return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::Store store;
  const desk::UniqueFd input(memfd_create("lines", MFD_CLOEXEC));
  fuzz::Require(write(input.get(), data, size) == static_cast<ssize_t>(size), "the input");
  lseek(input.get(), 0, SEEK_SET);

  fuzz::ReceivedMessages received;
  desk::Json answer = desk::Json::array();
  const auto output = [&](const desk::Json& line) {
    const auto read_back = desk::ParseJson(desk::ToText(line), desk::kMaxJsonDepth + 2);
    fuzz::Require(read_back.ok(), "the output is JSON", line);
    if (line.contains("message")) {
      received.Receive(line["message"]);
    } else {
      answer.push_back(line);  // on this thread: it answers the current request
    }
  };
  auto started = desk::Session::Start(MIRADO_PLUGIN_PATH, output);
  fuzz::Require(started.ok(), "a session", started.status().text());
  std::unique_ptr<desk::Session> session = *std::move(started);

  std::size_t good = 0;
  std::size_t bad = 0;
  const auto handle = [&](std::string_view, const desk::Request& request) {
    fuzz::Require(answer.empty(), "no answer without a request", answer);
    auto wrong = Handle(*session, request, received, answer);
    answer.clear();
    if (wrong.ok()) ++good;
    return wrong;
  };
  const auto report_error = [&](const desk::Json& line) {
    ++bad;
    const desk::Json error = line.value("error", desk::Json());
    fuzz::Require(line.size() == 1 && error.is_object() && error.value("line", std::size_t{0}) >= good + bad &&
                      !error.value("text", "").empty(),
                  "the error contains the line and the cause", line);
    const auto read_back = desk::ParseJson(desk::ToText(line), desk::kMaxJsonDepth + 2);
    fuzz::Require(read_back.ok(), "the output is JSON", line);
  };
  const bool all_good = desk::ReadRequests(input.get(), NeverRaised(), handle, report_error);
  fuzz::Require(all_good == (bad == 0), "ReadRequests reports whether a line was wrong");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::size_t lines = 0;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines += text.substr(begin, end - begin).find_first_not_of(" \t\r") == std::string_view::npos ? 0 : 1;
    begin = end + 1;
  }
  fuzz::Require(good + bad == lines, "one outcome for each line that is not blank", good + bad);
  session->Settle();
  session.reset();
  received.Finish();
  fuzz::Require(answer.empty(), "no answer at the end", answer);
  store.Settle();
  return 0;
}
