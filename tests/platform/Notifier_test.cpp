#include <gtest/gtest.h>
#include <zyldb/platform/Notifier.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

int typeId(const char* name) { return NotifyMsgTypeDictionary::instance().intern(name); }

TEST(NotifierTest, DeliversInRegistrationOrderToTheMatchingType) {
  struct View {
    std::string* log;
    int onMsg(const NotifyMsg& m) {
      *log += std::to_string(static_cast<WrappedData<int>*>(m.getObject())->get());
      return 0;
    }
  };
  Notifier n;
  std::string log;
  View view{&log};
  const int type = typeId("t.order");
  auto r1 = n.addListener("t.order",
                          [&](const NotifyMsg& m) { return log += m.getText().toStdString(), 0; });
  auto other = n.addListener("t.other", [&](const NotifyMsg&) { return log += "X", 0; });
  Qm::Ptr<iCallbackBase<int, NotifyMsg>> cb(
      new MethodCallback<View, NotifyMsg, int>(&view, &View::onMsg));
  auto r2 = n.registerCallback(
      Qm::Ptr<CallbackInvoker<NotifyMsg>>(new CallbackInvoker<NotifyMsg>(cb, type)));
  n.issueNotification(NotifyMsg("a", new WrappedData<int>(42)), type);
  EXPECT_EQ(log, "a42");
  r1.reset();
  EXPECT_EQ(n.numListeners(), 2u);
  EXPECT_EQ(Notifier(n).numListeners(), 0u);  // a copy starts without listeners
  EXPECT_EQ(NotifyMsgTypeDictionary::instance().nameOf(type), "t.order");
}

TEST(NotifierTest, ListenersChangingRegistrationsDuringDelivery) {
  Notifier n;
  const int type = typeId("t.unreg"), inner = typeId("t.inner");
  std::vector<int> calls;
  auto note = [&calls](int id) {
    return [&calls, id](const NotifyMsg&) { return calls.push_back(id), 0; };
  };
  Qm::Ptr<iObject> r2, r3, added;
  auto r0 = n.addListener("t.inner", note(0));
  auto r1 = n.addListener("t.unreg", [&](const NotifyMsg&) {
    calls.push_back(1);
    r2.reset();                                             // a later listener, before its turn
    if (!added) added = n.addListener("t.unreg", note(4));  // waits for the next delivery
    n.issueNotification(NotifyMsg(), inner);
    return 0;
  });
  r2 = n.addListener("t.unreg", note(2));
  r3 = n.addListener(
      "t.unreg", [&](const NotifyMsg&) { return calls.push_back(3), r3.reset(), 0; });  // itself
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(calls, (std::vector<int>{1, 0, 3}));
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(calls, (std::vector<int>{1, 0, 3, 1, 0, 4}));
}

TEST(NotifierTest, DestructionInEitherOrder) {
  int calls = 0;
  auto count = [&calls](const NotifyMsg&) { return ++calls, 0; };
  Qm::Ptr<iObject> reg = Notifier().addListener("t.order2", count);
  reg.reset();  // notifier first, then the registration
  auto n = std::make_unique<Notifier>();
  n->addListener("t.order2", count).reset();  // registration first
  n->issueNotification(NotifyMsg(), typeId("t.order2"));
  EXPECT_EQ(calls, 0);
  // A listener that destroys the notifier while it delivers.
  auto first = n->addListener("t.order2", [&](const NotifyMsg&) { return n.reset(), ++calls, 0; });
  auto second = n->addListener("t.order2", count);
  n->issueNotification(NotifyMsg(), typeId("t.order2"));
  EXPECT_EQ(calls, 1);
}

TEST(NotifierTest, ConcurrentRegistrationAndDelivery) {
  Notifier n;
  int type = typeId("t.threads");
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto reg = n.addListener("t.threads", [&](const NotifyMsg&) { return ++calls, 0; });
        n.issueNotification(NotifyMsg(), type);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_GE(calls.load(), 2000);
  EXPECT_EQ(n.numListeners(), 0u);
}

TEST(NotifyMsgTokenIteratorTest, WalksBlankSeparatedTokens) {
  std::string tokens;
  long sum = 0;
  for (NotifyMsgTokenIterator it(NotifyMsg("3 4  5\t12 x7 ", nullptr)); !it.atEnd(); ++it) {
    tokens += it.token().toStdString() + "|";
    sum += it.asLong();
  }
  EXPECT_EQ(tokens, "3|4|5|12|x7|");
  EXPECT_EQ(sum, 24);  // "x7" reads as 0
  EXPECT_TRUE(NotifyMsgTokenIterator(NotifyMsg("   ", nullptr)).atEnd());
}

}  // namespace
