#include "simulated.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "ppapi/cpp/var_dictionary.h"
#include "set/embedder.h"
#include "set/simulated_set.h"
#include "vconf.h"

namespace bench {
namespace {

void OpenOrThrow(const std::string& directory, const std::vector<vconf::Entry>& entries) {
  OrThrow(vconf::OpenOrCreateStore(directory, entries));
}

}  // namespace

void OrThrow(const vconf::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.text());
}

std::filesystem::path& Scratch::Place() {
  static std::filesystem::path place = std::filesystem::temp_directory_path();
  return place;
}

Scratch::Scratch(const std::filesystem::path& parent) {
  std::filesystem::create_directories(parent);
  std::string pattern = parent / "mirado-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error(pattern + ": " + std::strerror(errno));
  path_ = pattern;
}

Scratch::~Scratch() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Set::Set() : Set(desk::DefaultEntries()) {}

Set::Set(const std::vector<vconf::Entry>& entries) {
  OpenOrThrow(store(), entries);
  desk::OfferEmbedder();
  auto loaded = pp::browser::Plugin::Load(MIRADO_PLUGIN_PATH);
  if (!loaded.ok()) throw std::runtime_error(loaded.status().text());
  plugin_ = *std::move(loaded);
}

Set::~Set() {
  plugin_.reset();
  vconf::CloseStore();
}

std::shared_ptr<pp::browser::PageInstance> Set::Page(pp::browser::Listener listener) const {
  auto page = plugin_->CreateInstance(std::move(listener));
  if (!page) throw std::runtime_error("the plug-in made no instance");
  return page;
}

pp::Var Request(const std::string& command, int key) {
  pp::VarDictionary request;
  request.Set("command", command);
  request.Set("propertyKey", key);
  return request;
}

void MustSucceed(pp::browser::PageInstance& page, const pp::Var& message) {
  const pp::VarDictionary reply(page.Send(message));
  if (!reply.Get("code").is_int() || reply.Get("code").AsInt() != 0) {
    throw std::runtime_error("a request failed: " + reply.Get("errorMessage").AsString());
  }
}

pp::browser::Listener Arrivals::Listener() {
  return [this](const pp::Var&) {
    const auto now = Clock::now();
    if (left_.load(std::memory_order_relaxed) == 1) last_ = now;
    if (left_.fetch_sub(1, std::memory_order_acq_rel) == 1) left_.notify_one();
  };
}

Clock::time_point Arrivals::Await() {
  for (int left = 0; (left = left_.load(std::memory_order_acquire)) > 0;) left_.wait(left, std::memory_order_acquire);
  return last_;
}

Child::Child(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    signal(SIGPIPE, SIG_DFL);
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  in_ = in[1];
  out_ = out[0];
  if (pid_ < 0) throw std::runtime_error("no process");
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    End();
  }
  close(out_);
}

void Child::Write(const std::string& text) const {
  if (write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("a child takes no input");
  }
}

std::string Child::ReadLine() {
  auto newline = std::string::npos;
  while ((newline = read_.find('\n')) == std::string::npos) {
    std::array<char, 4096> bytes;
    const ssize_t size = read(out_, bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) CheckStop();
    if (size == 0 || (size < 0 && errno != EINTR)) throw std::runtime_error("a child ended too early");
    if (size > 0) read_.append(bytes.data(), static_cast<std::size_t>(size));
  }
  std::string line = read_.substr(0, newline);
  read_.erase(0, newline + 1);
  return line;
}

int Child::End() {
  close(std::exchange(in_, -1));
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string OwnProgram() { return std::filesystem::read_symlink("/proc/self/exe"); }

int RunWriter(const std::string& store) {
  OpenOrThrow(store, {});
  std::cout << "ready" << std::endl;
  std::string path;
  for (int value = 0; std::cin >> path >> value;) {
    const auto start = Clock::now();
    if (vconf_set_int(path.c_str(), value) != 0) return EXIT_FAILURE;
    std::cout << start.time_since_epoch().count() << std::endl;
  }
  vconf::CloseStore();
  return EXIT_SUCCESS;
}

double ProcessField(pid_t pid, const std::string& file, const std::string& field) {
  const std::string path = "/proc/" + std::to_string(pid) + "/" + file;
  std::ifstream in(path);
  double kilobytes = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(field) && std::istringstream(line.substr(field.size())) >> kilobytes) return kilobytes;
  }
  throw std::runtime_error(path + " has no " + field);
}

}  // namespace bench
