#include <gtest/gtest.h>
#include <zyldb/platform/Notifier.h>

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
  auto r1 = n.addListener("t.order", [&](const NotifyMsg& m) {
    log += m.getText().toStdString();
    return 0;
  });
  auto other = n.addListener("t.other", [&](const NotifyMsg&) {
    log += "X";
    return 0;
  });
  Qm::Ptr<iCallbackBase<int, NotifyMsg>> cb(
      new MethodCallback<View, NotifyMsg, int>(&view, &View::onMsg));
  auto r2 = n.registerCallback(
      Qm::Ptr<CallbackInvoker<NotifyMsg>>(new CallbackInvoker<NotifyMsg>(cb, type)));
  EXPECT_FALSE(n.registerCallback(nullptr));
  n.issueNotification(NotifyMsg("a", new WrappedData<int>(42)), type);
  EXPECT_EQ(log, "a42");
  EXPECT_EQ(n.numListeners(), 3u);
  r1.reset();
  EXPECT_EQ(n.numListeners(), 2u);
  Notifier copy(n);  // starts without listeners
  EXPECT_EQ(copy.numListeners(), 0u);
  EXPECT_EQ(n.numListeners(), 2u);

  auto& d = NotifyMsgTypeDictionary::instance();
  EXPECT_GE(type, 1);
  EXPECT_EQ(d.intern(LightweightString<char>("t.order")), type);
  EXPECT_NE(d.intern("t.other"), type);
  EXPECT_EQ(d.nameOf(type), "t.order");
  EXPECT_TRUE(d.nameOf(0).empty());
}

TEST(NotifierTest, ListenersChangingRegistrationsDuringDelivery) {
  Notifier n;
  const int type = typeId("t.unreg"), inner = typeId("t.inner");
  std::vector<int> calls;
  auto note = [&calls](int id) {
    return [&calls, id](const NotifyMsg&) {
      calls.push_back(id);
      return 0;
    };
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
  r3 = n.addListener("t.unreg", [&](const NotifyMsg&) {
    calls.push_back(3);
    r3.reset();  // itself, while running
    return 0;
  });
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(calls, (std::vector<int>{1, 0, 3}));
  n.issueNotification(NotifyMsg(), type);
  EXPECT_EQ(calls, (std::vector<int>{1, 0, 3, 1, 0, 4}));
}

TEST(NotifierTest, DestructionInEitherOrder) {
  int calls = 0;
  Qm::Ptr<iObject> reg;
  {
    Notifier n;
    reg = n.addListener("t.order2", [&](const NotifyMsg&) {
      ++calls;
      return 0;
    });
  }
  reg.reset();  // notifier first, then the registration
  auto n = std::make_unique<Notifier>();
  reg = n->addListener("t.order2", [&](const NotifyMsg&) {
    ++calls;
    return 0;
  });
  reg.reset();  // registration first
  n->issueNotification(NotifyMsg(), typeId("t.order2"));
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(n->numListeners(), 0u);
  // A listener that destroys the notifier while it delivers.
  auto first = n->addListener("t.order2", [&](const NotifyMsg&) {
    n.reset();
    ++calls;
    return 0;
  });
  auto second = n->addListener("t.order2", [&](const NotifyMsg&) {
    ++calls;
    return 0;
  });
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
        auto reg = n.addListener("t.threads", [&](const NotifyMsg&) {
          ++calls;
          return 0;
        });
        n.issueNotification(NotifyMsg(), type);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_GE(calls.load(), 2000);
  EXPECT_EQ(n.numListeners(), 0u);
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
