#pragma once

#include <cstdint>

#include "ppapi/utility/lock.h"

namespace pp {

/// Traits of a factory whose callbacks may be called and dropped on any thread.
struct ThreadSafeThreadTraits {
  using Lock = pp::Lock;
  using AutoLock = pp::AutoLock;
};

/// Ties callbacks to the lifetime of an object: a callback of the factory does nothing after the factory is destroyed,
/// so the object only needs to own the factory. Callbacks refer to it by a reference-counted back pointer that outlives
/// it.
///
/// No function of this layer takes a callback, so the factory cannot create any yet; only its lifetime is implemented.
template <typename T, typename Traits = ThreadSafeThreadTraits>
class CompletionCallbackFactory {
 public:
  /// `object` is not owned and must outlive the factory.
  explicit CompletionCallbackFactory(T* object) : object_(object), back_pointer_(new BackPointer(this)) {
    back_pointer_->AddRef();
  }
  CompletionCallbackFactory(const CompletionCallbackFactory&) = delete;
  CompletionCallbackFactory& operator=(const CompletionCallbackFactory&) = delete;

  ~CompletionCallbackFactory() {
    back_pointer_->DropFactory();
    back_pointer_->Release();
    back_pointer_ = nullptr;
  }

  T* GetObject() const noexcept { return object_; }

 private:
  class BackPointer {
   public:
    explicit BackPointer(CompletionCallbackFactory* factory) : factory_(factory) {}
    BackPointer(const BackPointer&) = delete;
    BackPointer& operator=(const BackPointer&) = delete;

    void AddRef() {
      const typename Traits::AutoLock lock(lock_);
      ++ref_;
    }

    /// Frees the back pointer with the last reference.
    void Release() {
      if (DropRef()) delete this;
    }

    void DropFactory() {
      const typename Traits::AutoLock lock(lock_);
      factory_ = nullptr;
    }

   private:
    ~BackPointer() = default;

    bool DropRef() {
      const typename Traits::AutoLock lock(lock_);
      return --ref_ == 0;
    }

    typename Traits::Lock lock_;
    std::int32_t ref_ = 0;
    CompletionCallbackFactory* factory_;
  };

  T* const object_;
  typename Traits::Lock lock_;  // guards `back_pointer_`
  BackPointer* back_pointer_;
};

}  // namespace pp
