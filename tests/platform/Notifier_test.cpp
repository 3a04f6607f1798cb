#include <zyldb/platform/Notifier.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

int typeId(const char* name) { return NotifyMsgTypeDictionary::instance().intern(name); }

TEST(NotifierTest, DeliversInRegistrationOrderToTheMatchingType) {
  Notifier n;
  std::string log;
  auto r1 = n.addListener("t.order", [&](const NotifyMsg& m) { log += "1" + m.getText().toStdString(); return 0; });
  auto other = n.addListener("t.other", [&](const NotifyMsg&) { log += "X"; return 0; });
  auto r2 = n.addListener("t.order", [&](const NotifyMsg&) { log += "2"; return 0; });
  n.issueNotification(NotifyMsg("a", nullptr), typeId("t.order"));
  EXPECT_EQ(log, "1a2");
  EXPECT_EQ(n.numListeners(), 3u);
  r1.reset();
  EXPECT_EQ(n.numListeners(), 2u);
}

TEST(NotifierTest, MethodCallbackAndPayload) {
  struct View {
    int seen = 0;
    int onDeleted(const NotifyMsg& m) {
      seen = static_cast<WrappedData<int>*>(m.getObject())->get();
      return 0;
    }
  } view;
  Notifier n;
  int type = typeId("t.method");
  Qm::Ptr<iCallbackBase<int, NotifyMsg>> cb(new MethodCallback<View, NotifyMsg, int>(&view, &View::onDeleted));
  auto reg = n.registerCallback(Qm::Ptr<CallbackInvoker<NotifyMsg>>(new CallbackInvoker<NotifyMsg>(cb, type)));
  n.issueNotification(NotifyMsg(new WrappedData<int>(42)), type);
  EXPECT_EQ(view.seen, 42);
  EXPECT_FALSE(n.registerCallback(nullptr));
}

TEST(NotifierTest, UnregisterDuringDeliverySkipsTheOthers) {
  Notifier n;
  int type = typeId("t.unreg");
  std::vector<int> calls;
  Qm::Ptr<iObject> r2, r3;
  auto r1 = n.addListener("t.unreg", [&](const NotifyMsg&) {
    calls.push_back(1);
    r2.reset();  // a later listener, before its turn
    return 0;
  });
  r2 = n.addListener("t.unreg", [&](const NotifyMsg&) { calls.push_back(2); return 0; });
  r3 = n.addListener("t.unreg", [&](const NotifyMsg&) {
    calls.push_back(3);
    r3.reset();  // itself, while running
    return 0;
  });
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(calls, (std::vector<int>{1, 3}));
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(calls, (std::vector<int>{1, 3, 1}));
}

TEST(NotifierTest, RegisteringAndIssuingFromAListener) {
  Notifier n;
  int type = typeId("t.nested"), inner = typeId("t.inner");
  std::vector<Qm::Ptr<iObject>> regs;
  int innerCalls = 0, outerCalls = 0;
  regs.push_back(n.addListener("t.inner", [&](const NotifyMsg&) { ++innerCalls; return 0; }));
  regs.push_back(n.addListener("t.nested", [&](const NotifyMsg&) {
    ++outerCalls;
    regs.push_back(n.addListener("t.nested", [&](const NotifyMsg&) { ++outerCalls; return 0; }));
    n.issueNotification(NotifyMsg(), inner);
    return 0;
  }));
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(outerCalls, 1);  // the one added during delivery waits for the next
  EXPECT_EQ(innerCalls, 1);
}

TEST(NotifierTest, DestructionInEitherOrder) {
  int calls = 0;
  Qm::Ptr<iObject> reg;
  {
    Notifier n;
    reg = n.addListener("t.order2", [&](const NotifyMsg&) { ++calls; return 0; });
  }
  reg.reset();  // notifier first, then the registration
  auto n = std::make_unique<Notifier>();
  reg = n->addListener("t.order2", [&](const NotifyMsg&) { ++calls; return 0; });
  reg.reset();  // registration first
  n->issueNotification(NotifyMsg(), typeId("t.order2"));
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(n->numListeners(), 0u);
  // A listener that destroys the notifier while it delivers.
  Qm::Ptr<iObject> first = n->addListener("t.order2", [&](const NotifyMsg&) { n.reset(); ++calls; return 0; });
  Qm::Ptr<iObject> second = n->addListener("t.order2", [&](const NotifyMsg&) { ++calls; return 0; });
  n->issueNotification(NotifyMsg(), typeId("t.order2"));
  EXPECT_EQ(calls, 1);
}

TEST(NotifierTest, CopyStartsWithoutListeners) {
  Notifier a;
  auto reg = a.addListener("t.copy", [](const NotifyMsg&) { return 0; });
  Notifier b(a);
  EXPECT_EQ(b.numListeners(), 0u);
  EXPECT_EQ(a.numListeners(), 1u);
}

TEST(NotifierTest, ConcurrentRegistrationAndDelivery) {
  Notifier n;
  int type = typeId("t.threads");
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto reg = n.addListener("t.threads", [&](const NotifyMsg&) { ++calls; return 0; });
        n.issueNotification(NotifyMsg(), type);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_GE(calls.load(), 2000);
  EXPECT_EQ(n.numListeners(), 0u);
}

TEST(NotifyMsgTypeDictionaryTest, InternsStableIds) {
  auto& d = NotifyMsgTypeDictionary::instance();
  int a = d.intern("recordsDeleted");
  EXPECT_GE(a, 1);
  EXPECT_EQ(d.intern(LightweightString<char>("recordsDeleted")), a);
  EXPECT_NE(d.intern("recordsChanged"), a);
  EXPECT_EQ(d.nameOf(a), "recordsDeleted");
  EXPECT_TRUE(d.nameOf(0).empty());
  EXPECT_TRUE(d.nameOf(1 << 30).empty());
}

TEST(NotifyMsgTokenIteratorTest, WalksBlankSeparatedTokens) {
  NotifyMsg msg("3 4  5\t12 x7 ", nullptr);
  std::vector<std::string> tokens;
  std::vector<long> values;
  for (NotifyMsgTokenIterator it(msg); !it.atEnd(); ++it) {
    tokens.push_back(it.token().toStdString());
    values.push_back(it.asLong());
  }
  EXPECT_EQ(tokens, (std::vector<std::string>{"3", "4", "5", "12", "x7"}));
  EXPECT_EQ(values, (std::vector<long>{3, 4, 5, 12, 0}));
  EXPECT_TRUE(NotifyMsgTokenIterator(NotifyMsg()).atEnd());
  EXPECT_TRUE(NotifyMsgTokenIterator(NotifyMsg("   ", nullptr)).atEnd());
}

}  // namespace
