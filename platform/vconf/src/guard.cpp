#include "guard.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <mutex>

namespace vconf {

thread_local constinit Guard* Guard::current_ = nullptr;

namespace {

struct sigaction g_previous_segv;
struct sigaction g_previous_bus;

std::atomic<std::uintptr_t> g_expendable{0};
std::atomic<std::size_t> g_expendable_size{0};

bool MendExpendable(const void* address) {
  const std::uintptr_t begin = g_expendable.load(std::memory_order_acquire);
  const std::size_t size = g_expendable_size.load(std::memory_order_relaxed);
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  // The system call itself: a signal's handler may not use the library's, which ThreadSanitizer takes for a write.
  return begin != 0 && at >= begin && at < begin + size &&
         syscall(SYS_mmap, begin, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0L) != -1;
}

void HandOn(const struct sigaction& previous, bool is_fault, int signal, siginfo_t* info, void* context) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(signal, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(signal);
  } else if (is_fault || previous.sa_handler == SIG_DFL) {
    // The instruction runs again, faults again, and takes its usual course; what was sent is sent again.
    sigaction(signal, &previous, nullptr);
    if (!is_fault) {
      raise(signal);
    }
  }
}

void OnFault(int signal, siginfo_t* info, void* context) {
  const bool is_fault = info->si_code > 0;  // else somebody sent the signal, which says nothing about this thread
  if (is_fault && Guard::IsRunning()) {
    // The jump restores no signal mask, and a fault that comes while it is blocked ends the process.
    pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    Guard::Leave();
  }
  if (is_fault && signal == SIGBUS && MendExpendable(info->si_addr)) {
    return;
  }
  HandOn(signal == SIGBUS ? g_previous_bus : g_previous_segv, is_fault, signal, info, context);
}

}  // namespace

void Guard::Install() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action = {};
    action.sa_sigaction = OnFault;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(SIGSEGV, &action, &g_previous_segv);
    sigaction(SIGBUS, &action, &g_previous_bus);
  });
}

void Guard::Leave() {
  if (Guard* const guard = current_; guard != nullptr) {
    current_ = nullptr;
    siglongjmp(guard->jump_, 1);
  }
}

void Guard::SetExpendable(void* begin, std::size_t size) {
  g_expendable_size.store(size, std::memory_order_relaxed);
  g_expendable.store(reinterpret_cast<std::uintptr_t>(begin), std::memory_order_release);
}

}  // namespace vconf
