// The host framework's object model: reference-counted objects that answer
// to interface identifiers.
//
// CTQObject declares the first six operations every framework object offers.
// CTQObjectNoRefImplT implements them without reference counting (an object
// that dies at its first Release); CTQObjectImplT adds the atomic count. Both
// take the interface they implement (itself derived from CTQObject, with a
// virtual destructor) and a thread-model policy that names itself.
#pragma once

#include <atomic>
#include <cstdint>

#include "host/Types.h"

namespace pelka {

class CTQObject {
 public:
  virtual int32_t AddRef() = 0;
  virtual int32_t Release() = 0;
  virtual int32_t GetRefCount() = 0;
  virtual uint32_t QueryInterface(const Guid& interface_id, void** out) = 0;
  virtual const char* GetClassName() = 0;
  virtual const char* GetThreadModelName() = 0;

 protected:
  ~CTQObject() = default;
};

// Objects of this model may be used from several threads: counts change atomically.
struct CTQMultiThreadModel {
  static constexpr const char* kName = "CTQMultiThreadModel";
};

template <typename Interface, typename ThreadModel>
class CTQObjectNoRefImplT : public Interface {
 public:
  int32_t AddRef() override { return 0; }
  int32_t Release() override {
    delete this;
    return 0;
  }
  int32_t GetRefCount() override { return 1; }
  uint32_t QueryInterface(const Guid&, void** out) override {
    if (out) *out = nullptr;
    return kStatusNoInterface;
  }
  const char* GetClassName() override { return "NotDynamicClass"; }
  const char* GetThreadModelName() override { return ThreadModel::kName; }
};

template <typename Interface, typename ThreadModel>
class CTQObjectImplT : public CTQObjectNoRefImplT<Interface, ThreadModel> {
 public:
  int32_t AddRef() override { return reference_count_.fetch_add(1) + 1; }
  int32_t Release() override {
    const int32_t count = reference_count_.fetch_sub(1) - 1;
    if (count < 1) delete this;
    return count;
  }
  int32_t GetRefCount() override { return reference_count_.load(); }

 private:
  std::atomic<int32_t> reference_count_{1};
};

}  // namespace pelka
