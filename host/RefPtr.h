// An owning holder for reference-counted objects (AddRef / Release).
#pragma once

#include <utility>

namespace pelka {

template <typename T>
class RefPtr {
 public:
  RefPtr() = default;
  // Takes over a reference the caller already holds (a new object's first one).
  static RefPtr Adopt(T* object) {
    RefPtr holder;
    holder.object_ = object;
    return holder;
  }
  // Adds a reference of its own.
  static RefPtr Share(T* object) {
    if (object) object->AddRef();
    return Adopt(object);
  }

  RefPtr(const RefPtr& other) : object_(other.object_) {
    if (object_) object_->AddRef();
  }
  RefPtr(RefPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  RefPtr& operator=(RefPtr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~RefPtr() { Reset(); }

  void Reset() {
    if (T* object = std::exchange(object_, nullptr)) object->Release();
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace pelka
