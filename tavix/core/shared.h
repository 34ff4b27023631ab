// Intrusive reference counting: every object the library shares lives
// through the count held in its virtual base Shared and is handed around by
// SmartPtr<T>, so the application and the library share one count per object.
#ifndef TAVIX_CORE_SHARED_H_
#define TAVIX_CORE_SHARED_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <type_traits>

namespace TAVIX {

// Base of classes that must not be copied.
class noncopyable {
 protected:
  noncopyable() = default;
  ~noncopyable() = default;

 public:
  noncopyable(const noncopyable&) = delete;
  noncopyable& operator=(const noncopyable&) = delete;
};

class Shared {
 public:
  Shared() noexcept = default;
  // A copy starts with the count and flag of its source, like any other
  // member; holders of the copy are counted from that value on.
  Shared(const Shared& other) noexcept
      : m_count(other.m_count.load(std::memory_order_relaxed)),
        m_noDelete(other.m_noDelete) {}
  Shared& operator=(const Shared& other) noexcept {
    m_count.store(other.m_count.load(std::memory_order_relaxed), std::memory_order_relaxed);
    m_noDelete = other.m_noDelete;
    return *this;
  }
  virtual ~Shared() = default;

  void IncRef() noexcept { m_count.fetch_add(1, std::memory_order_relaxed); }

  // Deletes the object when the count reaches zero, exactly once: a
  // destructor that takes and drops a new holder does not delete again.
  void DecRef() noexcept {
    if (m_count.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    if (m_noDelete) return;
    m_noDelete = true;
    delete this;
  }

  int32_t RefCount() const noexcept { return m_count.load(std::memory_order_relaxed); }

 private:
  std::atomic<int32_t> m_count{0};
  bool m_noDelete = false;
};

// Raised by SmartPtr on a null dereference; kept out of line so that the
// template stays small.
[[noreturn]] void ThrowNullPointer();

template <class T>
class SmartPtr {
 public:
  SmartPtr() noexcept = default;
  SmartPtr(std::nullptr_t) noexcept {}  // NOLINT: implicit null is natural
  SmartPtr(T* p, bool count = true) noexcept : m_ptr(p) {  // NOLINT
    if (m_ptr != nullptr && count) m_ptr->IncRef();
  }
  SmartPtr(const SmartPtr& other) noexcept : m_ptr(other.m_ptr) {
    if (m_ptr != nullptr) m_ptr->IncRef();
  }
  SmartPtr(SmartPtr&& other) noexcept : m_ptr(other.m_ptr) { other.m_ptr = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  SmartPtr(const SmartPtr<U>& other) noexcept : SmartPtr(other.get()) {}  // NOLINT

  ~SmartPtr() {
    if (m_ptr != nullptr) m_ptr->DecRef();
  }

  // The new object is counted before the old one is released, so assigning
  // an object to itself never deletes it. The same object again changes
  // nothing and touches no count.
  SmartPtr& operator=(T* p) noexcept {
    if (p == m_ptr) return *this;
    if (p != nullptr) p->IncRef();
    T* old = m_ptr;
    m_ptr = p;
    if (old != nullptr) old->DecRef();
    return *this;
  }
  SmartPtr& operator=(const SmartPtr& other) noexcept { return *this = other.m_ptr; }
  SmartPtr& operator=(SmartPtr&& other) noexcept {
    if (this != &other) {
      T* old = m_ptr;
      m_ptr = other.m_ptr;
      other.m_ptr = nullptr;
      if (old != nullptr) old->DecRef();
    }
    return *this;
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  SmartPtr& operator=(const SmartPtr<U>& other) noexcept {
    return *this = static_cast<T*>(other.get());
  }

  T* operator->() const {
    if (m_ptr == nullptr) ThrowNullPointer();
    return m_ptr;
  }
  T& operator*() const {
    if (m_ptr == nullptr) ThrowNullPointer();
    return *m_ptr;
  }
  T* get() const noexcept { return m_ptr; }
  explicit operator bool() const noexcept { return m_ptr != nullptr; }

  // The typed view of a shared object, or null when it is of another class.
  template <class U>
  static SmartPtr DynamicCast(const SmartPtr<U>& other) {
    return SmartPtr(dynamic_cast<T*>(other.get()));
  }

  friend bool operator==(const SmartPtr& a, const SmartPtr& b) noexcept { return a.m_ptr == b.m_ptr; }
  friend bool operator==(const SmartPtr& a, std::nullptr_t) noexcept { return a.m_ptr == nullptr; }
  // Ordered by object address, so sets of holders iterate in address order.
  friend bool operator<(const SmartPtr& a, const SmartPtr& b) noexcept {
    return std::less<const T*>()(a.m_ptr, b.m_ptr);
  }

 private:
  T* m_ptr = nullptr;
};

// Makes a new counted object and its first holder in one step.
template <class T, class... Args>
SmartPtr<T> MakeShared(Args&&... args) {
  return SmartPtr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace TAVIX

#endif  // TAVIX_CORE_SHARED_H_
