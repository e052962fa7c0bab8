#pragma once

// A move-only, type-erased callable that keeps small closures inline instead of on the heap.
//
// Work items and completions on the frame path capture a weak stream reference, a sample buffer
// and a couple of integers; with std::function each of those would cost a heap allocation per
// frame. Closures up to `Capacity` bytes are stored inline; larger ones fall back to the heap.

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace flowmere::platform {

template <typename Signature, std::size_t Capacity = 64>
class InlineFunction;

template <typename R, typename... Args, std::size_t Capacity>
class InlineFunction<R(Args...), Capacity> {
 public:
  InlineFunction() noexcept = default;
  InlineFunction(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

  template <typename F, typename Fn = std::decay_t<F>,
            typename = std::enable_if_t<!std::is_same_v<Fn, InlineFunction> &&
                                        std::is_invocable_r_v<R, Fn&, Args...>>>
  InlineFunction(F&& f) {  // NOLINT(google-explicit-constructor)
    if constexpr (fitsInline<Fn>()) {
      ::new (static_cast<void*>(storage_)) Fn(std::forward<F>(f));
      ops_ = &kInlineOps<Fn>;
    } else {
      *reinterpret_cast<Fn**>(storage_) = new Fn(std::forward<F>(f));
      ops_ = &kHeapOps<Fn>;
    }
  }

  InlineFunction(InlineFunction&& other) noexcept { moveFrom(other); }
  InlineFunction& operator=(InlineFunction&& other) noexcept {
    if (this != &other) {
      reset();
      moveFrom(other);
    }
    return *this;
  }
  InlineFunction(const InlineFunction&) = delete;
  InlineFunction& operator=(const InlineFunction&) = delete;
  ~InlineFunction() { reset(); }

  R operator()(Args... args) { return ops_->invoke(storage_, std::forward<Args>(args)...); }
  explicit operator bool() const noexcept { return ops_ != nullptr; }

  // True when a closure of type F is stored without a heap allocation.
  template <typename F>
  static constexpr bool fitsInline() {
    return sizeof(F) <= Capacity && alignof(F) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<F>;
  }

 private:
  struct Ops {
    R (*invoke)(void*, Args&&...);
    void (*move)(void* to, void* from) noexcept;
    void (*destroy)(void*) noexcept;
  };

  template <typename Fn>
  static constexpr Ops kInlineOps{
      [](void* s, Args&&... a) -> R { return (*static_cast<Fn*>(s))(std::forward<Args>(a)...); },
      [](void* to, void* from) noexcept {
        ::new (to) Fn(std::move(*static_cast<Fn*>(from)));
        static_cast<Fn*>(from)->~Fn();
      },
      [](void* s) noexcept { static_cast<Fn*>(s)->~Fn(); }};

  template <typename Fn>
  static constexpr Ops kHeapOps{
      [](void* s, Args&&... a) -> R { return (**static_cast<Fn**>(s))(std::forward<Args>(a)...); },
      [](void* to, void* from) noexcept { *static_cast<Fn**>(to) = *static_cast<Fn**>(from); },
      [](void* s) noexcept { delete *static_cast<Fn**>(s); }};

  void moveFrom(InlineFunction& other) noexcept {
    if (other.ops_ != nullptr) {
      other.ops_->move(storage_, other.storage_);
      ops_ = other.ops_;
      other.ops_ = nullptr;
    }
  }
  void reset() noexcept {
    if (ops_ != nullptr) {
      ops_->destroy(storage_);
      ops_ = nullptr;
    }
  }

  alignas(std::max_align_t) std::byte storage_[Capacity]{};
  const Ops* ops_ = nullptr;
};

}  // namespace flowmere::platform
