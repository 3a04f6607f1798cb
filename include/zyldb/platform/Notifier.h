#pragma once

// Notifications: a Notifier keeps a list of listeners, each registered for
// one message type, and delivers messages to them synchronously on the thread
// that issues them.
//
// Message types are small integers that NotifyMsgTypeDictionary hands out for
// type names ("recordsDeleted", "recordsChanged"). A message carries a text
// and an optional reference-counted object (the payload).
//
// Registering returns a registration object; the listener stays registered
// as long as a Qm::Ptr to that object lives. Dropping it unregisters, also
// when the notifier is already gone, so listener and notifier may be
// destroyed in either order.
//
// Delivery goes to the listeners registered when issueNotification starts, in
// order of registration. A listener may register, unregister (itself or
// others) and issue further notifications while it runs; one unregistered
// before its turn is skipped. The list is guarded by a CriticalSection, so
// several threads may register and issue; the listeners run on the issuing
// thread.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/QmPtr.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

class ZYLDB_EXPORT NotifyMsg {
 public:
  NotifyMsg() = default;
  NotifyMsg(const LightweightString<char>& text, iObject* object) : text_(text), object_(object) {}
  explicit NotifyMsg(iObject* object) : object_(object) {}

  const LightweightString<char>& getText() const { return text_; }
  iObject* getObject() const { return object_.get(); }

 private:
  LightweightString<char> text_;
  Qm::Ptr<iObject> object_;
};

// Interns message type names; the same name always gives the same id (>= 1).
class ZYLDB_EXPORT NotifyMsgTypeDictionary {
 public:
  static NotifyMsgTypeDictionary& instance();
  int intern(const LightweightString<char>& name);
  // The name of an interned id; empty for an unknown one.
  LightweightString<char> nameOf(int id) const;

 private:
  NotifyMsgTypeDictionary() = default;
};

// Walks the blank-separated tokens of a message's text:
//   for (NotifyMsgTokenIterator it(msg); !it.atEnd(); ++it) use(it.token());
class ZYLDB_EXPORT NotifyMsgTokenIterator {
 public:
  explicit NotifyMsgTokenIterator(const NotifyMsg& msg);
  bool atEnd() const { return len_ == 0; }
  NotifyMsgTokenIterator& operator++();
  // The current token (a copy).
  LightweightString<char> token() const { return LightweightString<char>(start_, len_); }
  const char* tokenStart() const { return start_; }
  size_t tokenLength() const { return len_; }
  // The current token read with strtol base 10 (0 when it is not a number).
  long asLong() const;

 private:
  void skip();
  LightweightString<char> text_;  // keeps the text alive
  const char* start_ = nullptr;
  size_t len_ = 0;
};

template <class R, class A>
class iCallbackBase : public iObject {
 public:
  virtual R execute(const A& arg) = 0;
};

// Calls a member function of an object that the callback does not own.
template <class T, class A, class R>
class MethodCallback : public iCallbackBase<R, A> {
 public:
  using Method = R (T::*)(const A&);
  MethodCallback(T* object, Method method) : object_(object), method_(method) {}
  R execute(const A& arg) override { return (object_->*method_)(arg); }

 private:
  T* object_;
  Method method_;
};

// Calls any callable.
template <class R, class A>
class FunctionCallback : public iCallbackBase<R, A> {
 public:
  explicit FunctionCallback(std::function<R(const A&)> fn) : fn_(std::move(fn)) {}
  R execute(const A& arg) override { return fn_(arg); }

 private:
  std::function<R(const A&)> fn_;
};

// A callback bound to one message type, as a Notifier keeps it.
template <class A>
class CallbackInvoker : public iObject {
 public:
  CallbackInvoker(Qm::Ptr<iCallbackBase<int, A>> callback, int msgType)
      : callback_(std::move(callback)), msgType_(msgType) {}
  int msgType() const { return msgType_; }
  int invoke(const A& arg) { return callback_->execute(arg); }

 private:
  Qm::Ptr<iCallbackBase<int, A>> callback_;
  int msgType_;
};

// An object payload holding a value.
template <class T>
class WrappedData : public iObject {
 public:
  explicit WrappedData(T value) : value_(std::move(value)) {}
  T& get() { return value_; }
  const T& get() const { return value_; }

 private:
  T value_;
};

class ZYLDB_EXPORT NotifierBase {
 public:
  virtual ~NotifierBase();
};

class ZYLDB_EXPORT Notifier : public virtual NotifierBase {
 public:
  Notifier();
  // A copy starts with no listeners of its own.
  Notifier(const Notifier&);
  // Assignment keeps this notifier's own listeners (so self-assignment is a
  // no-op too).
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
  Notifier& operator=(const Notifier&) { return *this; }
  ~Notifier() override;

  // Registers `invoker` for its message type. Returns the registration.
  Qm::Ptr<iObject> registerCallback(const Qm::Ptr<CallbackInvoker<NotifyMsg>>& invoker);
  // Registers `fn` for messages of type `typeName`. Returns the registration.
  Qm::Ptr<iObject> addListener(const char* typeName, std::function<int(const NotifyMsg&)> fn);

  // Delivers `msg` to the listeners of `type` (see the file comment).
  void issueNotification(const NotifyMsg& msg, int type);

  // The number of live registrations.
  size_t numListeners() const;

  struct State;  // shared with registrations

 private:
  std::shared_ptr<State> state_;
};
