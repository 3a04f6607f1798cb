// Notifier: a listener list shared with the registration objects.
//
// Each listener is a Slot {invoker, alive flag}. The notifier's State holds
// the slots in registration order; a Registration (the object handed back to
// the listener) holds a weak reference to the State and a strong one to its
// Slot. Dropping the registration clears the flag and erases the slot;
// destroying the notifier clears every flag, and later registrations find
// the State gone.
//
// Delivery copies the matching slots (registration order) and then calls
// each whose flag is still set, checking it right before the call. The
// calls run with the State's CriticalSection held. It is recursive, so a
// listener may register, unregister and issue on its own thread; and a
// listener dropped on another thread is waited for: once its registration's
// destructor has returned, its callback is neither running nor called again.
// The price is that listeners must not wait for other threads that use the
// same notifier.

#include <zyldb/platform/CriticalSection.h>
#include <zyldb/platform/Notifier.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Slot {
  Slot(Qm::Ptr<CallbackInvoker<NotifyMsg>> inv) : invoker(std::move(inv)) {}
  Qm::Ptr<CallbackInvoker<NotifyMsg>> invoker;
  std::atomic<bool> alive{true};
};

}  // namespace

struct Notifier::State {
  mutable CriticalSection cs;
  std::vector<std::shared_ptr<Slot>> slots;  // registration order
};

namespace {

class Registration final : public iObject {
 public:
  Registration(std::weak_ptr<Notifier::State> state, std::shared_ptr<Slot> slot)
      : state_(std::move(state)), slot_(std::move(slot)) {}

  ~Registration() override {
    std::shared_ptr<Notifier::State> state = state_.lock();
    if (!state) {
      slot_->alive.store(false, std::memory_order_release);
      return;
    }
    CriticalSection::Lock lock(state->cs);
    slot_->alive.store(false, std::memory_order_release);
    auto& v = state->slots;
    v.erase(std::remove(v.begin(), v.end(), slot_), v.end());
  }

 private:
  std::weak_ptr<Notifier::State> state_;
  std::shared_ptr<Slot> slot_;
};

}  // namespace

NotifierBase::~NotifierBase() = default;

Notifier::Notifier() : state_(std::make_shared<State>()) {}

Notifier::Notifier(const Notifier&) : NotifierBase(), state_(std::make_shared<State>()) {}

Notifier::~Notifier() {
  CriticalSection::Lock lock(state_->cs);
  for (auto& slot : state_->slots) slot->alive.store(false, std::memory_order_release);
  state_->slots.clear();
}

Qm::Ptr<iObject> Notifier::registerCallback(const Qm::Ptr<CallbackInvoker<NotifyMsg>>& invoker) {
  if (!invoker) return nullptr;
  auto slot = std::make_shared<Slot>(invoker);
  Qm::Ptr<iObject> reg(new Registration(state_, slot));
  CriticalSection::Lock lock(state_->cs);
  state_->slots.push_back(std::move(slot));
  return reg;
}

Qm::Ptr<iObject> Notifier::addListener(const char* typeName,
                                       std::function<int(const NotifyMsg&)> fn) {
  int type = NotifyMsgTypeDictionary::instance().intern(typeName ? typeName : "");
  Qm::Ptr<iCallbackBase<int, NotifyMsg>> cb(new FunctionCallback<int, NotifyMsg>(std::move(fn)));
  return registerCallback(
      Qm::Ptr<CallbackInvoker<NotifyMsg>>(new CallbackInvoker<NotifyMsg>(cb, type)));
}

void Notifier::issueNotification(const NotifyMsg& msg, int type) {
  // Keeps the list (and its lock) alive should a listener destroy the
  // notifier itself.
  std::shared_ptr<State> state = state_;
  CriticalSection::Lock lock(state->cs);
  std::shared_ptr<Slot> inline_[8];
  std::vector<std::shared_ptr<Slot>> more;
  size_t n = 0;
  for (const auto& slot : state->slots) {
    if (slot->invoker->msgType() != type) continue;
    if (n < 8)
      inline_[n] = slot;
    else
      more.push_back(slot);
    ++n;
  }
  for (size_t i = 0; i < n; ++i) {
    Slot& slot = i < 8 ? *inline_[i] : *more[i - 8];
    if (slot.alive.load(std::memory_order_acquire)) slot.invoker->invoke(msg);
  }
}

size_t Notifier::numListeners() const {
  CriticalSection::Lock lock(state_->cs);
  return state_->slots.size();
}

// ---- NotifyMsgTypeDictionary --------------------------------------------------

namespace {

struct Dictionary {
  mutable std::mutex mutex;
  std::map<std::string, int, std::less<>> ids;
  std::vector<LightweightString<char>> names;  // names[id - 1]
};

Dictionary& dictionary() {
  static Dictionary d;
  return d;
}

}  // namespace

NotifyMsgTypeDictionary& NotifyMsgTypeDictionary::instance() {
  static NotifyMsgTypeDictionary d;
  return d;
}

int NotifyMsgTypeDictionary::intern(const LightweightString<char>& name) {
  Dictionary& d = dictionary();
  std::lock_guard<std::mutex> lock(d.mutex);
  auto it = d.ids.find(name.view());
  if (it != d.ids.end()) return it->second;
  d.names.push_back(name);
  int id = static_cast<int>(d.names.size());
  d.ids.emplace(name.toStdString(), id);
  return id;
}

LightweightString<char> NotifyMsgTypeDictionary::nameOf(int id) const {
  Dictionary& d = dictionary();
  std::lock_guard<std::mutex> lock(d.mutex);
  if (id < 1 || static_cast<size_t>(id) > d.names.size()) return LightweightString<char>();
  return d.names[static_cast<size_t>(id) - 1];
}

// ---- NotifyMsgTokenIterator ---------------------------------------------------

namespace {
inline bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
}  // namespace

NotifyMsgTokenIterator::NotifyMsgTokenIterator(const NotifyMsg& msg) : text_(msg.getText()) {
  start_ = text_.c_str();
  len_ = 0;
  skip();
}

NotifyMsgTokenIterator& NotifyMsgTokenIterator::operator++() {
  if (len_ != 0) {
    start_ += len_;
    len_ = 0;
    skip();
  }
  return *this;
}

void NotifyMsgTokenIterator::skip() {
  const char* end = text_.c_str() + text_.size();
  while (start_ < end && isBlank(*start_)) ++start_;
  const char* p = start_;
  while (p < end && !isBlank(*p)) ++p;
  len_ = static_cast<size_t>(p - start_);
}

long NotifyMsgTokenIterator::asLong() const {
  if (len_ == 0) return 0;
  // The token ends at a blank or at the text's NUL, where strtol stops too.
  return std::strtol(start_, nullptr, 10);
}
